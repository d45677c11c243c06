#include <gtest/gtest.h>

#include "daemon/rtsp_request.h"
#include "tests/support/worked_example.h"
#include "tools/control_client.h"

namespace {

TEST(ControlChannelPage, ExampleIsWhatAClientSends) {
    const ControlRequest play = ControlRequest(RTSP_REQ_PLAY).with("Session", "987").with("Scale", "-2.0");
    EXPECT_EQ(test::exampleBytes("control-channel.md", "play-request", sizeof play.record),
              test::bytesOf(play.record));
}

} // namespace

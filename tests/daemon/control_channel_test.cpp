#include "daemon/control_channel.h"

#include <gtest/gtest.h>

#include "tests/support/worked_example.h"
#include "tools/client/control_client.h"

namespace {

TEST(ControlChannel, PagesExampleIsWhatAClientSends) {
    const ControlRequest play = ControlRequest(RTSP_REQ_PLAY).with("Session", "987").with("Scale", "-2.0");
    EXPECT_EQ(test::exampleBytes("control-channel.md", "play-request", sizeof play.record),
              test::bytesOf(play.record));
}

TEST(ControlChannel, ReadsTheFirstNumberOfAName) {
    const std::tuple<std::string, std::string, unsigned long> cases[] = {
        {"Session", "  77xyz", 77},
        {"Session-X", "\t\n\v\f\r 9", 9},
        {"Sessio", "77", 0},
        {"Session", "-5", 0},
        {"Session", "36893488147419103233", 4294967295},                    // 2^65 + 1
        {"Session" + std::string(57, 'x'), std::string(255, '0') + "7", 7}, // no NUL in either field
    };
    for (const auto& [name, value, number] : cases)
        EXPECT_EQ(rtsp_session_id(&ControlRequest(0).with(name, value).record), number)
            << name << ": " << value;
    auto twice = ControlRequest(0).with("FFTime", " 500 ms").with("Session", "4").with("Session", "5");
    EXPECT_EQ(rtsp_ff_skiptime(&twice.record), 500u);
    for (const auto& [headerNum, number] : {std::pair(65, 4u), {2, 4u}, {1, 0u}, {-1, 0u}}) {
        twice.record.headerNum = headerNum;
        EXPECT_EQ(rtsp_session_id(&twice.record), number) << headerNum;
    }
}

} // namespace

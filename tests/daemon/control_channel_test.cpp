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
    const struct {
        int32_t headerNum;
        std::string name, value; ///< of the last entry
        unsigned long number;
    } cases[] = {
        {64, "Session", "  77xyz", 77},
        {64, "Session-X", "\t\n\v\f\r 9", 9},
        {64, "Sessio", "77", 0},
        {64, "Session", "-5", 0},
        {64, "Session", "36893488147419103233", 4294967295},                    // 2^65 + 1
        {64, "Session" + std::string(57, 'x'), std::string(255, '0') + "7", 7}, // no NUL in either field
        {65, "Session", "5", 5},
        {63, "Session", "5", 0},
    };
    for (const auto& [headerNum, name, value, number] : cases) {
        rtsp_request request{};
        request.headerNum = headerNum;
        name.copy(request.header[63].name, sizeof request.header[63].name);
        value.copy(request.header[63].value, sizeof request.header[63].value);
        EXPECT_EQ(rtsp_session_id(&request), number) << headerNum << " " << name << ": " << value;
    }
    const auto twice = ControlRequest(0).with("FFTime", " 500 ms").with("Session", "4").with("Session", "5");
    EXPECT_EQ(rtsp_session_id(&twice.record), 4u);
    EXPECT_EQ(rtsp_ff_skiptime(&twice.record), 500u);
}

} // namespace

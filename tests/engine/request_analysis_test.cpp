#include <cstdlib>
#include <ctime>

#include "engine/request_analysis.h"
#include "tests/engine/engine_fixture.h"

namespace test {

constexpr uint32_t kMax = 0xFFFFFFFF;
constexpr uint32_t kClock = 1704164645 - 9 * 3600; // 2024-01-02 03:04:05 nine hours east

static void setZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
}

TEST(RequestTest, FirstKeywordDecides) {
    const LogRecorder log;
    setZone("JST-9"); // the Z of a clock text does not make it UTC
    const struct {
        Headers headers;
        PBDATA expected;
    } cases[] = {
        {{}, {0, 10, 0, 0}},
        {{{"Session", "7"}, {"scale", "2"}, {"Scal", "2"}}, {0, 10, 0, 0}},
        {{{"Scale", "-2.0"}}, {2, 20, 0, 0}},
        {{{"Scale", "0.55"}}, {1, 5, 0, 0}},
        {{{"Scale-X", "1 .5\t"}}, {1, 15, 0, 0}},
        {{{"Scale", "nan"}}, {1, 0, 0, 0}},
        {{{"Scale", "-inf"}}, {2, kMax, 0, 0}},
        {{{"Scale", "429496729.6"}}, {1, kMax, 0, 0}},
        {{{"Scale", std::string(256, '9')}}, {1, kMax, 0, 0}}, // no NUL in the field
        {{{"Step", "-1"}}, {4, 1, 0, 0}},
        {{{"Step", "3.9"}, {"Scale", "2"}}, {3, 3, 0, 0}},
        {{{"Range", "npt=0.000-"}, {"Scale", "2"}}, {0, 10, 0, 0}},
        {{{"Range", "x clock = 20240102T030405Z-"}}, {0, 10, JUMP_RANGE, kClock}},
        {{{"Jump", "oldest of all"}}, {0, 10, JUMP_OLDEST, 0}},
        {{{"Jump", "latest"}}, {0, 10, JUMP_LATEST, 0}},
        {{{"Jump", "next-alarm"}}, {0, 10, JUMP_NEXT_ALARM, 0}},
        {{{"Jump", "prev-alarm"}}, {0, 10, JUMP_PREV_ALARM, 0}},
        {{{"Jump", "Oldest"}}, {0, 10, JUMP_NONE, 0}},
        {{{"Jump", "clock=20240102T030405Z"}}, {0, 10, JUMP_CLOCK, kClock}},
        {{{"Jump", "clock=99991231T235959Z"}}, {0, 10, JUMP_CLOCK, kMax}},
        // A text without a time: the zeroed fields are the day before 1900-01-01, beyond 32 bits.
        {{{"Jump", "clock"}}, {0, 10, JUMP_CLOCK, kMax}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.headers));
        const std::optional<PBDATA> asked = analyzeRequest(makeRequest(RTSP_REQ_PLAY, c.headers));
        ASSERT_TRUE(asked);
        EXPECT_EQ(asked->reqType, c.expected.reqType);
        EXPECT_EQ(asked->reqSpeed, c.expected.reqSpeed);
        EXPECT_EQ(asked->reqJump, c.expected.reqJump);
        EXPECT_EQ(asked->reqTime, c.expected.reqTime);
    }
    setZone("UTC");
    for (const char* text : {"124/0/2 3:4:5", "Jump: oldestofall", "npt=0.000-"})
        EXPECT_TRUE(log.has(6, text, "analyzeEventData")) << text << log.dump();

    EXPECT_FALSE(analyzeRequest(makeRequest(RTSP_REQ_TEARDOWN, {{"Scale", "2"}})));
    EXPECT_EQ(analyzeRequest(makeRequest(RTSP_REQ_PAUSE, {{"Scale", "2"}}))->reqType, kReqPause);
    rtsp_request request = makeRequest(RTSP_REQ_PLAY);
    request.headerNum = 0x7FFFFFFF; // no entry beyond the record is read
    EXPECT_TRUE(analyzeRequest(request));
}

TEST_F(EngineTest, NewestIsTakenOnceAndTheOthersNever) {
    card.stream(1).from("12:00:00").pictures(300).closed();
    Engine engine(1);
    ASSERT_EQ(engine.preGetData(), 1);
    engine.play({{"Scale", "4"}});
    engine.play({{"Jump", "latest"}});
    engine.play({{"Step", "7"}});
    for (int i = 0; i < 4; ++i) engine.turn();
    EXPECT_EQ(engine.offset(), 7u);
    EXPECT_TRUE(log.has(6, "direction[0]\nplaySpeed[0.0]\nm_pbType[9]\n")) << log.dump();
}

} // namespace test

#include "engine/jumps.h"
#include "tests/engine/engine_fixture.h"

namespace test {

class PlayModeTest : public EngineTest {
protected:
    PlayModeTest() {
        // Ten seconds each, an I-picture every second.
        card.stream(1).from("12:00:00").fps(30).pictures(300).gop(30).closed();
        card.stream(2).from("12:05:00").fps(30).pictures(300).gop(30).closed();
    }
    Engine engine{1};
};

TEST_F(PlayModeTest, DirectionAndSpeedDecidePlayType) {
    const struct {
        uint32_t direction, speed;
        PBTYPE type;
        uint32_t playSpeed;
    } cases[] = {
        {0, 10, PB_NORMAL, 10},   {0, 1, PB_SLOW, 5},          {0, 9, PB_SLOW, 5},
        {1, 1, PB_SLOW_REW, 5},   {1, 9, PB_SLOW_REW, 5},      {0, 11, PB_FF, 11},
        {0, 65534, PB_FF, 65534}, {0, 65536, PB_FF, 65536},    {1, 10, PB_REW, 10},
        {1, 320, PB_REW, 320},    {0, 65535, PB_STEP_FWD, 10}, {1, 65535, PB_STEP_BACK, 10},
        {1, 0, PB_PAUSE, 0},      {0, 0, PB_PAUSE, 0},         {2, 10, PB_PAUSE, 10}, // type unchanged
    };
    for (const auto& c : cases) {
        engine.m_pauseMode = kPauseStart;
        EXPECT_EQ(engine.m_changePlayMode(c.direction, c.speed), c.playSpeed);
        EXPECT_EQ(engine.getCurrentPlayMode(), c.type) << c.direction << " " << c.speed;
        EXPECT_EQ(engine.getCurrentPauseMode(), kPauseStart);
        EXPECT_EQ(engine.direction, c.direction);
    }
    EXPECT_EQ(log.count(6, "invalid path!", "m_changePlayMode"), 1);
    EXPECT_TRUE(log.has(6, "direction[1]\nplaySpeed[32.0]\nm_pbType[2]\n")) << log.dump();
}

TEST_F(PlayModeTest, NewestRequestWinsAndPauseKeepsThePictureReady) {
    ASSERT_EQ(engine.preGetData(), 1);
    engine.play({{"Scale", "4"}});
    engine.play({{"Step", "7"}});
    const rtsp_request pause = makeRequest(RTSP_REQ_PAUSE);
    engine.analyzeEventData(&pause);
    engine.turn();
    EXPECT_EQ(engine.getCurrentPlayMode(), PB_PAUSE);
    EXPECT_EQ(engine.offset(), 0u);
    engine.play();
    EXPECT_EQ(engine.turn(), pictureBytes(1, 0, true));
    ASSERT_EQ(engine.preGetData(), 1);
    engine.play({{"Scale", "1"}});
    EXPECT_EQ(engine.turn(), pictureBytes(1, 1, false));
}

TEST_F(PlayModeTest, SkipTimeStaysInItsBounds) {
    for (const auto& [ms, stepMs] : {std::pair(100u, 1332), {500, 2000}, {5000, 4000}}) {
        ASSERT_EQ(engine.preGetData(), 1);
        engine.m_pbStreamTime = at("12:00:00");
        engine.setFFSkipTime(ms);
        engine.play({{"Scale", "4"}});
        engine.turn();
        EXPECT_EQ(Engine::ms(engine.m_pbStreamTime) - Engine::ms(at("12:00:00")), stepMs) << ms;
    }
}

TEST_F(PlayModeTest, JumpsLandOnTheirTarget) {
    card.alarm("12:00:05.100", "12:00:06");
    card.alarm("12:05:03.100", "12:05:04");
    const struct {
        const char* header;
        std::string value;
        const char* lands;
        PBTYPE type;
        uint8_t reason;
    } cases[] = {
        {"Jump", "clock=20240102T120004Z", "12:00:04", PB_PAUSE, kPauseNone},
        {"Jump", "latest", "12:05:09", PB_PAUSE, kPauseEnd},
        {"Jump", "oldest", "12:00:00", PB_PAUSE, kPauseStart},
        {"Jump", "oldest", "12:00:00", PB_PAUSE, kPauseStart},
        {"Jump", "next-alarm", "12:00:05", PB_PAUSE, kPauseNone}, // the picture lies before the alarm
        {"Jump", "next-alarm", "12:05:03", PB_PAUSE, kPauseNone},
        {"Range", "clock=20240102T120502Z-", "12:05:02", PB_NORMAL, kPauseNone},
        {"Jump", "next-alarm", "12:05:03", PB_PAUSE, kPauseNone}, // once more, after moving away from it
        {"Jump", "prev-alarm", "12:00:05", PB_PAUSE, kPauseNone},
        // Between the streams the end of the first is nearer.
        {"Jump", "clock=20240102T120020Z", "12:00:09", PB_PAUSE, kPauseNone},
    };
    ASSERT_EQ(engine.preGetData(), 1);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.header + (" " + c.value));
        engine.play({{c.header, c.value}});
        const uint32_t stream = std::string(c.lands) < "12:05" ? 1 : 2;
        const std::string shown = engine.turn();
        EXPECT_EQ(shown, pictureBytes(stream, engine.offset(), true));
        EXPECT_EQ(engine.timeMs(), Engine::ms(at(c.lands)));
        EXPECT_EQ(engine.getCurrentPlayMode(), c.type);
        EXPECT_EQ(engine.getCurrentPauseMode(), c.reason);
        EXPECT_EQ(engine.m_resyncPacing, c.type == PB_NORMAL);
    }
    engine.play({{"Jump", "latest"}});
    engine.turn();
    engine.play({{"Jump", "next-alarm"}}); // there is none
    EXPECT_EQ(engine.turn(), "PAUSE");
    EXPECT_EQ(engine.timeMs(), Engine::ms(at("12:05:09")));
}

TEST(ClockCandidateTest, NearestLandingIsTaken) {
    using enum ClockCandidate;
    EXPECT_EQ(clockCandidate(1, 1, 2), forward);
    EXPECT_EQ(clockCandidate(2, 1, 3), halfLater);
    EXPECT_EQ(clockCandidate(2, 1, 1), secondLater);
    EXPECT_EQ(clockCandidate(0, 2, 1), secondLater); // the second one nearer than the half
    EXPECT_EQ(secondsApart(5, 7), 2u);
    EXPECT_EQ(secondsApart(0x80000000, 0), 0x80000000u);
}

} // namespace test

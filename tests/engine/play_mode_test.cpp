#include "engine/jumps.h"
#include "tests/engine/engine_fixture.h"

namespace test {

class PlayModeTest : public EngineTest {
protected:
    PlayModeTest() { card.stream(1).from("12:00:00").pictures(300).closed(); }
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

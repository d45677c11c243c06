#include "tests/engine/engine_fixture.h"

namespace test {

static timeval us(int64_t microseconds) {
    timeval span{};
    span.tv_sec = microseconds / 1000000;
    span.tv_usec = static_cast<suseconds_t>(microseconds % 1000000);
    return span;
}
static int64_t us(timeval span) {
    return int64_t{span.tv_sec} * 1000000 + span.tv_usec;
}

TEST_F(EngineTest, PauseFollowsTheRecordingsClock) {
    card.stream(1).from("12:00:00").fps(25).gops(30).pictures(5).closed();
    card.stream(2).from("12:01:00").fps(25).gops(120).pictures(5).closed();
    card.stream(3).from("12:02:00").fps(25).gops(30).frameSet(0).pictures(5).closed();
    constexpr int64_t kNow = 1'000'000'000'000; // microseconds
    constexpr bool rebased = true;
    enum State { same, changed, resync, newStream };
    const struct {
        const char* what;
        uint32_t stream;
        PBTYPE type;
        uint32_t speed;
        int64_t wallMs;   ///< wall clock since the base
        uint32_t shownMs; ///< recording time since the base
        int64_t pauseUs;
        bool rebased = false;
        State state = same;
    } cases[] = {
        {"paused", 1, PB_PAUSE, 0, 0, 0, 100000},
        {"early", 1, PB_NORMAL, 10, 500, 2300, 1800000},
        {"early, slow stretches", 1, PB_SLOW, 5, 100, 100, 100000},
        {"early by just under gops", 1, PB_NORMAL, 10, 1, 30000, 29999000},
        {"early by gops", 1, PB_NORMAL, 10, 0, 30000, 10, rebased},
        {"wall clock set back", 1, PB_NORMAL, 10, -3600000, 40, 10, rebased},
        {"late by just under gops", 1, PB_NORMAL, 10, 30039, 40, 10},
        {"late by gops", 1, PB_NORMAL, 10, 30040, 40, 10, rebased},
        {"fast early", 1, PB_FF, 20, 0, 1900, 950000},
        {"fast early, cut", 1, PB_FF, 20, 0, 4000, 1000000},
        {"fast early by gops", 1, PB_FF, 20, 0, 60000, 10, rebased},
        {"reverse early", 1, PB_REW, 10, 100, 600, 500000},
        {"fast late: half a gop", 1, PB_FF, 20, 100, 0, 30000},
        {"slow reverse late: half a gop", 1, PB_SLOW_REW, 5, 100, 0, 120000},
        {"slow reverse late: half the skip time", 2, PB_SLOW_REW, 5, 100, 0, 166000},
        {"fast late, frame rate 0", 3, PB_FF, 20, 100, 0, 25000},
        {"fast late by gops", 1, PB_FF, 20, 30000, 0, 30000, rebased},
        {"speed that wraps with the rate", 1, PB_FF, 1u << 31, 100, 0, 0},
        {"other speed", 1, PB_NORMAL, 10, 0, 5000, 10, rebased, changed},
        {"other speed, fast", 1, PB_REW, 30, 0, 5000, 333000, rebased, changed},
        {"range jump", 1, PB_NORMAL, 10, 0, 5000, 10, rebased, resync},
        {"new stream, long pause", 1, PB_NORMAL, 10, 0, 5000, 1000000, rebased, newStream},
        {"new stream, short pause; divided first", 1, PB_NORMAL, 10, 0, 999, 990000, false, newStream},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Engine engine(c.stream);
        ASSERT_EQ(engine.preGetData(), 1);
        STREAM_HEADER header;
        engine.m_pbStream.getStH(&header);
        simulated::set(us(kNow));
        engine.setFFSkipTime(333);
        engine.m_pbType = c.type;
        engine.playSpeed = c.speed;
        engine.direction = c.type == PB_REW || c.type == PB_SLOW_REW ? kBackward : kForward;
        engine.m_prevPlaySpeed = c.state == changed ? c.speed + 1 : c.speed;
        engine.m_prevDirection = engine.direction;
        engine.m_resyncPacing = c.state == resync;
        engine.m_prevStreamIdPacing = c.state == newStream ? header.id + 1 : header.id;
        const PB_STREAM_TIME pts = engine.m_pbStream.getNowPts();
        const PB_STREAM_TIME shown(c.shownMs / 1000, c.shownMs % 1000);
        const PB_STREAM_TIME basePts = engine.direction == kForward ? pts - shown : pts + shown;
        const int64_t baseUs = kNow - c.wallMs * 1000;
        engine.m_basePts = engine.m_prevPts = basePts;
        engine.m_baseWallTime = us(baseUs);

        EXPECT_EQ(us(engine.m_sleepTimer({}, {})), c.pauseUs);
        EXPECT_EQ(us(simulated::now()), kNow + c.pauseUs);
        // A fresh start counts from the end of its pause.
        const bool fresh = c.state == changed || c.state == resync;
        EXPECT_EQ(us(engine.m_baseWallTime), !c.rebased ? baseUs : fresh ? kNow + c.pauseUs : kNow);
        EXPECT_TRUE(engine.m_basePts == (c.rebased ? pts : basePts));
        EXPECT_TRUE(engine.m_prevPts == engine.m_basePts);
        EXPECT_EQ(engine.m_resyncPacing, 0);
        EXPECT_EQ(engine.m_prevPlaySpeed, c.speed);
        EXPECT_EQ(engine.m_prevStreamIdPacing, header.id);
    }
}

} // namespace test

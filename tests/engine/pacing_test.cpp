#include <gtest/gtest.h>

#include "engine/pacing.h"

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
static PB_STREAM_TIME ms(int64_t milliseconds) {
    return {static_cast<uint32_t>(milliseconds / 1000), static_cast<uint32_t>(milliseconds % 1000)};
}

TEST(PacingTest, PauseFollowsTheRecordingsClock) {
    constexpr int64_t kBaseUs = 1'000'000'000'000, kBasePts = 500'000; // milliseconds
    constexpr bool rebased = true;
    enum State { same, otherSpeed, resync, newStream };
    const struct {
        const char* what;
        PBTYPE type;
        uint32_t speed;
        int64_t wallMs;  ///< wall clock since the base
        int64_t shownMs; ///< recording time since the base
        int64_t pauseUs;
        bool rebased = false;
        State state = same;
        uint32_t gops = 30, frameRate = 250;
    } cases[] = {
        {"paused", PB_PAUSE, 0, 0, 0, 100000},
        {"early", PB_NORMAL, 10, 500, 2300, 1800000},
        {"early, slow stretches", PB_SLOW, 5, 100, 100, 100000},
        {"early by just under gops", PB_NORMAL, 10, 1, 30000, 29999000},
        {"early by gops", PB_NORMAL, 10, 0, 30000, 10, rebased},
        {"wall clock set back", PB_NORMAL, 10, -3600000, 40, 10, rebased},
        {"late by just under gops", PB_NORMAL, 10, 30039, 40, 10},
        {"late by gops", PB_NORMAL, 10, 30040, 40, 10, rebased},
        {"fast early", PB_FF, 20, 0, 1900, 950000},
        {"fast early, cut", PB_FF, 20, 0, 4000, 1000000},
        {"fast early by gops", PB_FF, 20, 0, 60000, 10, rebased},
        {"reverse early", PB_REW, 10, 100, 600, 500000},
        {"fast late: half a gop", PB_FF, 20, 100, 0, 30000},
        {"slow reverse late: half a gop", PB_SLOW_REW, 5, 100, 0, 120000},
        {"slow reverse late: half the skip time", PB_SLOW_REW, 5, 100, 0, 166000, false, same, 120},
        {"fast late, frame rate unknown", PB_FF, 20, 100, 0, 25000, false, same, 30, 0},
        {"fast late by gops", PB_FF, 20, 30000, 0, 30000, rebased},
        {"speed that wraps with the rate", PB_FF, 1u << 31, 100, 0, 0},
        {"other speed", PB_NORMAL, 10, 0, 5000, 10, rebased, otherSpeed},
        {"other speed, fast", PB_REW, 30, 0, 5000, 333000, rebased, otherSpeed},
        {"range jump", PB_NORMAL, 10, 0, 5000, 10, rebased, resync},
        {"new stream, long pause", PB_NORMAL, 10, 0, 5000, 1000000, rebased, newStream},
        {"new stream, short pause; divided first", PB_NORMAL, 10, 0, 999, 990000, false, newStream},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const bool forward = c.type != PB_REW && c.type != PB_SLOW_REW;
        Pacing pacing;
        Moment moment{.now = us(kBaseUs),
                      .play = {c.type, c.speed, forward ? Direction::forward : Direction::backward},
                      .pts = ms(kBasePts),
                      .streamId = 7,
                      .gops = c.gops,
                      .frameRate = c.frameRate,
                      .skipMs = 333};
        if (c.state == otherSpeed) ++moment.play.playSpeed;
        // Play that begins takes the clocks together at the end of its first pause.
        const int64_t base = kBaseUs + us(pacing.pauseAt(moment).span);
        const int64_t now = base + c.wallMs * 1000;
        moment.now = us(now);
        moment.pts = ms(forward ? kBasePts + c.shownMs : kBasePts - c.shownMs);
        moment.play.playSpeed = c.speed;
        if (c.state == newStream) ++moment.streamId;
        if (c.state == resync) pacing.resync();
        const Pacing::Pause pause = pacing.pauseAt(moment);
        EXPECT_EQ(us(pause.span), c.pauseUs);
        EXPECT_EQ(pause.rebased, c.rebased);
        if (!c.rebased) continue;
        // From there on, 100 ms shown are 100 ms of pause; a fresh start counts from the end of its own.
        const PB_STREAM_TIME shown(0, 10 * c.speed);
        moment.pts = forward ? moment.pts + shown : moment.pts - shown;
        const bool fresh = c.state == otherSpeed || c.state == resync;
        EXPECT_EQ(us(pacing.pauseAt(moment).span), 100000 + (fresh ? c.pauseUs : 0));
    }
}

} // namespace test

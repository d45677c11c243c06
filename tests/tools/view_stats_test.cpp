#include "tools/view/view_stats.h"

#include <cmath>
#include <gtest/gtest.h>

namespace {

/// Plays blocks into the statistics, written as they would come.
struct Playback {
    void picture(uint32_t increment, std::optional<double> arrivalMs = 0, std::string_view data = "picture") {
        std::optional<ViewStats::Clock::time_point> arrival;
        if (arrivalMs) arrival.emplace(std::chrono::microseconds(std::lround(*arrivalMs * 1000)));
        stats.add({++sequence, stamp += increment, 0, {data.begin(), data.end()}}, arrival);
    }
    void pause() { picture(0, 0, "PAUSE"); }
    ViewStats stats;
    uint32_t stamp = 0xFFFFFFFF - 4000;
    uint32_t sequence = 0;
};

TEST(ViewStats, RunsEndAtPausesAndJumpsButNotWhereStampsWrap) {
    Playback playback;
    playback.pause();
    EXPECT_FALSE(playback.stats.report().increments || playback.stats.report().againstTurn);
    for (const uint32_t increment : {0u, 3000u, 3000u, 2970u}) playback.picture(increment); // over the wrap
    EXPECT_EQ(playback.stats.report().runs, 1u);
    playback.pause();
    for (const auto& [increment, runs] :
         {std::pair{3000u, 2u}, {90000u, 2u}, {90001u, 3u}, {0u - 3000u, 4u}}) {
        playback.picture(increment);
        EXPECT_EQ(playback.stats.report().runs, runs) << increment;
    }
    const ViewReport report = playback.stats.report();
    EXPECT_EQ(report.pictures, 8u);
    ASSERT_TRUE(report.increments); // those within runs only
    EXPECT_EQ(report.increments->min, 2970u);
    EXPECT_EQ(report.increments->median, 3000u);
    EXPECT_EQ(report.increments->max, 90000u);
}

TEST(ViewStats, LatenessIsMeasuredWithinEachRunFromItsThirdPictureOn) {
    Playback playback;
    for (int i = 0; i < 10; ++i) playback.picture(900, std::nullopt); // there before
    for (int run = 0; run < 2; ++run) {
        const double begin = run * 50000; // where the daemon paced anew, hours of stamps are no lateness
        playback.pause();
        playback.picture(0, begin);
        playback.picture(900, begin + 1); // both out early
        for (int i = 2; i < 202; ++i) playback.picture(900, begin + 10 * i + (i == 60 ? 7 : i % 3 == 0));
    }
    const ViewReport report = playback.stats.report();
    ASSERT_TRUE(report.againstStamp);
    EXPECT_NEAR(report.againstStamp->p50, 0, 0.001);
    EXPECT_NEAR(report.againstStamp->p99, 1, 0.001); // one in 200 is later
    EXPECT_NEAR(report.againstStamp->max, 7, 0.001);
}

TEST(ViewStats, TurnsComeInStepsOfTenMilliseconds) {
    Playback playback;
    double before = 0;
    for (int i = 0; i < 300; ++i) { // 30 fps in whole milliseconds, out on the steps behind a base 3 ms off
        const uint32_t increment = i % 3 == 2 ? 34 : 33;
        const double turn = std::floor((before + 3) / 10) * 10;
        playback.picture(increment * kStampsPerMs, turn + (i % 50 == 49 ? 2 : 0));
        before += i == 0 ? 0 : increment;
    }
    const ViewReport report = playback.stats.report();
    EXPECT_NEAR(report.againstTurn->p50, 0, 0.001);
    EXPECT_NEAR(report.againstTurn->max, 2, 0.001);
    EXPECT_GT(report.againstStamp->p50, 2);
}

} // namespace

#include "tools/view_stats.h"

#include <cmath>
#include <gtest/gtest.h>

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr ViewStats::Clock::time_point kBegin{std::chrono::hours(5)};

/// Plays blocks into the statistics, written as they would come.
struct Playback {
    explicit Playback(uint32_t firstStamp) : stamp(firstStamp) {}

    void picture(uint32_t increment, double arrivalMs) {
        add("picture", increment, kBegin + toTime(arrivalMs));
    }
    void found(uint32_t increment) { add("picture", increment, std::nullopt); }
    void pause() { add("PAUSE", 0, kBegin); }
    void add(std::string_view data, uint32_t increment, std::optional<ViewStats::Clock::time_point> arrival) {
        stamp += increment;
        stats.add({++sequence, stamp, 0, {data.begin(), data.end()}}, arrival);
    }
    static microseconds toTime(double ms) { return microseconds(static_cast<int64_t>(ms * 1000)); }

    ViewStats stats;
    uint32_t stamp;
    uint32_t sequence = 0;
};

TEST(ViewStats, NoPictureLeavesNothingToMeasure) {
    Playback playback(0);
    playback.pause();
    const ViewReport report = playback.stats.report();
    EXPECT_EQ(report.pauseBlocks, 1u);
    EXPECT_EQ(report.pictures + report.bytes + report.runs, 0u);
    EXPECT_FALSE(report.increments || report.againstTurn);
}

TEST(ViewStats, RunsEndAtPausesAndJumpsButNotWhereStampsWrap) {
    Playback playback(0xFFFFFFFF - 4000);
    playback.picture(0, 0);
    for (const uint32_t increment : {3000u, 3000u, 2970u}) playback.picture(increment, 0); // over the wrap
    EXPECT_EQ(playback.stats.report().runs, 1u);
    playback.pause();
    playback.pause();
    playback.picture(3000, 0);
    EXPECT_EQ(playback.stats.report().runs, 2u);
    playback.picture(90000, 0); // just a second
    EXPECT_EQ(playback.stats.report().runs, 2u);
    playback.picture(90001, 0);
    EXPECT_EQ(playback.stats.report().runs, 3u);
    playback.picture(0u - 3000u, 0); // backwards
    const ViewReport report = playback.stats.report();
    EXPECT_EQ(report.runs, 4u);
    EXPECT_EQ(report.pictures, 8u);
    EXPECT_EQ(report.bytes, 8u * 7);
    EXPECT_EQ(report.pauseBlocks, 2u);
    EXPECT_EQ(report.firstStamp, 0xFFFFFFFF - 4000);
    EXPECT_EQ(report.lastStamp, playback.stamp);
    ASSERT_TRUE(report.increments); // those within runs only
    EXPECT_EQ(report.increments->min, 2970u);
    EXPECT_EQ(report.increments->median, 3000u);
    EXPECT_EQ(report.increments->max, 90000u);
}

TEST(ViewStats, LatenessIsMeasuredWithinEachRunFromItsThirdPictureOn) {
    Playback playback(1000);
    for (int run = 0; run < 2; ++run) {
        const double begin = run * 50000; // where the daemon paced anew, hours of stamps are no lateness
        playback.picture(0, begin);
        playback.picture(900, begin + 1); // both out early
        for (int i = 2; i < 202; ++i) {
            const double late = i == 60 ? 7 : i % 3 == 0; // ms
            playback.picture(900, begin + 10 * i + late);
        }
        playback.pause();
    }
    const auto lateness = playback.stats.report().againstStamp;
    ASSERT_TRUE(lateness);
    EXPECT_NEAR(lateness->p50, 0, 0.001);
    EXPECT_NEAR(lateness->p99, 1, 0.001); // one in 200 is later
    EXPECT_NEAR(lateness->max, 7, 0.001);
}

TEST(ViewStats, TurnsComeInStepsOfTenMilliseconds) {
    Playback playback(0);
    double before = 0;
    for (int i = 0; i < 300; ++i) { // 30 fps in whole milliseconds, out on the steps behind a base 3 ms off
        const uint32_t increment = i % 3 == 2 ? 34 : 33;
        playback.picture(increment * kStampsPerMs,
                         std::floor((before + 3) / 10) * 10 + (i % 50 == 49 ? 2 : 0));
        before += i == 0 ? 0 : increment;
    }
    const ViewReport report = playback.stats.report();
    EXPECT_NEAR(report.againstTurn->p50, 0, 0.001);
    EXPECT_NEAR(report.againstTurn->max, 2, 0.001);
    EXPECT_GT(report.againstStamp->p50, 2);
}

TEST(ViewStats, WhatWasThereBeforeIsCountedButNotMeasured) {
    Playback playback(0);
    for (int i = 0; i < 10; ++i) playback.found(900);
    for (int i = 0; i < 10; ++i) playback.picture(900, i * 10 + (i == 5 ? 2 : 0));
    const ViewReport report = playback.stats.report();
    EXPECT_EQ(report.pictures, 20u);
    EXPECT_EQ(report.runs, 1u);
    ASSERT_TRUE(report.againstTurn);
    EXPECT_NEAR(report.againstTurn->max, 2, 0.001);
    EXPECT_NEAR(report.againstTurn->p50, 0, 0.001);
}

} // namespace

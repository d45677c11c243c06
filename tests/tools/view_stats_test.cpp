#include "tools/view/view_stats.h"

#include <cmath>
#include <gmock/gmock.h>

namespace {

/// Plays blocks into the statistics, written as they would come.
struct Playback {
    void picture(uint32_t increment, std::optional<double> arrivalMs = 0, std::string_view data = "picture") {
        std::optional<ViewStats::Clock::time_point> arrival;
        if (arrivalMs) arrival.emplace(std::chrono::microseconds(std::lround(*arrivalMs * 1000)));
        stats.add({++sequence, stamp += increment, 2, {data.begin(), data.end()}}, arrival);
    }
    void pause() { picture(0, 0, kPauseBlock); }
    ViewStats stats;
    uint32_t stamp = 0xFFFFFFFF - 4000;
    uint32_t sequence = 0;
};

TEST(ViewStats, RunsEndAtPausesAndJumpsButNotWhereStampsWrap) {
    Playback playback;
    playback.pause();
    EXPECT_FALSE(playback.stats.report().increments || playback.stats.report().againstTurn);
    for (const auto& [increment, runs] : {std::pair{0u, 1u},
                                          {3000u, 1u},
                                          {3000u, 1u},
                                          {2970u, 1u},
                                          {0u, 2u},
                                          {3000u, 2u},
                                          {90000u, 2u},
                                          {90001u, 3u},
                                          {0u - 3000u, 4u}}) {
        if (increment == 0) playback.pause();
        playback.picture(increment);
        EXPECT_EQ(playback.stats.report().runs, runs) << increment;
    }
    const ViewReport report = playback.stats.report();
    EXPECT_EQ(report.pictures, 9u);
    EXPECT_EQ(report.missedBlocks, 24u);
    ASSERT_TRUE(report.increments); // those within runs only
    EXPECT_EQ(report.increments->min, 2970u);
    EXPECT_EQ(report.increments->median, 3000u);
    EXPECT_EQ(report.increments->max, 90000u);
}

// 30 fps in whole milliseconds, out on steps of 10 ms behind a base 3 ms off; one picture in 50 is 2 ms late.
TEST(ViewStats, LatenessIsMeasuredWithinEachRunFromItsThirdPictureOn) {
    Playback playback;
    for (int i = 0; i < 10; ++i) playback.picture(900, std::nullopt); // there before
    for (const double begin : {0, 50000}) { // where the daemon paced anew, hours of stamps are no lateness
        playback.pause();
        for (int i = 0, before = 0; i < 300; ++i) {
            const int interval = i % 3 == 2 ? 34 : 33;
            const double turn = i < 2 ? i : std::floor((before + 3) / 10.0) * 10 + (i % 50 == 49 ? 2 : 0);
            playback.picture(static_cast<uint32_t>(interval) * kStampsPerMs, begin + turn);
            before += i == 0 ? 0 : interval;
        }
    }
    const std::string json = asJson(playback.stats.report());
    EXPECT_THAT(json, testing::HasSubstr(R"("latenessMs":{"p50":0.0,"p99":2.0,"max":2.0},)"
                                         R"("latenessAgainstStampMs":{"p50":4.0,"p99":7.0,"max":9.0}})"));
}

} // namespace

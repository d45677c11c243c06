// What the viewer's side makes of typed times, of the index and of the blocks that come out.
#include <cmath>
#include <cstdlib>
#include <gmock/gmock.h>

#include "tests/support/card.h"
#include "tools/ctl/index_timeline.h"
#include "tools/ctl/play_value.h"
#include "tools/view/view_stats.h"

namespace test {
namespace {

// Daylight saving time in July, not in January; for every test of this program.
const int kZone = setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);

TEST(PlayValues, AreWhatTheDaemonReads) {
    ASSERT_EQ(kZone, 0);
    for (const auto& [typed, value] : {std::pair{"clock=2024-07-02 03:04:05.25", "clock=20240702T020405Z"},
                                       {"2024-07-01 00:30:00", "clock=20240630T233000Z"},
                                       {"2024-03-31 03:30:00", "clock=20240331T023000Z"},
                                       {"clock=20240102T030405Z-", "clock=20240102T030405Z-"},
                                       {"prev-alarm", "prev-alarm"}})
        EXPECT_EQ(jumpValue(typed), value);
    EXPECT_EQ(rangeValue("prev-alarm"), std::nullopt);
    for (const char* wrong : {"", "Oldest", "2024-02-31 03:04:05", "2024-01-02 03:04:05.1234",
                              "1969-12-31 00:00:00", "clock=20240102T030405Zx", "20380120T000000Z"})
        EXPECT_EQ(jumpValue(wrong), std::nullopt) << wrong;
}

TEST(IndexListing, TellsFinishedFromLiveAndDrawsThemInTime) {
    const World world;
    Card card(world);
    card.stream(1).from("12:00:00").pictures(301).fps(10).closed();
    card.stream(2).from("12:01:00").pictures(30).recording();
    card.alarm("12:00:01", "12:00:03.500", 513);
    card.alarm("12:01:01", nullptr);
    const IndexListing listing = readIndex();
    EXPECT_THAT(asTable(listing), testing::ContainsRegex("00.000  recording .*01.000  going on "));
    EXPECT_THAT(asJson(listing), testing::HasSubstr(R"("end":null,"endMs":null}],"alarms":[)"));
    EXPECT_EQ(asTimeline(listing, atMs("12:01:15"), 52), //
              "2024-01-02  |12:00:00      |12:00:30       |12:01:00\n"
              "streams     1===============...............2=======>\n"
              "alarms      !-                             !--------\n"
              "now                                                ^\n");
}

// 30 fps in whole milliseconds, out on steps of 10 ms behind a base 3 ms off; one picture in 50 is 2 ms late.
// Runs end at pauses and jumps, but not where stamps wrap.
TEST(ViewStats, LatenessIsMeasuredWithinEachRunFromItsThirdPictureOn) {
    ViewStats stats;
    EXPECT_FALSE(stats.report().increments || stats.report().againstTurn);
    uint32_t stamp = 0xFFFFFFFF - 4000, sequence = 0;
    const auto add = [&](uint32_t increment, std::optional<double> arrivalMs,
                         std::string_view data = "picture") {
        std::optional<ViewStats::Clock::time_point> arrival;
        if (arrivalMs) arrival.emplace(std::chrono::microseconds(std::lround(*arrivalMs * 1000)));
        stats.add({++sequence, stamp += increment, 2, {data.begin(), data.end()}}, arrival);
    };
    for (int i = 0; i < 10; ++i) add(900, std::nullopt); // there before
    add(0, 0, kPauseBlock);
    for (const double begin : {0, 50000}) { // where the daemon paced anew, hours of stamps are no lateness
        for (int i = 0, before = 0; i < 300; ++i) {
            const int interval = i == 0 && begin > 0 ? 1001 : i % 3 == 2 ? 34 : 33;
            const double turn = i < 2 ? i : std::floor((before + 3) / 10.0) * 10 + (i % 50 == 49 ? 2 : 0);
            add(static_cast<uint32_t>(interval) * kStampsPerMs, begin + turn);
            before += i == 0 ? 0 : interval;
        }
    }
    const ViewReport report = stats.report();
    EXPECT_EQ(report.runs, 3u);
    EXPECT_EQ(report.missedBlocks, 2u * sequence);
    EXPECT_THAT(asJson(report), testing::HasSubstr(R"("min":900,"median":2970,"max":3060)"));
    EXPECT_THAT(asJson(report),
                testing::HasSubstr(R"("latenessMs":{"p50":0.0,"p99":2.0,"max":2.0},)"
                                   R"("latenessAgainstStampMs":{"p50":4.0,"p99":7.0,"max":9.0}})"));
}

} // namespace
} // namespace test

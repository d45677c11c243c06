// What tavirn-ctl makes of answers, of typed times and of the index.
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <gmock/gmock.h>
#include <unistd.h>

#include "platform/kw_com.h"
#include "platform/paths.h"
#include "tests/support/card.h"
#include "tools/client/control_client.h"
#include "tools/ctl/index_listing.h"
#include "tools/ctl/index_timeline.h"
#include "tools/ctl/play_value.h"

namespace test {
namespace {

TEST(ControlChannelClient, TakesAnswersAndFieldsAtTheirSizes) {
    const std::string start("\0\0\0\1", 4), failed(3, '\xFF'), rest(92, '\xFF'), none(96, '\0');
    const std::pair<std::string, OpenAnswer> answers[] = {
        {start, OpenAnswer::opened},
        {start + rest, OpenAnswer::opened},
        {start + rest + 'x', OpenAnswer::malformed},
        {failed + '\xFE' + rest, OpenAnswer::noStream},
        {failed + '\xFD' + rest, OpenAnswer::alreadyOpen},
        {failed + '\xFC' + rest, OpenAnswer::searchFailed},
        {failed + '\xFE', OpenAnswer::malformed},
        {none, OpenAnswer::setUpFailed},
        {"", OpenAnswer::malformed},
    };
    for (const auto& [answer, meaning] : answers) EXPECT_EQ(readOpenAnswer(answer), meaning);
    EXPECT_EQ(readStatusAnswer(std::string(64, 'x')), "") << "no NUL";

    ControlRequest request(RTSP_REQ_PLAY);
    for (int i = 0; i < 65; ++i) request.with("Scale", std::string(300, 'v'));
    EXPECT_EQ(request.record.headerNum, 64);
    EXPECT_EQ(fieldText(request.record.header[63].value), std::string(256, 'v'));
}

TEST(ControlChannelClient, DoesNotWaitForEverForASilentDaemon) {
    const World world;
    const ControlRequest request(RTSP_REQ_STATUS);
    EXPECT_FALSE(exchange(paths().controlSocket, request.record, 50));
    EXPECT_EQ(errno, ENOENT);
    const int silent = s_create_serv_socket(paths().controlSocket); // listens, but nobody accepts
    EXPECT_FALSE(exchange(paths().controlSocket, request.record, 50));
    EXPECT_TRUE(errno == ETIMEDOUT || errno == EAGAIN) << errno;
    close(silent);
}

TEST(PlayValues, AreWhatTheDaemonReads) {
    const std::string before = std::getenv("TZ") ? std::getenv("TZ") : "";
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1); // daylight saving time in July, not in January
    const std::pair<const char*, std::optional<std::string>> cases[] = {
        {"2024-01-02 03:04:05", "clock=20240102T030405Z"},
        {"clock=2024-07-02 03:04:05", "clock=20240702T020405Z"},
        {"2024-07-01 00:30:00", "clock=20240630T233000Z"},
        {"clock=20240102T030405Z-", "clock=20240102T030405Z-"},
        {"20240102T030405Z", "clock=20240102T030405Z"},
        {"prev-alarm", "prev-alarm"},
        {"", {}},
        {"Oldest", {}},
        {"clock=20240102T0304", {}},
        {"clock=20240102T030405Zx", {}},
        {"npt=0-", {}},
        {"20380120T000000Z", {}},
        {"2038-01-20 00:00:00", {}},
    };
    for (const auto& [typed, value] : cases) EXPECT_EQ(jumpValue(typed), value) << typed;
    EXPECT_EQ(rangeValue("prev-alarm"), std::nullopt);
    before.empty() ? unsetenv("TZ") : setenv("TZ", before.c_str(), 1);
    tzset();
}

TEST(IndexListing, TellsFinishedFromLiveAndDrawsThemInTime) {
    const World world;
    Card card(world);
    card.stream(1).from("12:00:00").pictures(301).fps(10).closed();
    card.stream(2).from("12:01:00").pictures(30).recording();
    card.alarm("12:00:01", "12:00:03.500", 513);
    card.alarm("12:01:01", nullptr);
    IndexListing listing = readIndex();
    EXPECT_THAT(asTable(listing),
                testing::ContainsRegex("12:01:00.000  recording .*12:01:01.000  going on "));
    EXPECT_THAT(asJson(listing),
                testing::HasSubstr(R"("end":null,"endMs":null}],"alarms":[{"alarmId":1,"trig)"));
    EXPECT_EQ(asTimeline(listing, atMs("2024-01-02 12:01:15"), 52), //
              "2024-01-02  |12:00:00      |12:00:30       |12:01:00\n"
              "streams     1===============...............2=======>\n"
              "alarms      !-                             !--------\n"
              "now                                                ^\n");
    listing.streams.pop_back();
    EXPECT_EQ(asTimeline(listing, atMs("2024-01-12 12:00:30"), 1), // 40 at least
              "2024-01-02  |12:00:00    |12:00:15\n"
              "streams     1===========================\n"
              "alarms      !---\n"
              "now         10 days later\n");
}

} // namespace
} // namespace test

// What tavirn-ctl makes of answers, of typed times and of the index.
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
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
    const std::string start("\0\0\0\1", 4), failed(3, '\xFF'), rest(92, '\xFF');
    const std::pair<std::string, OpenAnswer> answers[] = {
        {start, OpenAnswer::opened},
        {start + std::string(92, 'x'), OpenAnswer::opened},
        {start + std::string(93, 'x'), OpenAnswer::malformed},
        {failed + '\xFE' + rest, OpenAnswer::noStream},
        {failed + '\xFD' + rest, OpenAnswer::alreadyOpen},
        {failed + '\xFC' + rest, OpenAnswer::searchFailed},
        {failed + '\xFE', OpenAnswer::malformed},
        {std::string(96, '\0'), OpenAnswer::setUpFailed},
        {"", OpenAnswer::malformed},
    };
    for (const auto& [answer, meaning] : answers)
        EXPECT_EQ(readOpenAnswer(answer), meaning) << testing::PrintToString(answer);
    EXPECT_EQ(readStatusAnswer(std::string(64, 'x')), "") << "no NUL";

    ControlRequest request(RTSP_REQ_PLAY);
    for (int i = 0; i < 70; ++i) request.with("Scale", std::string(300, 'v'));
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
    for (const char* typed : {"2024-01-02 03:04:05", "2024-07-02 03:04:05", "2024-07-01 00:30:00"}) {
        tm asTheDaemonReads{};
        EXPECT_TRUE(
            strptime(rangeValue(typed).value_or("").c_str(), "clock=%Y%m%dT%H%M%SZ", &asTheDaemonReads));
        EXPECT_EQ(static_cast<uint64_t>(mktime(&asTheDaemonReads)) * 1000, atMs(typed)) << typed;
        EXPECT_EQ(rangeValue(std::string("clock=") + typed), rangeValue(typed));
    }
    before.empty() ? unsetenv("TZ") : setenv("TZ", before.c_str(), 1);
    tzset();

    EXPECT_EQ(rangeValue("clock=20240102T030405Z-"), "clock=20240102T030405Z-");
    EXPECT_EQ(jumpValue("20240102T030405Z"), "clock=20240102T030405Z");
    EXPECT_EQ(jumpValue("prev-alarm"), "prev-alarm");
    EXPECT_EQ(rangeValue("prev-alarm"), std::nullopt);
    for (const char* wrong : {"", "Oldest", "clock=20240102T0304", "clock=20240102T030405Zx", "npt=0-",
                              "20380120T000000Z", "2038-01-20 00:00:00"})
        EXPECT_EQ(jumpValue(wrong), std::nullopt) << wrong;
}

TEST(IndexListing, TellsFinishedFromLiveDrawsThemInTimeAndFailsOnADamagedIndex) {
    const World world;
    Card card(world);
    card.stream(1).from("12:00:00").pictures(301).fps(10).closed();
    card.stream(2).from("12:01:00").pictures(30).recording();
    card.alarm("12:00:01", "12:00:03.500", 513);
    card.alarm("12:01:01", nullptr);
    const std::string table = asTable(readIndex()), json = asJson(readIndex());
    for (const char* part : {"2024-01-02 12:00:30.000", "recording", "2024-01-02 12:00:03.500", "going on"})
        EXPECT_NE(table.find(part), std::string::npos) << part << " is missing in\n" << table;
    EXPECT_NE(json.find("\"end\":null,\"endMs\":null}],\"alarms\":[{\"alarmId\":1,"), std::string::npos)
        << json;

    IndexListing listing = readIndex();
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
    writeFile(paths().index, "no database at all, but a text of some length");
    EXPECT_THROW(readIndex(), std::runtime_error);
}

} // namespace
} // namespace test

// What tavirn-ctl makes of answers, of typed times and of the index.
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/paths.h"
#include "tests/support/card.h"
#include "tools/control_client.h"
#include "tools/index_listing.h"
#include "tools/play_value.h"

namespace test {
namespace {

std::string failureForm(char code) {
    return std::string(3, '\xFF') + code + std::string(92, '\xFF');
}

TEST(ControlAnswers, MeanOneThingEach) {
    const std::string start("\0\0\0\1", 4);
    const std::pair<std::string, OpenAnswer> kTable[] = {
        {start, OpenAnswer::opened},
        {start + std::string(92, 'x'), OpenAnswer::opened},
        {start + std::string(93, 'x'), OpenAnswer::malformed},
        {failureForm('\xFE'), OpenAnswer::noStream},
        {failureForm('\xFD'), OpenAnswer::alreadyOpen},
        {failureForm('\xFC'), OpenAnswer::searchFailed},
        {failureForm('\xFB'), OpenAnswer::malformed},
        {failureForm('\xFE').substr(1), OpenAnswer::malformed},
        {std::string(96, '\0'), OpenAnswer::setUpFailed},
        {std::string(95, '\0'), OpenAnswer::malformed},
        {"", OpenAnswer::malformed},
    };
    for (const auto& [answer, meaning] : kTable)
        EXPECT_EQ(readOpenAnswer(answer), meaning) << testing::PrintToString(answer);

    std::string status(64, 'x');
    EXPECT_EQ(readStatusAnswer(status), "");
    status.replace(0, 5, "play", 5);
    EXPECT_EQ(readStatusAnswer(status), "play");
    EXPECT_EQ(readStatusAnswer(status.substr(1)), "");
}

TEST(ControlRequests, KeepToTheirFields) {
    ControlRequest request(RTSP_REQ_PLAY);
    for (int i = 0; i < 70; ++i) request.with("Scale", std::string(300, 'v'));
    EXPECT_EQ(request.record.headerNum, 64);
    EXPECT_EQ(fieldText(request.record.header[63].value), std::string(256, 'v'));
    EXPECT_EQ(fieldText(request.record.header[63].name), "Scale");
}

// It listens, but nobody accepts: the record goes into the socket's buffer, and no answer comes.
TEST(ControlRequests, DoNotWaitForEverForASilentDaemon) {
    const World world;
    const ControlRequest request(RTSP_REQ_STATUS);
    EXPECT_FALSE(exchange(paths().controlSocket, request.record, 50));
    EXPECT_EQ(errno, ENOENT);

    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string(paths().controlSocket).copy(address.sun_path, sizeof address.sun_path - 1);
    const int silent = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(silent, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(silent, 0), 0);
    for (int i = 0; i < 3; ++i) { // the second and third time the backlog may be full
        EXPECT_FALSE(exchange(paths().controlSocket, request.record, 50));
        EXPECT_TRUE(errno == ETIMEDOUT || errno == EAGAIN) << errno;
    }
    close(silent);
}

/// How the daemon reads a clock text.
time_t asTheDaemonReads(const std::string& value) {
    tm parts{};
    EXPECT_TRUE(strptime(value.c_str(), "clock=%Y%m%dT%H%M%SZ", &parts)) << value;
    return mktime(&parts);
}

TEST(PlayValues, TurnLocalTimeIntoWhatTheDaemonReads) {
    const char* zone = std::getenv("TZ");
    const std::optional<std::string> before = zone ? std::optional<std::string>(zone) : std::nullopt;
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1); // daylight saving time in July, not in January
    tzset();
    for (const char* typed : {"2024-01-02 03:04:05", "2024-07-02 03:04:05", "2024-07-01 00:30:00"}) {
        const auto seconds = static_cast<time_t>(atMs(typed) / 1000);
        EXPECT_EQ(asTheDaemonReads(rangeValue(typed).value_or("")), seconds) << typed;
        EXPECT_EQ(rangeValue(std::string("clock=") + typed), rangeValue(typed));
    }
    before ? setenv("TZ", before->c_str(), 1) : unsetenv("TZ");
    tzset();
}

TEST(PlayValues, PassOnWhatTheDaemonKnowsAndNothingElse) {
    EXPECT_EQ(rangeValue("clock=20240102T030405Z-"), "clock=20240102T030405Z-");
    EXPECT_EQ(jumpValue("20240102T030405Z"), "clock=20240102T030405Z");
    for (const char* word : {"oldest", "latest", "next-alarm", "prev-alarm"}) {
        EXPECT_EQ(jumpValue(word), word);
        EXPECT_EQ(rangeValue(word), std::nullopt);
    }
    for (const char* wrong :
         {"", "Oldest", "clock=", "clock=20240102T0304", "clock=20240102T030405Zx", "npt=0-"})
        EXPECT_EQ(jumpValue(wrong), std::nullopt) << wrong;
}

TEST(IndexListing, ShowsFinishedAndLiveStreamsAndAlarms) {
    const World world;
    EXPECT_THROW(readIndex(), std::runtime_error); // no index yet
    Card card(world);
    card.stream(1).from("12:00:00").pictures(301).fps(10).closed();
    card.stream(2).from("12:01:00").pictures(30).recording();
    card.alarm("12:00:01", "12:00:03.500", 513);
    card.alarm("12:01:01", nullptr);

    const std::string table = asTable(readIndex());
    for (const char* part : {"2024-01-02 12:00:30.000     0:00:30.0   10.0       301", "recording",
                             "2024-01-02 12:00:03.500     0:00:02.5  513", "going on"})
        EXPECT_NE(table.find(part), std::string::npos) << part << " is missing in\n" << table;
    const std::string json = asJson(readIndex());
    EXPECT_NE(json.find("{\"id\":2,\"recording\":true,"), std::string::npos) << json;
    EXPECT_NE(json.find("\"end\":null,\"endMs\":null}],\"alarms\":[{\"id\":1,"), std::string::npos) << json;

    writeFile(paths().index, "no database at all, but a text of some length");
    EXPECT_THROW(readIndex(), std::runtime_error);
}

} // namespace
} // namespace test

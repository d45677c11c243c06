// What clients send, well and badly formed, and what a PLAY of theirs comes to.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "rtsp/credentials.h"
#include "rtsp/media_transport.h"
#include "rtsp/play_headers.h"
#include "tests/support/world.h"

namespace {

using Result = RequestParser::Result;

const std::string kFrame("$\1\0\3abc", 7);
const std::string kOptions = "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n";

struct Input {
    std::string bytes;
    std::vector<Result> results;
};

TEST(RequestParser, TakesRequestsOutOfTheBytesHoweverTheyArrive) {
    const Input inputs[] = {
        {kOptions + kOptions, {Result::request, Result::request, Result::incomplete}},
        {"\r\n" + kFrame + kOptions + kFrame,
         {Result::interleaved, Result::request, Result::interleaved, Result::incomplete}},
        {"SET_PARAMETER * RTSP/1.0\nCSeq: 1\ncontent-length: 4\n\n$$$$" + kOptions,
         {Result::request, Result::request, Result::incomplete}},
        {"OPTIONS * RTSP/1.0\r\nX: " + std::string(9000, 'x'), {Result::tooLong}},
        {"OPTIONS * RTSP/1.0\r\nContent-Length: 8193\r\n\r\n", {Result::tooLong}},
        {"OPTIONS * RTSP/1.0\r\nContent-Length: -1\r\n\r\n", {Result::malformed}},
        {"OPTIONS * RTSP/1.0\r\nContent-Length: 99999999999999999999999\r\n\r\n", {Result::malformed}},
        {"OPTIONS * HTTP/1.1\r\n\r\n", {Result::malformed}},
        {"OPTIONS RTSP/1.0\r\n\r\n", {Result::malformed}},
        {"OPTIONS * RTSP/1.0\r\nno header\r\n\r\n", {Result::malformed}},
        {"OPTIONS \x1b[2J RTSP/1.0\r\n\r\n", {Result::malformed}},
        {"OPTIONS * RTSP/1.0\r\nCSeq: 1\rX: y\r\n\r\n", {Result::malformed}},
    };
    for (const auto& [bytes, expected] : inputs) {
        for (const size_t atATime : {size_t{1}, bytes.size()}) {
            RequestParser parser;
            std::vector<Result> results;
            RtspRequest request;
            for (size_t at = 0; at < bytes.size(); at += atATime) {
                if (!results.empty() && results.back() == Result::incomplete) results.pop_back();
                if (!results.empty() && results.back() >= Result::malformed) break;
                parser.feed(std::string_view(bytes).substr(at, atATime));
                do {
                    results.push_back(parser.next(request));
                } while (results.back() < Result::incomplete);
            }
            EXPECT_EQ(results, expected) << bytes.substr(0, 60) << " by " << atATime;
        }
    }
}

constexpr int64_t kZero = 1'704'164'645'250; // 2024-01-02 03:04:05.250 UTC

struct Play {
    const char* range;
    const char* scale;
    int status;
    std::optional<int64_t> from, until; ///< milliseconds after zero
    int tenths;
    const char* reply; ///< the range that comes back
};

TEST(PlayHeaders, AreReadAsClientsWriteThem) {
    const Play plays[] = {
        {"npt=0.000-", "", 200, 0, {}, 10, "npt=0.000-"},
        {"npt=70.5-65", "-2.000000", 200, 70500, 65000, -20, "npt=70.500-65.000"},
        {"npt=5-2", "", 457, 5000, 2000, 10, nullptr},
        {"npt=2-5", "-1", 457, 2000, 5000, -10, nullptr},
        {"npt=0:01:00-", "2.59", 200, 60000, {}, 25, "npt=60.000-"},
        {"npt=now-", "1", 200, {}, {}, 10, "npt=-"},
        {"clock=20240102T030406.75Z-20240102T030407Z", "0.1", 200, 1500, 1750, 5,
         "clock=20240102T030406.750Z-20240102T030407.000Z"},
        {"clock=20240102T030406Z-19000101T000000Z", "-0.9", 200, 750, -2'208'988'800'000 - kZero, -5,
         nullptr},
        {"smpte=10:00:00-", "", 457, {}, {}, 10, nullptr},
        {"clock=yesterday", "", 457, {}, {}, 10, nullptr},
        {"", "0", 400, {}, {}, 0, nullptr},
        {"", "nan", 400, {}, {}, 0, nullptr},
        {"", "1e9", 400, {}, {}, 0, nullptr},
        {"", "fast", 400, {}, {}, 0, nullptr},
    };
    for (const Play& play : plays) {
        RtspRequest request;
        if (*play.range) request.headers.emplace_back("range", play.range);
        if (*play.scale) request.headers.emplace_back("Scale", play.scale);
        PlayRequest read;
        RangeUnit unit = RangeUnit::npt;
        const std::string what = std::string(play.range) + " " + play.scale;
        EXPECT_EQ(readPlay(request, kZero, read, unit), play.status) << what;
        EXPECT_EQ(read.scale, play.tenths) << what;
        if (play.status != 200) continue;
        EXPECT_EQ(read.from, play.from ? std::optional(*play.from + kZero) : std::nullopt) << what;
        EXPECT_EQ(read.until, play.until ? std::optional(*play.until + kZero) : std::nullopt) << what;
        if (!play.reply) continue;
        EXPECT_EQ(rangeText(unit, read.from, read.until, kZero), play.reply);
    }
    RtspRequest request;
    request.headers = {{"CSeq", "258"}, {"Frames", "intra/4000"}};
    PlayRequest read;
    RangeUnit unit = RangeUnit::npt;
    EXPECT_EQ(readPlay(request, kZero, read, unit), 200);
    EXPECT_TRUE(read.replay && read.iPicturesOnly && read.intervalMs == 4000 && read.cseq == 2);
    request.headers = {{"Frames", "some"}};
    EXPECT_EQ(readPlay(request, kZero, read, unit), 400);
}

TEST(Transport, TheFirstOneThatCanBeHadIsTaken) {
    const auto ports = [](const char* header) {
        const auto wish = readTransport(header);
        return wish ? (wish->tcp ? "tcp " : "udp ") + std::to_string(wish->first) + " " +
                          std::to_string(wish->second)
                    : "none";
    };
    EXPECT_EQ(ports("RTP/AVP/TCP;unicast;interleaved=4-5"), "tcp 4 5");
    EXPECT_EQ(ports("RTP/AVP;multicast,RTP/AVP;unicast;client_port=5000-5001"), "udp 5000 5001");
    EXPECT_EQ(ports("RTP/SAVP;unicast;client_port=5000-5001,RTP/AVP/TCP;unicast"), "tcp 0 1");
    EXPECT_EQ(ports("RTP/AVP;unicast;client_port=53-54"), "none") << "no service of the machine's own";
    EXPECT_EQ(ports("RTP/AVP;unicast;client_port=65536-65537"), "none");
    EXPECT_EQ(ports("RTP/AVP/TCP;unicast;interleaved=256-257"), "none");
    EXPECT_EQ(ports(",;,RTP"), "none");
}

TEST(Credentials, AreTheOwnersAloneAndAnswerOneNonce) {
    const test::World world;
    const std::string file = world.root() + "/credentials";
    test::writeFile(file, "# who may watch\n\nMufasa:Circle of Life\n");
    EXPECT_THROW(Credentials::fromFile(file), std::runtime_error);
    ASSERT_EQ(chmod(file.c_str(), 0600), 0);
    const Credentials credentials = Credentials::fromFile(file);
    // md5(md5(Mufasa:tavirn:Circle of Life):abc:md5(PLAY:rtsp://x/))
    const std::string header =
        R"(Digest username="Mufasa", realm="tavirn", nonce="abc", uri="rtsp://x/", response=")";
    EXPECT_TRUE(credentials.allow(header + "2d2a10bb27f982db57c1bd1b88b497b8\"", "PLAY", "rtsp://x/", "abc"));
    EXPECT_FALSE(
        credentials.allow(header + "2d2a10bb27f982db57c1bd1b88b497b8\"", "PLAY", "rtsp://x/", "abd"));
    EXPECT_FALSE(
        credentials.allow(header + "2d2a10bb27f982db57c1bd1b88b497b8\"", "PAUSE", "rtsp://x/", "abc"));
    EXPECT_FALSE(credentials.allow(header + "\"", "PLAY", "rtsp://x/", "abc"));
    EXPECT_FALSE(credentials.allow("Basic TXVmYXNhOkNpcmNsZSBvZiBMaWZl", "PLAY", "rtsp://x/", "abc"));
    test::writeFile(file, "nobody\n");
    EXPECT_THROW(Credentials::fromFile(file), std::runtime_error);
}

} // namespace

// What clients send, well and badly formed, and what a PLAY of theirs comes to.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "rtsp/credentials.h"
#include "rtsp/play_headers.h"
#include "tests/support/world.h"

namespace {

using Result = RequestParser::Result;

const std::string kFrame("$\1\0\3abc", 7);
const std::string kOptions = "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n";

/// A letter for each result but `incomplete`, to the first after which nothing can be understood.
std::string resultsOf(std::string_view bytes, size_t atATime) {
    RequestParser parser;
    RtspRequest request;
    std::string results;
    for (; !bytes.empty(); bytes.remove_prefix(std::min(atATime, bytes.size()))) {
        parser.feed(bytes.substr(0, atATime));
        for (Result result; (result = parser.next(request)) != Result::incomplete;) {
            results += "RI-ML"[static_cast<int>(result)];
            if (result >= Result::malformed) return results;
        }
    }
    return results;
}

TEST(RequestParser, TakesRequestsOutOfTheBytesHoweverTheyArrive) {
    const std::pair<std::string, const char*> inputs[] = {
        {kOptions + kOptions, "RR"},
        {"\r\n" + kFrame + kOptions + kFrame, "IRI"},
        {"SET_PARAMETER * RTSP/1.0\nCSeq: 1\ncontent-length: 4\n\n$$$$" + kOptions, "RR"},
        {"OPTIONS * RTSP/1.0\r\nX: " + std::string(9000, 'x'), "L"},
        {"OPTIONS * RTSP/1.0\r\nContent-Length: 8193\r\n\r\n", "L"},
        {"OPTIONS * RTSP/1.0\r\nContent-Length: -1\r\n\r\n", "M"},
        {"OPTIONS * HTTP/1.1\r\n\r\n", "M"},
        {"OPTIONS RTSP/1.0\r\n\r\n", "M"},
        {"OPTIONS * RTSP/1.0\r\nno header\r\n\r\n", "M"},
        {"OPTIONS \x1b[2J RTSP/1.0\r\n\r\n", "M"},
        {"OPTIONS * RTSP/1.0\r\nCSeq: 1\rX: y\r\n\r\n", "M"},
    };
    for (const auto& [bytes, expected] : inputs)
        for (const size_t atATime : {size_t{1}, bytes.size()})
            EXPECT_EQ(resultsOf(bytes, atATime), expected) << bytes.substr(0, 60) << " by " << atATime;
}

constexpr int64_t kZero = 1'704'164'645'250; // 2024-01-02 03:04:05.250 UTC

struct Play {
    const char* range;
    const char* scale;
    int status;
    std::optional<int64_t> from, until; ///< milliseconds after zero
    int tenths;
};

TEST(PlayHeaders, AreReadAsClientsWriteThem) {
    const Play plays[] = {
        {"npt=70.5-65", "-2.000000", 200, 70500, 65000, -20},
        {"npt=5-2", "", 457, 5000, 2000, 10},
        {"npt=0:01:00-", "2.59", 200, 60000, {}, 25},
        {"clock=20240102T030406.75Z-20240102T030407Z", "0.1", 200, 1500, 1750, 5},
        {"clock=20240102T030406Z-19000101T000000Z", "-0.9", 200, 750, -2'208'988'800'000 - kZero, -5},
        {"smpte=10:00:00-", "", 457, {}, {}, 10},
        {"", "nan", 400, {}, {}, 0},
        {"", "1e9", 400, {}, {}, 0},
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
    }
    RtspRequest request;
    request.headers = {{"CSeq", "258"}, {"Frames", "intra/4000"}};
    PlayRequest read;
    RangeUnit unit = RangeUnit::npt;
    EXPECT_EQ(readPlay(request, kZero, read, unit), 200);
    EXPECT_TRUE(read.replay && read.iPicturesOnly && read.intervalMs == 4000 && read.cseq == 2);
}

TEST(Credentials, AnswerOneRequestAndNonce) {
    const test::World world;
    const std::string file = world.root() + "/credentials";
    test::writeFile(file, "# who may watch\n\nMufasa:Circle of Life\n");
    ASSERT_EQ(chmod(file.c_str(), 0600), 0);
    const Credentials credentials = Credentials::fromFile(file);
    // md5(md5(Mufasa:tavirn:Circle of Life):abc:md5(PLAY:rtsp://x/))
    const auto allowed = [&](const char* method, const char* uri, const char* nonce) {
        return credentials.allow(R"(Digest username="Mufasa", realm="tavirn", nonce="abc", uri="rtsp://x/", )"
                                 R"(response="2d2a10bb27f982db57c1bd1b88b497b8")",
                                 method, uri, nonce);
    };
    EXPECT_TRUE(allowed("PLAY", "rtsp://x/", "abc"));
    EXPECT_FALSE(allowed("PLAY", "rtsp://x/", "abd") || allowed("PAUSE", "rtsp://x/", "abc") ||
                 allowed("PLAY", "rtsp://y/", "abc"));
}

} // namespace

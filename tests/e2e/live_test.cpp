// A recorder and the daemon side by side: the stream that is being written is followed, lost by nobody's
// death, and every picture comes out once.
#include <gtest/gtest.h>

#include "platform/paths.h"
#include "tests/support/process.h"
#include "tools/tour/session.h"

namespace test {
namespace {

constexpr std::chrono::seconds kPatience{20};

bool pausesAtTheEnd() {
    return Session::status() == "pause(eof)";
}

/// What came out is the recording piece by piece, but for a picture or two that were shown first. Where the
/// play began in it, and where it ended.
std::pair<size_t, size_t> placesOf(Session& session, const Recording& recording) {
    std::optional<size_t> before;
    for (ShownPicture& picture : session.pictures())
        before = picture.place = findPlace(recording, picture.data, before);
    EXPECT_EQ(session.report().missedBlocks, 0u);
    const auto played = longestPlay(session.pictures());
    EXPECT_GE(played.size() + 2, session.pictures().size());
    return {played.front().place.value(), played.back().place.value()};
}

TEST(Live, FollowsWhatIsRecordedAndLosesNothingWhenTheRecorderIsKilledAndStartedAgain) {
    const World world;
    const DaemonProcess daemon(world.root());
    const auto recorder = [&](const std::string& secondsAStream) -> Process {
        return {{TAVIRN_RECORD, "--test-pattern", "--size", "160x120", "--gop", "10", "--chunk-size", "1M",
                 "--live", "--split", secondsAStream},
                world.root()};
    };
    const auto streams = [] { return readStreams(paths().index).size(); };
    Session first, second;
    {
        const Process killed = recorder("0");
        ASSERT_TRUE(eventually([&] { return first.open(); }));
        first.ask(RTSP_REQ_PLAY, "Jump", "latest");
        ASSERT_TRUE(first.readUntil(kPatience, pausesAtTheEnd));
        EXPECT_TRUE(first.readUntil(kPatience, [&] {
            if (pausesAtTheEnd()) first.ask(RTSP_REQ_PLAY); // goes on with what came since
            return first.pictures().size() >= 50;
        }));
    }
    EXPECT_TRUE(first.readUntil(kPatience, pausesAtTheEnd));
    first.ask(RTSP_REQ_TEARDOWN);
    Process live = recorder("2"); // its first stream closes and the next begins under the session
    ASSERT_TRUE(eventually([&] { return streams() == 2; }));
    ASSERT_TRUE(second.open()); // on what the killed one had written, finished since
    second.ask(RTSP_REQ_PLAY);
    ASSERT_TRUE(second.readUntil(kPatience, [&] { return streams() == 3; }));
    EXPECT_EQ(Session::status(), "play");
    live.signal(SIGTERM);
    EXPECT_TRUE(second.readUntil(kPatience, [&] { return live.wait(1) == 0; })) << live.errors();
    EXPECT_TRUE(second.readUntil(kPatience, pausesAtTheEnd));
    const Recording all = readRecording(paths().index, paths().card);
    placesOf(first, all);
    EXPECT_EQ(placesOf(second, all), std::pair(size_t{0}, all.size() - 1));
}

} // namespace
} // namespace test

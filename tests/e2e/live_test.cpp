// A recorder and the daemon side by side: the stream that is being written is followed, lost by nobody's
// death, and every picture comes out once.
#include <gtest/gtest.h>

#include "platform/paths.h"
#include "tests/e2e/start_tool.h"
#include "tools/tour/session.h"

namespace test {
namespace {

struct Live : testing::Test {
    Live() { EXPECT_TRUE(daemon.serving()); }

    /// The recorder's stand-in, recording a test pattern as time goes by, `split` seconds a stream.
    Process recorder(const std::string& split) const {
        return startTool(world, "pattern --gop 10 --chunk-size 1M --live --split " + split);
    }
    /// Reads all that comes out until the daemon's word is that.
    bool says(const std::string& word) {
        return session.readUntil(kPatience, [&] { return Session::status() == word; });
    }
    /// Plays on wherever it has paused at the end, until then.
    template <class Condition> static bool follow(Session& session, Condition holds) {
        return session.readUntil(kPatience, [&] {
            if (Session::status() == "pause(eof)") session.ask(RTSP_REQ_PLAY);
            return holds();
        });
    }
    /// What came out is the recording to its end, but for a picture or two that were shown first. Where the
    /// play began in it.
    std::optional<size_t> expectToTheEnd() {
        const Recording recording = readRecording(paths().index, paths().card);
        std::optional<size_t> before;
        for (ShownPicture& picture : session.pictures())
            before = picture.place = findPlace(recording, picture.data, before);
        EXPECT_EQ(before, recording.size() - 1);
        EXPECT_EQ(session.report().missedBlocks, 0u);
        const auto played = longestPlay(session.pictures());
        EXPECT_GE(played.size() + 2, session.pictures().size());
        return played.front().place;
    }

    static constexpr std::chrono::seconds kPatience{20};
    const World world;
    const DaemonProcess daemon{world.root()};
    Session session;
};

TEST_F(Live, CaughtUpPlayPausesAtTheEndAndGoesOnWithWhatCameSince) {
    Process live = recorder("0");
    ASSERT_TRUE(eventually([&] { return session.open(); }));
    session.ask(RTSP_REQ_PLAY, "Jump", "latest");
    EXPECT_TRUE(says("pause(eof)"));
    EXPECT_TRUE(follow(session, [&] { return session.pictures().size() >= 50; }));
    live.signal(SIGTERM);
    EXPECT_TRUE(follow(session, [&] { return live.wait(1) == 0; })) << live.errors();
    const std::string last = readRecording(paths().index, paths().card).back().data;
    EXPECT_TRUE(follow(session, [&] { return session.pictures().back().data == last; }));
    EXPECT_TRUE(says("pause(eof)"));
    expectToTheEnd();
}

TEST_F(Live, RecorderKilledAndStartedAgain) {
    {
        Process killed = recorder("0");
        Session left;
        ASSERT_TRUE(eventually([&] { return left.open(); }));
        left.ask(RTSP_REQ_PLAY);
        ASSERT_TRUE(follow(left, [&] { return left.pictures().size() >= 25; }));
        killed.signal(SIGKILL);
        EXPECT_TRUE(eventually([] { return Session::status() == "pause(eof)"; }));
        left.ask(RTSP_REQ_TEARDOWN);
    }
    Process live = recorder("2"); // its first stream closes and the next begins under the session
    const auto streams = [] { return readStreams(paths().index).size(); };
    ASSERT_TRUE(eventually([&] { return streams() == 2; }));
    ASSERT_TRUE(session.open()); // on what the killed one had written, finished since
    session.ask(RTSP_REQ_PLAY);
    ASSERT_TRUE(session.readUntil(kPatience, [&] { return streams() == 3; }));
    EXPECT_EQ(Session::status(), "play");
    live.signal(SIGTERM);
    EXPECT_TRUE(session.readUntil(kPatience, [&] { return live.wait(1) == 0; })) << live.errors();
    EXPECT_TRUE(says("pause(eof)"));
    EXPECT_EQ(expectToTheEnd(), 0u);
}

} // namespace
} // namespace test

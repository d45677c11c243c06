// A recorder and the daemon side by side: the stream that is being written is followed, lost by nobody's
// death, and every picture comes out once.
#include <csignal>

#include "shm/shm_client.h"
#include "tests/e2e/session.h"
#include "tests/support/recorded.h"

namespace test {
namespace {

/// The recorder's stand-in, recording a test pattern as time goes by.
class LiveRecorder {
public:
    LiveRecorder(const World& world, const std::string& split)
        : m_process({TAVIRN_RECORD, "--root", world.root(), "--test-pattern", "--size", "320x240", "--fps",
                     "30", "--gop", "10", "--chunk-size", "1M", "--split", split, "--live"},
                    world.root()) {}

    void kill() { m_process.signal(SIGKILL); }
    void stop() {
        m_process.signal(SIGTERM);
        EXPECT_EQ(m_process.wait(), 0) << m_process.errors();
    }

private:
    Process m_process;
};

/// What the recorder publishes at this moment.
REC_STATUS published(const World& world) {
    CShmClient segment;
    REC_STATUS status{};
    if (const void* address = segment.open(world.statusKey(), 0)) {
        segment.lockShm();
        std::memcpy(&status, address, sizeof status);
        segment.unlockShm();
    }
    return status;
}

bool hasRecorded(const World& world, uint32_t streamId, uint32_t pictures) {
    const REC_STATUS now = published(world);
    return now.recStreamID > streamId || (now.recStreamID == streamId && now.recPictures >= pictures);
}

/// A viewer that keeps every picture of the session.
class KeepingViewer {
public:
    explicit KeepingViewer(const World& world) : m_file(world.root() + "/kept.h264") {
        m_view =
            std::make_unique<Process>(std::vector<std::string>{TAVIRN_VIEW, "--root", world.root(), "--wait",
                                                               "20", "--from-oldest", "-o", m_file, "--json"},
                                      world.root());
    }
    std::string soFar() const { return readFile(m_file); }
    /// What has come out, once the session has ended and the viewer with it.
    std::string pictures() {
        EXPECT_EQ(m_view->wait(), 0) << m_view->errors();
        EXPECT_NE(m_view->output().find("\"missedBlocks\":0"), std::string::npos) << m_view->output();
        return readFile(m_file);
    }

private:
    std::string m_file;
    std::unique_ptr<Process> m_view;
};

/// What was played, less the picture that the session showed while it was still paused.
std::string withoutPausedPicture(const std::string& played, const std::string& picture) {
    return played.starts_with(picture + picture.substr(0, 64)) ? played.substr(picture.size()) : played;
}

/// Which pictures came out, for a failure's message.
std::string numbersOf(const std::string& played, const std::vector<std::string>& recorded) {
    std::string numbers;
    for (size_t at = 0; at < played.size();) {
        size_t n = 0;
        while (n < recorded.size() && played.compare(at, recorded[n].size(), recorded[n]) != 0) ++n;
        if (n == recorded.size()) return numbers + "and what was never recorded";
        numbers += std::to_string(n) + " ";
        at += recorded[n].size();
    }
    return numbers + "of " + std::to_string(recorded.size());
}

TEST(Live, CaughtUpPlayPausesAtTheEndAndGoesOnWithWhatCameSince) {
    World world;
    DaemonProcess daemon(world.root());
    ASSERT_TRUE(daemon.serving());
    KeepingViewer kept(world);
    LiveRecorder recorder(world, "0");
    ASSERT_TRUE(eventually([&] { return hasRecorded(world, 1, 25); }));
    Viewer viewer;
    ASSERT_EQ(viewer.open(), OpenAnswer::opened);
    viewer.registerSession();
    viewer.play("Jump", "latest");
    EXPECT_TRUE(eventually([&] { return viewer.status() == "pause(eof)"; }));
    for (int round = 0; round < 3; ++round) { // play is faster than the camera only until it has caught up
        ASSERT_TRUE(
            eventually([&, now = published(world).recPictures] { return hasRecorded(world, 1, now + 15); }));
        viewer.play();
        EXPECT_TRUE(eventually([&] { return viewer.status() == "play"; }));
    }
    recorder.stop();
    viewer.play(); // whatever has come since it last caught up
    const std::string last = recordedPictures({1}).back();
    EXPECT_TRUE(eventually([&] { return kept.soFar().ends_with(last); }));
    EXPECT_TRUE(eventually([&] { return viewer.status() == "pause(eof)"; }));
    viewer.teardown();
    // The open has shown the first picture; from the one jumped to, everything comes out in one piece.
    const std::vector<std::string> recorded = recordedPictures({1});
    std::string played = kept.pictures();
    if (played.starts_with(recorded.at(0))) played.erase(0, recorded[0].size());
    EXPECT_GT(played.size(), recorded[0].size());
    EXPECT_TRUE(joined(recorded).ends_with(played)) << numbersOf(played, recorded);
}

TEST(Live, RecorderKilledAndStartedAgain) {
    World world;
    DaemonProcess daemon(world.root());
    ASSERT_TRUE(daemon.serving());
    {
        LiveRecorder recorder(world, "0");
        ASSERT_TRUE(eventually([&] { return hasRecorded(world, 1, 25); }));
        Viewer viewer;
        ASSERT_EQ(viewer.open(), OpenAnswer::opened);
        viewer.registerSession();
        viewer.play();
        recorder.kill();
        EXPECT_TRUE(eventually([&] { return viewer.status() == "pause(eof)"; }));
        viewer.teardown();
    }
    KeepingViewer kept(world);
    LiveRecorder recorder(world, "2"); // its first stream closes and the next begins under the session
    ASSERT_TRUE(eventually([&] { return hasRecorded(world, 2, 25); }));
    Viewer viewer;
    ASSERT_EQ(viewer.open(), OpenAnswer::opened); // on what the killed one had written, finished since
    viewer.registerSession();
    viewer.play();
    ASSERT_TRUE(eventually([&] { return hasRecorded(world, 3, 20); }));
    EXPECT_EQ(viewer.status(), "play");
    recorder.stop();
    EXPECT_TRUE(eventually([&] { return viewer.status() == "pause(eof)"; }));
    viewer.teardown();
    const std::vector<std::string> recorded = recordedPictures({1, 2, 3});
    EXPECT_TRUE(withoutPausedPicture(kept.pictures(), recorded.at(0)) == joined(recorded));
}

} // namespace
} // namespace test

// A recorder and the daemon side by side: the stream that is being written is followed, lost by nobody's
// death, and every picture comes out once.
#include <csignal>
#include <cstring>

#include "shm/shm_client.h"
#include "tests/e2e/session.h"
#include "tools/tour/session.h"

namespace test {
namespace {

struct Live : testing::Test {
    Live() { EXPECT_TRUE(daemon.serving()); }

    /// The recorder's stand-in, recording a test pattern as time goes by, `split` seconds a stream.
    Process recorder(const std::string& split) const {
        return startTool(world,
                         "record --test-pattern --size 320x240 --fps 30 --gop 10 --chunk-size 1M --live "
                         "--split " +
                             split);
    }
    /// What the recorder publishes at this moment.
    REC_STATUS published() const {
        CShmClient segment;
        REC_STATUS status{};
        if (const void* address = segment.open(world.statusKey(), 0)) {
            segment.lockShm();
            std::memcpy(&status, address, sizeof status);
            segment.unlockShm();
        }
        return status;
    }
    bool hasRecorded(uint32_t stream, uint32_t pictures) const {
        const REC_STATUS now = published();
        return now.recStreamID > stream || (now.recStreamID == stream && now.recPictures >= pictures);
    }

    /// Reads all that comes out until then.
    template <class Condition> bool becomes(Condition holds) {
        return session.readUntil(std::chrono::seconds(20), holds);
    }
    bool says(const std::string& word) {
        return becomes([&] { return Session::status() == word; });
    }
    void play(const std::string& header = "", const std::string& value = "") {
        session.ask(RTSP_REQ_PLAY, header, value);
    }
    void stop(Process& recorder) {
        recorder.signal(SIGTERM);
        EXPECT_TRUE(becomes([&] { return recorder.wait(1) == 0; })) << recorder.errors();
    }

    /// What came out, from its picture `n` on, is the recording to its end, from `first` on if that is given.
    void expectToTheEnd(size_t n, std::optional<size_t> first = std::nullopt) {
        const Recording recording = readRecording(paths().index, paths().card);
        std::optional<size_t> before;
        for (; n < session.pictures().size(); ++n) {
            const auto place = findPlace(recording, session.pictures()[n].data, before);
            ASSERT_TRUE(place) << n << " was never recorded";
            EXPECT_EQ(*place, before ? *before + 1 : first.value_or(*place)) << n;
            before = place;
        }
        EXPECT_EQ(before, recording.size() - 1);
        EXPECT_EQ(session.report().missedBlocks, 0u);
    }

    const World world;
    const DaemonProcess daemon{world.root()};
    Session session;
};

TEST_F(Live, CaughtUpPlayPausesAtTheEndAndGoesOnWithWhatCameSince) {
    Process live = recorder("0");
    ASSERT_TRUE(eventually([&] { return hasRecorded(1, 25); }));
    ASSERT_TRUE(session.open());
    play("Jump", "latest");
    EXPECT_TRUE(says("pause(eof)"));
    for (int round = 0; round < 3; ++round) { // play is faster than the camera only until it has caught up
        ASSERT_TRUE(becomes([&, now = published().recPictures] { return hasRecorded(1, now + 15); }));
        play();
        EXPECT_TRUE(says("play"));
    }
    stop(live);
    play(); // whatever has come since it last caught up
    const std::string last = readRecording(paths().index, paths().card).back().data;
    EXPECT_TRUE(becomes([&] { return session.pictures().back().data == last; }));
    EXPECT_TRUE(says("pause(eof)"));
    expectToTheEnd(1); // behind the picture that the open has shown
}

TEST_F(Live, RecorderKilledAndStartedAgain) {
    {
        Process killed = recorder("0");
        ASSERT_TRUE(eventually([&] { return hasRecorded(1, 25); }));
        Session left;
        ASSERT_TRUE(left.open());
        left.ask(RTSP_REQ_PLAY);
        killed.signal(SIGKILL);
        EXPECT_TRUE(eventually([] { return Session::status() == "pause(eof)"; }));
        left.ask(RTSP_REQ_TEARDOWN);
    }
    Process live = recorder("2"); // its first stream closes and the next begins under the session
    ASSERT_TRUE(eventually([&] { return hasRecorded(2, 25); }));
    ASSERT_TRUE(session.open()); // on what the killed one had written, finished since
    play();
    ASSERT_TRUE(becomes([&] { return hasRecorded(3, 20); }));
    EXPECT_EQ(Session::status(), "play");
    stop(live);
    EXPECT_TRUE(says("pause(eof)"));
    const auto& came = session.pictures();
    expectToTheEnd(came.at(0).data == came.at(1).data ? 1 : 0, 0); // shown while paused, and perhaps again
}

} // namespace
} // namespace test

// The main road: a recording made by the recorder's stand-in is played through the daemon's own socket, and
// what the viewer writes is what was recorded.
#include <sys/shm.h>

#include "tests/e2e/session.h"
#include "tests/support/card.h"
#include "tests/support/recorded.h"

namespace test {
namespace {

/// Pictures that a real decoder makes of the elementary stream; it must have nothing to complain about.
int decodedPictures(const std::string& file, const World& world) {
    Process decoder({GST_LAUNCH, "-v", "filesrc", "location=" + file, "!", "h264parse", "!", "avdec_h264",
                     "max-threads=1", "!", "fakesink", "silent=false"},
                    world.root());
    EXPECT_EQ(decoder.wait(), 0);
    EXPECT_EQ(decoder.errors(), "");
    const std::string output = decoder.output();
    EXPECT_EQ(output.find("WARNING"), std::string::npos) << output;
    int pictures = 0;
    for (size_t at = 0; (at = output.find("last-message = chain", at)) != std::string::npos; ++at) ++pictures;
    return pictures;
}

int attachedToOutput(const World& world) {
    shmid_ds info{};
    const int id = shmget(world.outputKey(), 0, 0);
    return id >= 0 && shmctl(id, IPC_STAT, &info) == 0 ? static_cast<int>(info.shm_nattch) : 0;
}

TEST(Client, BuiltFromWhatIsInstalledPlaysTheRecording) {
    const World world;
    Card(world).stream(1).from("12:00:00").pictures(45).gop(15).closed();
    const DaemonProcess daemon(world.root());
    EXPECT_EQ(runTool({TAVIRN_CLIENT}, world.root()), "45 pictures\n");
    EXPECT_EQ(Viewer().status(), "error") << "its session has ended";
}

// The ring of each chunk is so small that the streams wrap round its end. At 10 pictures a second the output
// memory holds three: a busy machine may keep the viewer waiting, also when play catches up behind a gap.
TEST(Playback, WritesExactlyWhatWasRecordedAcrossStreamBorders) {
    World world;
    const auto record = [&](const std::string& start, const std::string& seconds) {
        runTool({TAVIRN_RECORD, "--root",  world.root(),   "--test-pattern",
                 "--size",      "320x240", "--fps",        "10",
                 "--gop",       "10",      "--chunk-size", "1M",
                 "--start",     start,     "--duration",   seconds,
                 "--split",     "2",       "--gap",        "3"},
                world.root());
    };
    record("2024-01-02 03:04:05.250", "2");
    DaemonProcess daemon(world.root());
    ASSERT_TRUE(daemon.serving());
    Viewer viewer;
    ASSERT_EQ(viewer.open(), OpenAnswer::opened);
    viewer.registerSession();
    record("2024-01-02 03:04:10.000", "4"); // two streams more, behind the one the session stands on
    waitUntilPaused(world);

    const std::string file = world.root() + "/played.h264";
    Process view({TAVIRN_VIEW, "--root", world.root(), "-o", file, "--stats", "--json", "--until-pause"},
                 world.root());
    // It knows from where it reads on only when it sleeps, waiting for a block: what is written before is not
    // its own.
    const std::string state = "/proc/" + std::to_string(view.pid()) + "/status";
    ASSERT_TRUE(eventually([&] {
        return attachedToOutput(world) == 2 && readFile(state).find("State:\tS") != std::string::npos;
    })) << view.errors();
    viewer.play();
    ASSERT_EQ(view.wait(), 0) << view.errors();

    const std::string recorded = joined(recordedPictures({1, 2, 3}));
    const std::string played = readFile(file);
    EXPECT_EQ(played.size(), recorded.size());
    EXPECT_TRUE(played == recorded) << view.output() << view.errors();
    EXPECT_EQ(decodedPictures(file, world), 6 * 10);
    EXPECT_EQ(viewer.status(), "pause(eof)");
    viewer.teardown();
    EXPECT_EQ(viewer.status(), "error"); // no session 1 any more
    EXPECT_EQ(attachedToOutput(world), 0);
}

} // namespace
} // namespace test

// tavirn-tour: plays through the daemon in every way there is, holds each picture against the recording, and
// prints what came of each request.
#include <CLI/CLI.hpp>
#include <filesystem>

#include "tools/common/command_line.h"
#include "tools/common/stop_signals.h"
#include "tools/tour/players.h"
#include "tools/tour/tour.h"
#include "tools/tour/transcript.h"

namespace {

constexpr char kNotes[] =
    "Records 24 seconds of a test pattern as three streams with two alarms, asks the daemon for\n"
    "everything it can do, and then follows a recorder that records meanwhile. The world is a\n"
    "temporary directory, or the one that --root names, which stays.\n"
    "Exit codes: 0 all is as it should be, 1 it is not, 2 wrong usage.";

/// A program of the same build, or installed in the same place.
std::string besideThis(const std::string& folder, const std::string& name) {
    std::error_code error;
    const std::filesystem::path here = std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
    const std::filesystem::path built = here.parent_path() / folder / name;
    return std::filesystem::exists(built, error) ? built : here / name;
}

int tour(const TourSettings& settings, bool keep, bool players) {
    stopOnSignals({SIGINT, SIGTERM, SIGHUP});
    World world;
    if (keep) world.keep();
    recordStreams(settings);
    Tour tour(settings, world);
    tour.playRecorded();
    tour.playLive();
    tour.endDaemon();
    tour.conclude();
    std::vector<std::string> wrong = tour.wrong();
    try {
        if (players) watchWithPlayers(settings, world);
    } catch (const Failure& failure) {
        wrong.emplace_back(failure.what());
    }
    if (wrong.empty()) return kDone;
    printHeading("NOT as it should be");
    for (const std::string& sentence : wrong) std::printf("- %s\n", sentence.c_str());
    return kFailed;
}

} // namespace

int main(int argc, char** argv) {
    TourSettings settings{.daemon = besideThis("daemon", "tavirn-rooted"),
                          .recorder = besideThis("tools", "tavirn-record"),
                          .size = "1280x720",
                          .output = "",
                          .server = besideThis("rtsp", "tavirn-rtsp"),
                          .player = besideThis("tools", "rtsp-pictures")};
    bool keep = false, players = false;
    CLI::App app("Tours the play modes through a daemon of its own, and judges what comes out.",
                 "tavirn-tour");
    app.footer(kNotes);
    app.add_option("--daemon", settings.daemon, "The tavirn-rooted to start")->check(CLI::ExistingFile);
    app.add_option("--recorder", settings.recorder, "The tavirn-record to start")->check(CLI::ExistingFile);
    app.add_option("--size", settings.size, "Picture size (1280x720)")->type_name("WIDTHxHEIGHT");
    auto* output = app.add_option(
        "--output", settings.output,
        "Directory for what came out: session-1.h264, session-2.h264, the longest play without a "
        "jump as playback.h264, and captions: session, picture from 0 on and text of those worth a "
        "look");
    output->type_name("DIR");
    app.add_flag(
           "--players", players,
           "At last, let ffmpeg and GStreamer play the recording over RTSP; what they made of it goes to "
           "the output as well")
        ->needs(output);
    app.add_flag("--keep", keep, "Keep the temporary directory, with the recording");
    return runTool(app, argc, argv, [&] { return tour(settings, keep, players); });
}

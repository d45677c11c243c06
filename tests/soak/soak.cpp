// Asks a daemon that follows a live recorder for everything, at random, and sees that it neither dies, nor
// leaves a request unanswered, nor grows. scripts/soak builds and runs it.
#include <CLI/CLI.hpp>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>
#include <sqlite3.h>

#include "platform/paths.h"
#include "tools/common/command_line.h"
#include "tools/common/stop_signals.h"
#include "tools/tour/session.h"
#include "tools/tour/tour.h"

namespace {

using namespace std::chrono;

const std::pair<std::string, std::vector<std::string>> kPlays[] = {
    {"", {""}},
    {"Scale", {"0.1", "0.5", "1", "2", "4", "16", "1024", "-0.5", "-1", "-2", "-64", "0", "nan"}},
    {"Step", {"1", "-1", "2", "-7", "100", "-100", "4294967295"}},
    {"Jump", {"oldest", "latest", "next-alarm", "prev-alarm", "nowhere", "clock=20240102T030411Z"}},
    {"Range", {"clock=20240102T030434Z"}},
};
const std::vector<int32_t> kOthers{RTSP_REQ_OPEN, RTSP_REQ_PAUSE, RTSP_REQ_FFTIME, 99, -1};

/// What may not grow, taken between two sessions.
using Sample = std::map<std::string, long>;
/// Pages of the libraries that are touched late, and what the C library keeps of freed picture buffers.
constexpr long kRssToleranceKb = 512;

long entriesOf(const std::string& directory) {
    return std::distance(std::filesystem::directory_iterator(directory), {});
}

Sample sampleOf(pid_t daemon) {
    const std::string process = "/proc/" + std::to_string(daemon);
    waitUntil(seconds(5), [&] { return entriesOf(process + "/task") == 1; }); // the last session's has left
    Sample sample{{"descriptors", entriesOf(process + "/fd")}, {"threads", entriesOf(process + "/task")}};
    // The status file's own count of memory is some hundred KB off, a processor's worth of pages each.
    std::ifstream memory(process + "/smaps_rollup"), maps(process + "/maps");
    for (std::string word; memory >> word;)
        if (word == "Rss:") memory >> sample["RSS, KB"];
    for (std::string word; maps >> word;) sample["IPC objects"] += word.starts_with("/SYSV");
    return sample;
}

struct Soak {
    std::mt19937 chance;
    size_t sessions = 0, requests = 0, pictures = 0;

    void run(steady_clock::time_point until) {
        do {
            session();
            if (++sessions % 50 == 0) forgetOldStreams();
        } while (steady_clock::now() < until);
        exchange(paths().controlSocket, ControlRequest(RTSP_REQ_TEARDOWN).record);
    }

    size_t below(size_t limit) { return chance() % limit; }
    void watch(Session& session, size_t belowMs) {
        session.readUntil(milliseconds(below(belowMs)), [] { return false; });
    }

    void session() {
        Session session;
        session.open(); // refused while the one before has not been ended, which then goes on
        for (size_t n = below(30); n > 0; --n, ++requests) {
            const auto& [header, values] = kPlays[below(std::size(kPlays))];
            if (below(4) != 0)
                session.ask(RTSP_REQ_PLAY, header, values[below(values.size())]);
            else
                session.ask(kOthers[below(kOthers.size())], "FFTime", std::to_string(below(3000)));
            if (Session::status().empty()) throw Failure(kFailed, "the status is none that there is");
            if (below(200) == 0) {
                Child viewer({TAVIRN_VIEW, "--wait", "1"}, "/dev/null");
                watch(session, 100);
                kill(viewer.pid(), SIGKILL);
            }
            watch(session, below(10) == 0 ? 1000 : 40);
        }
        pictures += session.pictures().size();
        if (below(4) != 0) session.ask(RTSP_REQ_TEARDOWN);
    }

    /// Deletes all but the newest four under the daemon, as a full card's are.
    static void forgetOldStreams() {
        sqlite3* index = nullptr;
        sqlite3_open(paths().index, &index);
        sqlite3_busy_timeout(index, 5000);
        const char* old = "DELETE FROM STREAM WHERE status <> 1 AND "
                          "streamID + 4 <= (SELECT MAX(streamID) FROM STREAM)";
        sqlite3_exec(index, old, nullptr, nullptr, nullptr);
        sqlite3_close(index);
    }
};

int soak(int span, unsigned seed) {
    stopOnSignals({SIGINT, SIGTERM, SIGHUP});
    const World world;
    const TourSettings settings{TAVIRN_ROOTED, TAVIRN_RECORD, "320x240", ""};
    recordStreams(settings);
    Child recorder(recorderWords(settings, {"--live", "--split", "10", "--event", "20", "--bitrate", "128"}),
                   world.root() + "/live");
    Child daemon({TAVIRN_ROOTED, "--foreground"}, "/dev/null");
    awaitService(daemon);
    std::fprintf(stderr, "soaking for %d minutes, seed %u\n", span, seed);
    Soak soak{std::mt19937(seed)};
    const auto begin = steady_clock::now();
    soak.run(begin + std::min<seconds>(minutes(1), minutes(span) / 4));
    Sample before = sampleOf(daemon.pid());
    soak.run(begin + minutes(span));
    std::printf("%zu requests in %zu sessions, %zu pictures seen\n", soak.requests, soak.sessions,
                soak.pictures);
    std::string grown;
    for (const auto& [what, count] : sampleOf(daemon.pid())) {
        std::printf("%-12s %6ld, then %6ld\n", what.c_str(), before[what], count);
        if (count > before[what] + (what == "RSS, KB" ? kRssToleranceKb : 0)) grown = what;
    }
    recorder.stop(seconds(20));
    daemon.stop(seconds(20));
    if (!world.left().empty()) throw Failure(kFailed, "the daemon left behind: " + world.left());
    if (!grown.empty()) throw Failure(kFailed, "the daemon has grown: " + grown);
    if (soak.pictures < soak.sessions) throw Failure(kFailed, "too little was played");
    std::printf("nothing grew in %d minutes\n", span);
    return kDone;
}

} // namespace

int main(int argc, char** argv) {
    int span = 2;
    unsigned seed = std::random_device()();
    CLI::App app("Random requests against a daemon that follows a live recorder.", "tavirn-soak");
    app.add_option("MINUTES", span, "How long (2)")->check(CLI::Range(1, 100'000));
    app.add_option("--seed", seed, "Of the requests");
    return runTool(app, argc, argv, [&] { return soak(span, seed); });
}

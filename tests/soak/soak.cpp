// Asks a daemon that follows a live recorder for everything, at random, and sees that it neither dies, nor
// leaves a request unanswered, nor grows. scripts/soak builds and runs it.
#include <CLI/CLI.hpp>
#include <filesystem>
#include <fstream>
#include <random>

#include "platform/paths.h"
#include "tools/common/command_line.h"
#include "tools/common/stop_signals.h"
#include "tools/recording/index_writer.h"
#include "tools/recording/recording_reader.h"
#include "tools/tour/session.h"
#include "tools/tour/tour.h"

namespace {

using namespace std::chrono;

/// Each with each other: what makes no sense together has to be borne too.
const int32_t kTypes[] = {RTSP_REQ_PLAY, RTSP_REQ_PLAY, RTSP_REQ_PLAY, RTSP_REQ_PAUSE, RTSP_REQ_FFTIME, 99};
const std::string kHeaders[] = {"", "Scale", "Step", "Jump", "Range", "FFTime"};
const std::string kValues[] = {"1",      "0.5",    "4",          "1024",       "-1",
                               "-2",     "-64",    "0",          "nan",        "4294967295",
                               "oldest", "latest", "next-alarm", "prev-alarm", "clock=20240102T030411Z"};

/// What the C library keeps for threads that have gone.
constexpr long kMemoryToleranceKb = 1024;

long entriesOf(const std::string& directory) {
    return std::distance(std::filesystem::directory_iterator(directory), {});
}

/// What may not grow, taken between two sessions. IPC memory that is still attached counts as memory.
struct Held {
    explicit Held(pid_t daemon) {
        const std::string process = "/proc/" + std::to_string(daemon);
        if (!waitUntil(seconds(5), [&] { return entriesOf(process + "/task") == 1; }))
            throw Failure(kFailed, "a thread outlives its session");
        descriptors = entriesOf(process + "/fd");
        // Not what lies in files: how many pages of the libraries are mapped is the page cache's affair.
        std::ifstream memory(process + "/smaps_rollup");
        for (std::string word; memory >> word;)
            if (long kb; (word == "Anonymous:" || word == "Pss_Shmem:") && memory >> kb) memoryKb += kb;
    }
    long descriptors = 0, memoryKb = 0;
};

struct Soak {
    std::mt19937 chance;
    size_t sessions = 0, requests = 0, pictures = 0;

    const auto& oneOf(const auto& values) { return values[chance() % std::size(values)]; }

    void run(steady_clock::time_point until) {
        for (; steady_clock::now() < until; ++sessions) {
            session();
            if (sessions % 50 != 0) continue;
            IndexWriter index(paths().index); // as a full card's recorder, it forgets all but the newest four
            const std::vector<StreamRow> streams = readStreams(paths().index);
            for (size_t i = 0; i + 4 < streams.size(); ++i) index.removeStream(streams[i].id);
        }
        exchange(paths().controlSocket, ControlRequest(RTSP_REQ_TEARDOWN).record);
    }
    void session() {
        Session session;
        session.open(); // refused while the one before has not been ended, which then goes on
        for (size_t n = chance() % 30; n > 0; --n, ++requests) {
            session.ask(oneOf(kTypes), oneOf(kHeaders), oneOf(kValues));
            if (Session::status().empty()) throw Failure(kFailed, "the status is none that there is");
            session.readUntil(milliseconds(chance() % (n == 1 ? 1000 : 40)), [] { return false; });
        }
        pictures += session.pictures().size();
        if (chance() % 4 != 0) session.ask(RTSP_REQ_TEARDOWN);
    }
};

int soak(int span, unsigned seed) {
    stopOnSignals({SIGINT, SIGTERM, SIGHUP});
    const World world;
    const TourSettings settings{.daemon = TAVIRN_ROOTED, .recorder = TAVIRN_RECORD, .size = "320x240"};
    recordStreams(settings);
    Child recorder(recorderWords(settings, {"--live", "--split", "10", "--event", "20", "--bitrate", "128"}),
                   world.root() + "/live");
    Child daemon({TAVIRN_ROOTED, "--foreground"}, "/dev/null");
    awaitService(daemon);
    std::fprintf(stderr, "soaking for %d minutes, seed %u\n", span, seed);
    Soak soak{std::mt19937(seed)};
    const auto begin = steady_clock::now();
    soak.run(begin + std::min<seconds>(minutes(1), minutes(span) / 4));
    const Held before(daemon.pid());
    soak.run(begin + minutes(span));
    const Held after(daemon.pid());
    recorder.stop(seconds(20));
    daemon.stop(seconds(20));
    std::printf("%zu requests in %zu sessions, %zu pictures seen; descriptors %ld, then %ld; memory %ld KB, "
                "then %ld KB\n",
                soak.requests, soak.sessions, soak.pictures, before.descriptors, after.descriptors,
                before.memoryKb, after.memoryKb);
    if (!world.left().empty()) throw Failure(kFailed, "the daemon left behind: " + world.left());
    if (after.descriptors > before.descriptors || after.memoryKb > before.memoryKb + kMemoryToleranceKb)
        throw Failure(kFailed, "the daemon has grown");
    if (soak.pictures < soak.sessions) throw Failure(kFailed, "too little was played");
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

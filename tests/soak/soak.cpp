// Asks a running daemon for everything, at random, for a given time, and sees that it neither dies, nor
// leaves a request unanswered, nor grows. scripts/soak starts what it needs: a daemon, and a recorder beside
// it.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <sqlite3.h>
#include <sys/ipc.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/output_reader.h"
#include "platform/paths.h"
#include "platform/paths_rooted.h"
#include "stream/records.h"
#include "tools/client/control_client.h"
#include "tools/ctl/play_value.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr long kRssToleranceKb = 256; ///< pages of the libraries that are touched late
constexpr int kStreamsKept = 4;       ///< the others are deleted under the daemon, as a full card's are

/// What may not grow. Taken between two sessions. `ipc` counts what exists, and what the daemon is attached
/// to.
struct Sample {
    long descriptors = 0, threads = 0, rssKb = 0, ipc = 0;
};

class Soak {
public:
    Soak(pid_t daemon, uint32_t seed) : m_daemon(daemon), m_chance(seed) {}

    /// Between two samples; the daemon is idle at the end.
    void run(Clock::time_point until, int least) {
        for (int n = 0; n < least || Clock::now() < until; ++n) {
            session();
            if (n % 50 == 0) forgetOldStreams();
        }
        request(ControlRequest(RTSP_REQ_TEARDOWN));
    }

    Sample sample() const {
        Sample now;
        now.descriptors = countLines("ls /proc/" + std::to_string(m_daemon) + "/fd");
        for (const int project : {kStatusSegmentProject, kOutputMemoryProject})
            now.ipc += countLines("grep -hE '^ *" + std::to_string(ftok(paths().ipcKey, project)) +
                                  " ' /proc/sysvipc/shm /proc/sysvipc/sem");
        now.ipc += countLines("grep SYSV /proc/" + std::to_string(m_daemon) + "/maps");
        std::ifstream status("/proc/" + std::to_string(m_daemon) + "/status");
        for (std::string word; status >> word;) {
            if (word == "VmRSS:") status >> now.rssKb;
            if (word == "Threads:") status >> now.threads;
        }
        return now;
    }

    long requests = 0, sessions = 0, refused = 0, pictures = 0, pauses = 0, viewersKilled = 0;

private:
    static long countLines(const std::string& command) {
        FILE* lines = popen((command + " | wc -l").c_str(), "r");
        char text[16]{};
        if (!lines || !std::fgets(text, sizeof text, lines)) std::abort();
        pclose(lines);
        return std::atol(text);
    }

    int below(int limit) { return static_cast<int>(m_chance() % static_cast<unsigned>(limit)); }
    template <class T> T of(std::initializer_list<T> values) {
        return values.begin()[below(static_cast<int>(values.size()))];
    }

    std::string request(const ControlRequest& request) {
        ++requests;
        const auto answer = exchange(paths().controlSocket, request.record);
        if (answer) return *answer;
        std::printf("request %ld (type %d) was not answered: %s\n", requests, request.record.type,
                    std::strerror(errno));
        std::exit(1);
    }
    ControlRequest ours(int32_t type) {
        return std::move(ControlRequest(type).with("Session", std::to_string(sessions)));
    }

    void session() {
        const OpenAnswer answer = readOpenAnswer(request(ControlRequest(RTSP_REQ_OPEN)));
        ++sessions;
        if (answer != OpenAnswer::opened) ++refused;
        request(ours(RTSP_REQ_SESSION));
        if (below(20) == 0) killAViewer();
        OutputReader reader;
        reader.attach(paths().ipcKey, kOutputMemoryProject);
        reader.rewind();
        for (int n = below(30); n > 0; --n) {
            ask();
            watch(reader, milliseconds(below(10) == 0 ? below(1000) : below(40)));
        }
        if (below(4) != 0) request(ours(RTSP_REQ_TEARDOWN)); // else the next open is refused, then it ends
        if (below(2) == 0) request(ControlRequest(RTSP_REQ_TEARDOWN));
    }

    void ask() {
        switch (below(12)) {
        case 0:
            request(ours(RTSP_REQ_PLAY));
            break;
        case 1:
        case 2:
            play("Scale",
                 of({"0.1", "0.5", "1", "2", "4", "16", "1024", "-0.5", "-1", "-2", "-64", "0", "nan"}));
            break;
        case 3:
        case 4:
            play("Step", of({"1", "-1", "2", "-7", "100", "-100", "4294967295"}));
            break;
        case 5:
        case 6:
            play("Jump", of({"oldest", "latest", "next-alarm", "prev-alarm", "nowhere"}));
            break;
        case 7:
            play(of({"Jump", "Range"}), clockText());
            break;
        case 8:
            request(ours(RTSP_REQ_PAUSE));
            break;
        case 9:
            request(ours(RTSP_REQ_FFTIME).with("FFTime", std::to_string(below(3000))));
            break;
        case 10:
            request(ControlRequest(of({0, 2, 4, 5, 7, 8, 99, -1})).with("Session", "999999"));
            break;
        default:
            status();
            break;
        }
    }
    void play(const char* header, const std::string& value) {
        request(ours(RTSP_REQ_PLAY).with(header, value));
    }

    /// Up to ten minutes ago, or a little ahead.
    std::string clockText() {
        char text[32];
        const time_t when = time(nullptr) - below(600) + 20;
        tm local{};
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", localtime_r(&when, &local));
        return jumpValue(text).value_or("");
    }

    void status() {
        const std::string word = readStatusAnswer(request(ours(RTSP_REQ_STATUS)));
        for (const char* known : {"play", "pause", "pause(sof)", "pause(eof)", "init", "error"})
            if (word == known) return;
        std::printf("the status is '%s'\n", word.c_str());
        std::exit(1);
    }

    void watch(OutputReader& reader, milliseconds span) {
        const Clock::time_point end = Clock::now() + span;
        for (milliseconds left = span; left.count() > 0;
             left = std::chrono::duration_cast<milliseconds>(end - Clock::now())) {
            if (!reader.attached()) {
                usleep(static_cast<useconds_t>(left.count()) * 1000);
                return;
            }
            const ReadResult result = reader.next(m_block, left);
            if (result == ReadResult::damaged) {
                std::puts("the output memory contradicts itself");
                std::exit(1);
            }
            if (result == ReadResult::ended || result == ReadResult::abandoned) reader.detach();
            if (result == ReadResult::block) ++(m_block.data.size() == 5 ? pauses : pictures);
        }
    }

    void killAViewer() {
        const pid_t viewer = fork();
        if (viewer == 0) {
            OutputReader reader;
            if (reader.attach(paths().ipcKey, kOutputMemoryProject))
                while (reader.next(m_block, milliseconds(1000)) == ReadResult::block) continue;
            _exit(0);
        }
        request(ours(RTSP_REQ_PLAY));
        usleep(static_cast<useconds_t>(below(100'000)));
        kill(viewer, SIGKILL);
        waitpid(viewer, nullptr, 0);
        ++viewersKilled;
    }

    void forgetOldStreams() {
        sqlite3* index = nullptr;
        sqlite3_open(paths().index, &index);
        sqlite3_busy_timeout(index, 5000);
        const std::string old = "DELETE FROM STREAM WHERE status <> 1 AND streamID NOT IN "
                                "(SELECT streamID FROM STREAM ORDER BY streamID DESC LIMIT " +
                                std::to_string(kStreamsKept) + ")";
        sqlite3_exec(index, old.c_str(), nullptr, nullptr, nullptr);
        sqlite3_close(index);
    }

    const pid_t m_daemon;
    std::mt19937 m_chance;
    OutputBlock m_block;
};

bool grew(const char* what, long before, long after, long tolerance) {
    std::printf("%-12s %6ld at the start, %6ld at the end%s\n", what, before, after,
                after > before + tolerance ? "  <-- grew" : "");
    return after > before + tolerance;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fputs("Usage: tavirn-soak ROOT DAEMON_PID SECONDS SEED (scripts/soak calls it)\n", stderr);
        return 2;
    }
    setPathsRoot(argv[1]);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    Soak soak(std::atoi(argv[2]), static_cast<uint32_t>(std::atol(argv[4])));
    const auto end = Clock::now() + std::chrono::seconds(std::atoi(argv[3]));
    soak.run(Clock::now() + std::chrono::seconds(std::min(60, std::atoi(argv[3]) / 4)), 0);
    const Sample before = soak.sample();
    soak.run(end, 1);
    const Sample after = soak.sample();
    std::printf("%ld requests in %ld sessions, %ld of them refused; %ld pictures, %ld pauses seen; %ld "
                "viewers killed\n",
                soak.requests, soak.sessions, soak.refused, soak.pictures, soak.pauses, soak.viewersKilled);
    const bool failed[] = {grew("descriptors", before.descriptors, after.descriptors, 0),
                           grew("threads", before.threads, after.threads, 0),
                           grew("IPC objects", before.ipc, after.ipc, 0),
                           grew("RSS, KB", before.rssKb, after.rssKb, kRssToleranceKb),
                           soak.pictures == 0 || soak.refused > soak.sessions / 2};
    if (failed[4]) std::puts("so little was played that this says nothing");
    return std::any_of(std::begin(failed), std::end(failed), [](bool one) { return one; });
}

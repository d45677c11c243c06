// Stands at the end of a player and measures it: when each picture's last byte has come, and what the
// player's process has used by then. The same for every player, whether it writes into a pipe or the output
// memory.
//   player_reader sizes STREAM                                       each picture's bytes, a line each
//   player_reader pipe SIZES MICROSECONDS PID PICTURES < pipe        pictures of these sizes, lasting as long
//   player_reader memory ROOT PID PICTURES                           the output memory below ROOT
// Lateness counts from the earliest picture. Neither it nor "playing" counts the first two seconds: some
// players begin with a burst. "own" is lateness less the time in which player or reader could have run since
// the picture before, but other processes had the CPU. Prints name=value pairs in one line; fails when
// anything is not as told.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <unistd.h>

#include "bench/players/pictures.h"
#include "platform/output_reader.h"
#include "platform/paths.h"
#include "platform/paths_rooted.h"
#include "tools/record/h264.h"
#include "tools/view/view_stats.h"

namespace {

constexpr uint64_t kBurst = 50;
constexpr std::chrono::seconds kPatience{10};

[[noreturn]] void fail(const std::string& why) {
    std::fprintf(stderr, "player_reader: %s\n", why.c_str());
    std::exit(1);
}

/// What a process with all its threads has used so far.
struct Usage {
    double cpuSeconds = 0;
    unsigned long peakKilobytes = 0;
    unsigned long switches = 0; ///< voluntary, of the threads that live

    static Usage of(pid_t pid) {
        Usage usage;
        clockid_t clock;
        timespec time{};
        if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &time) != 0)
            fail("the player has gone");
        usage.cpuSeconds = static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
        const std::string process = "/proc/" + std::to_string(pid);
        usage.peakKilobytes = field(process + "/status", "VmHWM:");
        for (const auto& task : std::filesystem::directory_iterator(process + "/task"))
            usage.switches += field(task.path() / "status", "voluntary_ctxt_switches:");
        return usage;
    }

private:
    static unsigned long field(const std::string& file, const std::string& name) {
        std::ifstream in(file);
        std::string word;
        while (in >> word)
            if (word == name && in >> word) return std::strtoul(word.c_str(), nullptr, 10);
        return 0;
    }
};

/// Milliseconds for which a process's threads have waited for a CPU so far. 0 where the kernel keeps no
/// count.
double waitedForCpu(const std::string& process) {
    double sum = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + process + "/task")) {
        double ran = 0, waited = 0; // nanoseconds
        std::ifstream(task.path() / "schedstat") >> ran >> waited;
        sum += waited / 1e6;
    }
    return sum;
}

class Meter {
public:
    Meter(pid_t pid, uint64_t pictures) : m_pid(pid), m_pictures(pictures) {}

    /// False when that was the last one.
    bool take(const OutputBlock& block) {
        const auto now = ViewStats::Clock::now();
        const bool counts = count() >= kBurst;
        m_stats.add(block, counts ? std::optional(now) : std::nullopt);
        const double waited = waitedForCpu("self") + waitedForCpu(std::to_string(m_pid));
        if (counts) {
            const std::chrono::duration<double, std::milli> at = now.time_since_epoch();
            const double due =
                static_cast<double>(block.timestamp - m_stats.counts().firstStamp) / kStampsPerMs;
            m_arrivals.push_back({at.count() - due, waited - m_waited});
        }
        m_waited = waited;
        if (count() == kBurst) m_before = Usage::of(m_pid);
        return count() < m_pictures;
    }
    void print() const {
        const Usage after = Usage::of(m_pid);
        const ViewReport report = m_stats.report();
        if (!report.againstStamp || report.missedBlocks != 0 || report.runs != 1)
            fail("pictures were missed, or playback did not go on without a break");
        const auto late = [](const char* name, const ViewReport::Lateness& of) {
            std::printf(" %s50=%.3f %s99=%.3f %sMax=%.3f", name, of.p50, name, of.p99, name, of.max);
        };
        std::printf("cpu=%.4f playing=%.4f pictures=%llu peak=%lu switches=%lu", after.cpuSeconds,
                    after.cpuSeconds - m_before.cpuSeconds,
                    static_cast<unsigned long long>(m_pictures - kBurst), after.peakKilobytes,
                    after.switches - m_before.switches);
        late("stamp", *report.againstStamp);
        late("own", ownLateness());
        std::printf("\n");
    }

private:
    struct Arrival { ///< milliseconds
        double behindStamp, waited;
    };

    uint64_t count() const { return m_stats.counts().pictures; }

    ViewReport::Lateness ownLateness() const {
        double earliest = m_arrivals.front().behindStamp;
        for (const Arrival& one : m_arrivals) earliest = std::min(earliest, one.behindStamp);
        std::vector<double> late;
        for (const Arrival& one : m_arrivals)
            late.push_back(std::max(0.0, one.behindStamp - earliest - one.waited));
        std::sort(late.begin(), late.end());
        return {late[late.size() / 2], late[late.size() * 99 / 100], late.back()};
    }

    const pid_t m_pid;
    const uint64_t m_pictures;
    ViewStats m_stats;
    std::vector<Arrival> m_arrivals;
    double m_waited = 0;
    Usage m_before;
};

void printSizes(const char* file) {
    std::ifstream in(file, std::ios::binary);
    const std::string stream{std::istreambuf_iterator<char>(in), {}};
    size_t begin = 0;      // of the picture
    bool hasSlice = false; // it has
    const char* end = stream.data();
    for (const std::string_view unit : h264::nalUnits(stream)) {
        const bool slice = h264::nalType(unit) == h264::nalSlice || h264::nalType(unit) == h264::nalIdrSlice;
        // A slice whose macroblocks begin with the first one begins a picture, as does all else behind a
        // slice.
        if (hasSlice && (!slice || (unit.size() > 1 && (unit[1] & 0x80) != 0))) {
            const auto here = static_cast<size_t>(end - stream.data());
            std::printf("%zu\n", here - begin);
            begin = here;
            hasSlice = false;
        }
        hasSlice = hasSlice || slice;
        end = unit.data() + unit.size();
    }
    if (hasSlice) std::printf("%zu\n", stream.size() - begin);
}

void readPipe(Meter& meter, const std::vector<size_t>& sizes, uint32_t microseconds) {
    OutputBlock picture;
    for (const size_t bytes : sizes) {
        picture.data.resize(bytes);
        for (size_t have = 0; have < bytes;) {
            const ssize_t got = read(STDIN_FILENO, picture.data.data() + have, bytes - have);
            if (got <= 0) fail("the player's pictures ended too early");
            have += static_cast<size_t>(got);
        }
        if (std::memcmp(picture.data.data(), "\0\0", 2) != 0) fail("a picture has not the size foretold");
        if (!meter.take(picture)) return;
        picture.timestamp += microseconds / 100 * kStampsPerMs / 10;
    }
    fail("the stream has too few pictures");
}

void readMemory(Meter& meter) {
    OutputReader reader;
    if (!reader.attach(paths().ipcKey, kOutputMemoryProject)) fail("there is no session's output memory");
    OutputBlock block;
    auto patience = ViewStats::Clock::now() + kPatience;
    while (reader.next(block, kPatience) == ReadResult::block) {
        if (isPauseBlock(block) && ViewStats::Clock::now() > patience) break;
        if (isPauseBlock(block)) continue;
        patience = ViewStats::Clock::now() + kPatience;
        if (!meter.take(block)) return;
    }
    fail("no picture has come in ten seconds");
}

} // namespace

int main(int argc, char** argv) {
    const std::string what = argc > 1 ? argv[1] : "";
    const auto number = [argv](int i) { return static_cast<uint32_t>(std::strtoul(argv[i], nullptr, 10)); };
    if (what == "sizes" && argc == 3) {
        printSizes(argv[2]);
    } else if (what == "pipe" && argc == 6) {
        Meter meter(static_cast<pid_t>(number(4)), number(5));
        readPipe(meter, players::sizesFrom(argv[2]), number(3));
        meter.print();
    } else if (what == "memory" && argc == 5) {
        setPathsRoot(argv[2]);
        Meter meter(static_cast<pid_t>(number(3)), number(4));
        readMemory(meter);
        meter.print();
    } else {
        std::fputs("usage: player_reader sizes|pipe|memory ..., see its source\n", stderr);
        return 2;
    }
    return 0;
}

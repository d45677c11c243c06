// tavirn-view: reads the output memory as the RTSP server would, keeps the pictures and measures them.
#include <CLI/CLI.hpp>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <unistd.h>

#include "platform/output_reader.h"
#include "platform/paths.h"
#include "tools/common/command_line.h"
#include "tools/common/formatted.h"
#include "tools/view/view_output.h"
#include "tools/view/view_stats.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

enum { kNoMemory = 3, kDamaged = 4 };

constexpr char kNotes[] =
    "Ends at SIGINT or SIGTERM, when the session ends, or as the options say; the statistics always come.\n"
    "Lateness, each against the earliest picture of its run: on turn, against the steps of 10 ms in which "
    "the\n"
    "daemon paces; on stamp, against the picture's own time stamp. A run ends at a PAUSE block and where "
    "stamps\n"
    "jump by more than a second, since the daemon paces anew from there; the first two pictures of a run "
    "are\n"
    "not counted, nor what --from-oldest found there.\n"
    "Exit codes: 0 done, 1 the file cannot be written, 2 wrong usage, 3 no output memory, 4 the memory's "
    "content is damaged.";

/// Number of a session's first block: the picture it stands on, shown while still paused.
constexpr uint32_t kFirstSequence = 1;
constexpr double kMaxSeconds = 1e8;
/// How long an end by signal may go unnoticed.
constexpr milliseconds kPatience{100};

std::atomic<bool> g_stop{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set in a signal handler");

struct Options {
    std::string output;
    std::string list;
    double waitSeconds = 0;
    double durationSeconds = 0;
    uint64_t pictures = 0;
    bool fromOldest = false;
    bool untilPause = false;
    bool stats = false;
    bool json = false;
};

void declare(CLI::App& app, Options& options) {
    const auto seconds = CLI::Range(0.0, kMaxSeconds);
    app.footer(kNotes);
    app.add_option("-o,--output", options.output,
                   "File for the pictures, an H.264 elementary stream; - for standard output");
    app.add_option("--list", options.list,
                   "File for a line per block: its number, its stamp, when it was read (seconds since the "
                   "epoch), its bytes or PAUSE");
    app.add_option("--wait", options.waitSeconds, "Seconds to wait for a session's output memory (0)")
        ->check(seconds);
    app.add_flag("--from-oldest", options.fromOldest, "Begin with the oldest block still held, not the next");
    app.add_flag("--until-pause", options.untilPause,
                 "End at the first PAUSE block after a picture; the picture that every session shows before "
                 "it plays does not count");
    app.add_option("--pictures", options.pictures, "End after so many pictures");
    app.add_option("--duration", options.durationSeconds, "End after so many seconds")->check(seconds);
    app.add_flag("--stats", options.stats,
                 "Print statistics at the end, to standard error (default without -o)");
    app.add_flag("--json", options.json,
                 "Print them as JSON, to standard output unless something else goes there");
}

Clock::time_point after(double seconds) {
    return Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

/// Attaches, waiting for a session as long as asked.
void attach(OutputReader& reader, const Options& options) {
    const Clock::time_point deadline = after(options.waitSeconds);
    while (!reader.attach(paths().ipcKey, kOutputMemoryProject)) {
        const int error = errno;
        if (error == EPROTO)
            throw Failure(kDamaged, std::string("the memory of ") + paths().ipcKey +
                                        " is no output memory of this system");
        if (g_stop || Clock::now() >= deadline)
            throw Failure(kNoMemory, std::string("no output memory of ") + paths().ipcKey + " (" +
                                         std::strerror(error) +
                                         "): no session is open; open one, or give --wait");
        const timespec pause{0, 20'000'000};
        nanosleep(&pause, nullptr);
    }
    if (options.fromOldest) reader.rewind();
}

/// The line of --list.
std::string lineOf(const OutputBlock& block) {
    const std::string bytes = isPauseBlock(block) ? "PAUSE" : std::to_string(block.data.size());
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto ms = static_cast<unsigned long long>(std::chrono::floor<milliseconds>(now).count());
    return formatted("%u %u %llu.%03llu %s\n", block.sequence, block.timestamp, ms / 1000, ms % 1000,
                     bytes.c_str());
}

class View {
public:
    View(const Options& options, OutputReader& reader, ViewOutput& output, ViewOutput& list)
        : m_options(options), m_reader(reader), m_output(output), m_list(list),
          m_catchingUp(options.fromOldest) {}

    /// Reads until something ends it.
    void run() {
        const Clock::time_point deadline = after(m_options.durationSeconds);
        while (!g_stop && !m_done) {
            if (m_onTerminal) showProgress();
            milliseconds patience = m_catchingUp ? milliseconds(0) : kPatience;
            if (m_options.durationSeconds > 0) {
                const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
                if (left.count() <= 0) break;
                patience = std::min(patience, left);
            }
            readOne(patience);
        }
    }

    const ViewStats& stats() const { return m_stats; }

private:
    void readOne(milliseconds patience) {
        switch (m_reader.next(m_block, patience)) {
        case ReadResult::block:
            take();
            break;
        case ReadResult::timeout:
            m_catchingUp = false;
            break;
        case ReadResult::ended:
            m_done = true;
            break;
        case ReadResult::damaged:
            throw Failure(kDamaged, std::string("the output memory of ") + paths().ipcKey + " is damaged");
        }
    }

    /// One line, rewritten once a second.
    void showProgress() {
        if (Clock::now() < m_nextProgress) return;
        m_nextProgress = after(1);
        const ViewReport& report = m_stats.counts();
        std::fprintf(stderr, "\r%llu pictures, %.1f MB\033[K",
                     static_cast<unsigned long long>(report.pictures),
                     static_cast<double>(report.bytes) / 1e6);
    }

    void take() {
        m_stats.add(m_block, m_catchingUp ? std::nullopt : std::optional(Clock::now()));
        if (isPauseBlock(m_block)) {
            m_done = m_options.untilPause && m_played;
        } else {
            m_played = m_played || m_block.sequence != kFirstSequence;
            m_done = m_options.pictures != 0 && m_stats.counts().pictures >= m_options.pictures;
            // The bytes first: whoever follows the list finds the pictures that it names.
            write(m_output, m_options.output, {m_block.data.data(), m_block.data.size()});
        }
        write(m_list, m_options.list, lineOf(m_block));
    }

    void write(ViewOutput& output, const std::string& name, std::string_view data) {
        switch (output.write(data)) {
        case ViewOutput::Result::readerGone:
            if (output.isStandardOutput()) m_done = true;
            break;
        case ViewOutput::Result::failed:
            if (errno != EINTR || !g_stop)
                throw Failure(kFailed, "cannot write to " + name + ": " + std::strerror(errno));
            break;
        case ViewOutput::Result::written:
            break;
        }
    }

    const Options& m_options;
    OutputReader& m_reader;
    ViewOutput& m_output;
    ViewOutput& m_list;
    OutputBlock m_block;
    ViewStats m_stats;
    bool m_catchingUp; ///< reading what was there before
    const bool m_onTerminal = isatty(STDERR_FILENO) == 1;
    Clock::time_point m_nextProgress = Clock::now();
    bool m_played = false;
    bool m_done = false;
};

void printStats(const Options& options, const ViewStats& stats, bool standardOutputTaken) {
    const ViewReport report = stats.report();
    if (options.json)
        std::fputs(asJson(report).c_str(), standardOutputTaken ? stderr : stdout);
    else if (options.stats || options.output.empty())
        std::fputs(asText(report).c_str(), stderr);
}

void endOnSignals() {
    struct sigaction action {};
    action.sa_handler = [](int) { g_stop = true; };
    action.sa_flags = static_cast<int>(SA_RESETHAND); // a second one ends the program at once
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

int view(const Options& options) {
    endOnSignals();
    OutputReader reader;
    attach(reader, options);
    ViewOutput output;
    ViewOutput list;
    for (const auto& [file, name] : {std::pair(&output, &options.output), std::pair(&list, &options.list)})
        if (!file->open(*name))
            throw Failure(kFailed, "cannot create " + *name + ": " + std::strerror(errno));
    View view(options, reader, output, list);
    std::exception_ptr failure; // the statistics come all the same
    try {
        view.run();
    } catch (const Failure&) {
        failure = std::current_exception();
    }
    if (isatty(STDERR_FILENO) == 1) std::fputs("\r\033[K", stderr); // the line of progress
    printStats(options, view.stats(), output.isStandardOutput() || list.isStandardOutput());
    if (failure) std::rethrow_exception(failure);
    return kDone;
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app("Reads the pictures of the open playback session into a file, and measures them.",
                 "tavirn-view");
    declare(app, options);
    return runTool(app, argc, argv, [&] { return view(options); });
}

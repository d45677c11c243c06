// tavirn-view: reads the output memory as the RTSP server would, keeps the pictures and measures them.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <unistd.h>

#include "platform/output_reader.h"
#include "platform/output_words.h"
#include "platform/paths.h"
#include "tools/common/command_line.h"
#include "tools/common/formatted.h"
#include "tools/common/stop_signals.h"
#include "tools/common/terminal.h"
#include "tools/view/view_output.h"
#include "tools/view/view_stats.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

enum { kNoMemory = 3, kDamaged = 4, kAbandoned = 5, kNotPermitted = 6 };

constexpr char kNotes[] =
    "Ends at SIGINT or SIGTERM, when the session ends, when nobody reads its output any more, or\n"
    "as the options say; the statistics always come. A file begins at an I-picture, where a\n"
    "decoder can; the pictures before it are passed over: not written, listed or counted.\n"
    "Lateness, each against the earliest picture of its run: on turn, against the steps of 10 ms\n"
    "in which the daemon paces; on stamp, against the picture's own time stamp. A run ends at a\n"
    "PAUSE block and where stamps jump by more than a second, since the daemon paces anew from\n"
    "there; the first two pictures of a run are not counted, nor what --from-oldest found there.\n"
    "Exit codes: 0 done, 1 the file cannot be written, 2 wrong usage, 3 no session is open, 4 the\n"
    "memory's content is damaged, 5 the daemon has died, 6 no permission.";

/// Number of a session's first block: the picture it stands on, shown while still paused.
constexpr uint32_t kFirstSequence = 1;
constexpr double kMaxSeconds = 1e8;
/// How long an end by signal may go unnoticed.
constexpr milliseconds kPatience{100};

struct Options {
    std::string output;
    std::string list;
    double waitSeconds = 0;
    double durationSeconds = 0;
    uint64_t pictures = 0;
    bool fromOldest = false;
    bool fromAny = false;
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
    app.add_flag("--from-any", options.fromAny, "Begin a file with whatever picture comes, not an I-picture");
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

/// Why there is nothing to attach to, from errno.
Failure noMemory() {
    const std::string keyFile = paths().ipcKey;
    if (errno == EPROTO)
        return {kDamaged, "the memory of " + keyFile + " is no output memory of this system"};
    if (errno == EACCES)
        return {kNotPermitted, "no permission for the output memory of " + keyFile +
                                   ": run it as the daemon's user, or in its group"};
    if (access(keyFile.c_str(), F_OK) != 0)
        return {kNoMemory, "no key file " + keyFile + ": no daemon's world; see --root"};
    return {kNoMemory, "no session is open on " + keyFile + "; open one, or give --wait"};
}

/// Attaches, waiting for a session as long as asked.
void attach(OutputReader& reader, const Options& options) {
    const Clock::time_point deadline = after(options.waitSeconds);
    while (!reader.attach(paths().ipcKey, kOutputMemoryProject)) {
        const Failure failure = noMemory();
        if (failure.code != kNoMemory || g_stop || Clock::now() >= deadline) throw failure;
        const timespec pause{0, 20'000'000};
        nanosleep(&pause, nullptr);
    }
    if (options.fromOldest) reader.rewind();
}

/// What the options ask for, each where it goes.
struct Outputs {
    ViewOutput pictures;
    ViewOutput list;
    ViewOutput report;

    void open(const Options& options) {
        pictures.open(options.output);
        list.open(options.list);
        const bool taken = pictures.isStandardOutput() || list.isStandardOutput();
        if (options.json && !taken) report.open("-");
    }
    void begin() {
        pictures.begin();
        list.begin();
    }
    bool readerGone() const { return pictures.readerGone() || list.readerGone() || report.readerGone(); }
};

/// The line of --list.
std::string lineOf(const OutputBlock& block) {
    const std::string bytes =
        isPauseBlock(block) ? std::string(kPauseBlock) : std::to_string(block.data.size());
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto ms = static_cast<unsigned long long>(std::chrono::floor<milliseconds>(now).count());
    return formatted("%u %u %llu.%03llu %s\n", block.sequence, block.timestamp, ms / 1000, ms % 1000,
                     bytes.c_str());
}

class View {
public:
    View(const Options& options, OutputReader& reader, Outputs& outputs)
        : m_options(options), m_reader(reader), m_outputs(outputs), m_catchingUp(options.fromOldest),
          m_begun(options.fromAny || options.output.empty()) {}

    /// Reads until something ends it.
    void run() {
        const Clock::time_point deadline = after(m_options.durationSeconds);
        while (!g_stop && !m_done && !m_outputs.readerGone()) {
            showProgress();
            milliseconds patience = m_catchingUp ? milliseconds(0) : kPatience;
            if (m_options.durationSeconds > 0) {
                const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
                if (left.count() <= 0) break;
                patience = std::min(patience, left);
            }
            readOne(patience);
        }
        if (!m_begun && m_passedOver != 0)
            throw Failure(kFailed, "no I-picture has come, only " + std::to_string(m_passedOver) +
                                       " others; --from-any keeps them");
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
        case ReadResult::abandoned:
            throw Failure(kAbandoned, "the daemon has died: its session was not ended");
        case ReadResult::damaged:
            throw Failure(kDamaged, std::string("the output memory of ") + paths().ipcKey + " is damaged");
        }
    }

    /// One line, rewritten once a second.
    void showProgress() {
        if (Clock::now() < m_nextProgress) return;
        m_nextProgress = after(1);
        if (!drawsProgress()) return;
        const ViewReport& report = m_stats.counts();
        std::fprintf(stderr, "\r%llu pictures, %.1f MB\033[K",
                     static_cast<unsigned long long>(report.pictures),
                     static_cast<double>(report.bytes) / 1e6);
    }

    void take() {
        const bool pause = isPauseBlock(m_block);
        m_played = m_played || (!pause && m_block.sequence != kFirstSequence);
        m_done = pause && m_options.untilPause && m_played;
        m_begun = m_begun || isIPicture(m_block);
        if (!pause && !m_begun) {
            ++m_passedOver;
            return;
        }
        m_stats.add(m_block, m_catchingUp ? std::nullopt : std::optional(Clock::now()));
        if (!pause) {
            m_done = m_options.pictures != 0 && m_stats.counts().pictures >= m_options.pictures;
            // The bytes first: whoever follows the list finds the pictures that it names.
            if (!m_outputs.pictures.write({m_block.data.data(), m_block.data.size()})) m_done = true;
        }
        if (!m_outputs.list.write(lineOf(m_block))) m_done = true;
    }

    const Options& m_options;
    OutputReader& m_reader;
    Outputs& m_outputs;
    OutputBlock m_block;
    ViewStats m_stats;
    bool m_catchingUp; ///< reading what was there before
    bool m_begun;      ///< at a picture that a file may begin with
    uint64_t m_passedOver = 0;
    Clock::time_point m_nextProgress = Clock::now();
    bool m_played = false;
    bool m_done = false;
};

void printStats(const Options& options, const ViewStats& stats, Outputs& outputs) {
    const ViewReport report = stats.report();
    if (!options.json && !options.stats && !options.output.empty()) return;
    const std::string text = options.json ? asJson(report) : asText(report);
    if (outputs.report.isStandardOutput())
        outputs.report.write(text);
    else
        std::fputs(text.c_str(), stderr);
}

int view(const Options& options) {
    stopOnSignals({SIGINT, SIGTERM});
    Outputs outputs;
    outputs.open(options); // told before anybody waits for a session
    OutputReader reader;
    attach(reader, options);
    outputs.begin();
    View view(options, reader, outputs);
    std::exception_ptr failure; // the statistics come all the same
    try {
        view.run();
    } catch (const Failure&) {
        failure = std::current_exception();
    }
    if (drawsProgress()) std::fputs("\r\033[K", stderr); // the line of progress
    printStats(options, view.stats(), outputs);
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

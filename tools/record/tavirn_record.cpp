// tavirn-record: stands in for the recorder. Records a video file or a test pattern onto a card that the
// daemon can play from.
#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <unistd.h>

#include "platform/clock.h"
#include "platform/paths.h"
#include "tools/common/clock_text.h"
#include "tools/common/command_line.h"
#include "tools/common/formatted.h"
#include "tools/record/record_output.h"
#include "tools/record/record_place.h"
#include "tools/record/recorder.h"
#include "tools/record/standard_input.h"
#include "tools/record/status_publisher.h"

namespace {

constexpr uint64_t kAlarmMs = 3000;
constexpr uint64_t kBehindMs = 1000; ///< from the newest recording to one that is not given a start
constexpr const char* kStandardInput = "-";
constexpr double kDefaultPatternSeconds = 60;
constexpr uint64_t kMinChunkBytes = 64u << 10;
constexpr uint64_t kMaxChunkBytes = 1u << 30;
constexpr double kMaxSeconds = 1e8; // some years; keeps times within the index's 32 bits

std::atomic<bool> g_stop{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set in a signal handler");

struct Options {
    std::string file;
    bool testPattern = false;
    std::string start;
    double split = 0;
    double gap = 0;
    double duration = 0;
    std::vector<std::string> events;
    uint64_t chunkBytes = 64u << 20;
    double fps = 30;
    std::string size = "1280x720";
    uint32_t gop = 0;
    uint32_t bitrateKbit = 0;
    bool live = false;
    bool json = false;
};

void declare(CLI::App& app, Options& options) {
    const auto seconds = CLI::Range(0.0, kMaxSeconds).description("");
    auto* file = app.add_option("FILE", options.file,
                                "Video to record, - for standard input: H.264 that a session can play is "
                                "copied, all else encoded anew")
                     ->type_name("");
    auto* pattern = app.add_flag("--test-pattern", options.testPattern,
                                 "Record a moving pattern that shows the recording's clock time");
    file->excludes(pattern);
    app.add_option("--start", options.start,
                   "Clock time of the first picture, as \"2024-01-02 03:04:05.250\" (now, or a second "
                   "behind the newest recording where that is later)")
        ->type_name("TIME");
    app.add_option("--split", options.split, "Seconds after which a new stream begins (0: never)")
        ->check(seconds)
        ->type_name("SECONDS");
    app.add_option("--gap", options.gap, "Seconds on the clock between two streams")
        ->check(seconds)
        ->type_name("SECONDS");
    app.add_option("--duration", options.duration,
                   "Seconds to record (the whole file; 60 of a test pattern; until stopped with --live)")
        ->check(CLI::Range(0.001, kMaxSeconds).description(""))
        ->type_name("SECONDS");
    app.add_option("--event", options.events,
                   "An alarm so long after the start by the clock, gaps included; "
                   "trigger 512 to 2047 (512); may be repeated")
        ->type_name("SECONDS[:TRIGGER]")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    app.add_option("--chunk-size", options.chunkBytes, "Bytes of a chunk, 64K to 1G (64M)")
        ->transform(CLI::AsSizeValue(false).description(""))
        ->check(CLI::Range(kMinChunkBytes, kMaxChunkBytes).description(""))
        ->type_name("BYTES");
    app.add_option("--gop", options.gop, "Pictures from one I-picture to the next, 1 to 120 (a second's)")
        ->check(CLI::Range(1, 120).description(""))
        ->type_name("PICTURES");
    app.add_option("--bitrate", options.bitrateKbit,
                   "kbit/s, 16 to 100000, when encoding (by size and frame rate)")
        ->check(CLI::Range(16, 100000).description(""))
        ->type_name("KBIT");
    app.add_option("--fps", options.fps, "Pictures per second of the test pattern, 0.5 to 120 (30)")
        ->check(CLI::Range(0.5, 120.0).description(""))
        ->type_name("N")
        ->needs(pattern);
    app.add_option("--size", options.size, "Picture size of the test pattern (1280x720)")
        ->type_name("WxH")
        ->needs(pattern);
    app.add_flag("--live", options.live, "Record in real time and publish what is being written");
    app.add_flag("--json", options.json, "Print the summary as JSON");
}

uint64_t toMs(double seconds) {
    return static_cast<uint64_t>(std::llround(seconds * 1000));
}

std::string secondsText(uint64_t ms) {
    return formatted("%.1f s", static_cast<double>(ms) / 1000);
}

uint64_t nowMs() {
    const timeval now = wallclock::now();
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_usec) / 1000;
}

TestPattern patternOf(const Options& options) {
    unsigned width = 0;
    unsigned height = 0;
    char more = 0;
    if (std::sscanf(options.size.c_str(), "%5ux%5u%c", &width, &height, &more) != 2 || width < 64 ||
        height < 64 || width > 4096 || height > 4096 || width % 2 != 0 || height % 2 != 0)
        throw RecordingError("--size " + options.size +
                             " is no picture size; give WIDTHxHEIGHT, even numbers from 64 to 4096");
    return {width, height, options.fps};
}

/// The alarm of an --event; `spanMs` is the recording's length by the clock, 0 when it is not known.
Alarm alarmOf(const std::string& event, uint64_t spanMs) {
    double seconds = 0;
    unsigned trigger = 512;
    char more = 0;
    const int fields = std::sscanf(event.c_str(), "%lf:%u%c", &seconds, &trigger, &more);
    const bool complete = fields == 2 || (fields == 1 && event.find(':') == std::string::npos);
    if (!complete || !(seconds >= 0 && seconds <= kMaxSeconds) || trigger < 512 || trigger > 2047)
        throw RecordingError("--event " + event +
                             " is no alarm; give SECONDS or SECONDS:TRIGGER with a "
                             "trigger from 512 to 2047");
    const uint64_t offsetMs = toMs(seconds);
    if (spanMs != 0 && offsetMs >= spanMs)
        throw RecordingError("--event " + event + " lies behind the recording's end, " +
                             std::to_string(spanMs / 1000) + " s by the clock; choose an earlier time");
    return {offsetMs, offsetMs + kAlarmMs, trigger};
}

/// How long a recording is by the clock; 0 = not known yet.
uint64_t spanOf(const Timeline& timeline, uint64_t durationMs) {
    const uint64_t gaps = durationMs == 0 || timeline.splitMs == 0 ? 0 : (durationMs - 1) / timeline.splitMs;
    return durationMs + gaps * timeline.gapMs;
}

RecorderSettings settingsOf(const Options& options) {
    RecorderSettings settings;
    settings.chunkBytes = static_cast<uint32_t>(options.chunkBytes);
    Timeline& timeline = settings.timeline;
    timeline.splitMs = toMs(options.split);
    timeline.gapMs = toMs(options.gap);
    if (!options.start.empty()) {
        const std::optional<uint64_t> start = parseClock(options.start);
        if (!start)
            throw RecordingError("--start " + options.start +
                                 " is no time from 1970 to 2038-01-19 03:14:07 UTC; write it as "
                                 "\"2024-01-02 03:04:05.250\"");
        timeline.startMs = *start;
    }
    settings.durationMs = toMs(options.duration);
    if (settings.durationMs == 0 && options.testPattern && !options.live)
        settings.durationMs = toMs(kDefaultPatternSeconds);
    const uint64_t spanMs = spanOf(timeline, settings.durationMs);
    for (const std::string& event : options.events) settings.alarms.push_back(alarmOf(event, spanMs));
    return settings;
}

std::unique_ptr<MediaSource> sourceOf(const Options& options, const RecorderSettings& settings) {
    const SourceSettings wanted{options.gop, options.bitrateKbit, settings.durationMs, settings.timeline};
    if (options.testPattern) return MediaSource::testPattern(patternOf(options), wanted, g_stop);
    if (options.file != kStandardInput)
        return MediaSource::file(options.file, "the video file " + options.file, wanted, g_stop);
    if (options.live) return MediaSource::pipe(wanted, g_stop);
    return MediaSource::file(standardInputAsFile(g_stop), "standard input", wanted, g_stop);
}

void note(const std::string& text) {
    std::fprintf(stderr, "note: %s\n", text.c_str());
}

void tidyUp(RecordingWriter& writer) {
    const Abandoned left = writer.closeAbandoned();
    if (left.finished != 0)
        note("finished " + counted(left.finished, "stream") + " that a recorder had left open");
    if (left.removed != 0)
        note("removed " + counted(left.removed, "stream") +
             " that a recorder had left open, too short for a session to open");
}

/// What a person would not expect of what has been recorded.
void tellSurprises(const Options& options, const RecordingReport& report, const MediaInfo& info,
                   RecordingWriter& writer) {
    if (info.copied && (options.gop != 0 || options.bitrateKbit != 0))
        note("the file is H.264 and was copied; --gop and --bitrate had no effect");
    if (report.alarmsMissed != 0)
        note("not written, for the recording ends before: " + counted(report.alarmsMissed, "alarm"));
    // The last picture lasts a while too, and a file may hold a little more sound than pictures.
    const uint64_t rest = 1000 + (info.framesPerSecond > 0 ? toMs(1 / info.framesPerSecond) : 0);
    if (options.duration == 0 && !options.testPattern && !g_stop &&
        report.recordedMs + rest < info.durationMs)
        note("the video ends after " + secondsText(report.recordedMs) + " of the file's " +
             secondsText(info.durationMs));
    if (report.streams.empty()) return;
    const RecordedStream& first = report.streams.front();
    if (const uint32_t older =
            writer.olderStreamWithin(first.startMs, report.streams.back().endMs, first.streamId))
        note("stream " + std::to_string(older) +
             " covers part of the same time; play goes by the clock and may pass one of them by");
}

int record(const Options& options) {
    RecorderSettings settings = settingsOf(options);
    const bool file = !options.testPattern && options.file != kStandardInput;
    if (file && access(options.file.c_str(), R_OK) == -1)
        throw Failure(kFailed,
                      "cannot read the video file " + options.file + "; check its name and permissions");
    makePlace(pathsAreRooted());
    lockPlace();
    RecordingWriter writer({paths().card, paths().index, settings.chunkBytes});
    tidyUp(writer);
    if (options.start.empty()) {
        const uint64_t newestMs = writer.newestEndMs();
        settings.timeline.startMs = std::max(nowMs(), newestMs == 0 ? 0 : newestMs + kBehindMs);
    }
    const auto source = sourceOf(options, settings);
    const MediaInfo& info = source->info();
    if (g_stop && !options.live) throw Failure(kFailed, "interrupted before anything was recorded");
    if (!info.notCopied.empty()) note("the video is encoded anew: " + info.notCopied);
    StatusPublisher publisher(paths().ipcKey);
    if (options.live) settings.live = &publisher;

    ProgressLine line;
    Recorder recorder(*source, writer, settings, g_stop);
    const RecordingReport& report = recorder.report();
    try {
        recorder.run([&](const RecordingProgress& progress) { line.show(progress); });
    } catch (const RecordingError& error) {
        line.end();
        if (report.streams.empty()) throw;
        throw Failure(kFailed, std::string(error.what()) + " (the first " + secondsText(report.recordedMs) +
                                   " are recorded)");
    }
    line.end();
    tellSurprises(options, report, info, writer);
    options.json ? printJson(report, info) : printSummary(report, info);
    if (g_stop && !options.live)
        throw Failure(kFailed,
                      "interrupted after " + secondsText(report.recordedMs) + "; the rest is missing");
    return kDone;
}

void stopOnSignals() {
    struct sigaction action {};
    action.sa_handler = [](int) { g_stop = true; };
    action.sa_flags = static_cast<int>(SA_RESETHAND); // a second one ends the program at once
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaction(number, &action, nullptr);
    signal(SIGPIPE, SIG_IGN); // whoever reads the progress may go before the stream is finished
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app("Records a video file or a test pattern as the recorder would, for tavirn to play.",
                 "tavirn-record");
    declare(app, options);
    app.footer("Exit codes: 0 done, 1 it could not be recorded, 2 wrong usage.");
    return runTool(app, argc, argv, [&] {
        if (options.file.empty() && !options.testPattern)
            throw Failure(kUsage, "name a video file or give --test-pattern; see tavirn-record --help");
        stopOnSignals();
        return record(options);
    });
}

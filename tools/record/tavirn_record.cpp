// tavirn-record: stands in for the recorder. Records a video file or a test pattern onto a card that the
// daemon can play from.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <unistd.h>

#include "platform/paths.h"
#include "tools/common/command_line.h"
#include "tools/common/formatted.h"
#include "tools/common/stop_signals.h"
#include "tools/record/record_options.h"
#include "tools/record/record_output.h"
#include "tools/record/record_place.h"
#include "tools/record/standard_input.h"
#include "tools/record/status_publisher.h"

namespace {

constexpr uint64_t kBehindMs = 1000; ///< from the newest recording to one that is not given a start
constexpr const char* kStandardInput = "-";

std::string secondsText(uint64_t ms) {
    return formatted("%.1f s", static_cast<double>(ms) / 1000);
}

std::unique_ptr<MediaSource> sourceOf(const RecordOptions& options, const TestPattern& pattern,
                                      const RecorderSettings& settings) {
    const SourceSettings wanted{options.gop, options.bitrateKbit, settings.durationMs, settings.timeline};
    if (options.testPattern) return MediaSource::testPattern(pattern, wanted, g_stop);
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
void tellSurprises(const RecordOptions& options, const RecordingReport& report, const MediaInfo& info,
                   RecordingWriter& writer) {
    if (info.copied && (options.gop != 0 || options.bitrateKbit != 0))
        note("the file is H.264 and was copied; --gop and --bitrate had no effect");
    if (report.alarmsMissed != 0)
        note("not written, for the recording ends before: " + counted(report.alarmsMissed, "alarm"));
    // The last picture lasts a while too, and a file may hold a little more sound than pictures.
    const uint64_t rest = 1000 + (info.framesPerSecond > 0 ? inMs(1 / info.framesPerSecond) : 0);
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

/// A failure on the way tells how much there is.
void runToEnd(Recorder& recorder) {
    ProgressLine line;
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
}

int record(const RecordOptions& options) {
    const TestPattern pattern = testPattern(options);
    RecorderSettings settings = recorderSettings(options);
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
    const auto source = sourceOf(options, pattern, settings);
    const MediaInfo& info = source->info();
    if (g_stop && !options.live) throw Failure(kFailed, "interrupted before anything was recorded");
    if (!info.notCopied.empty()) note("the video is encoded anew: " + info.notCopied);
    StatusPublisher publisher(paths().ipcKey);
    if (options.live) settings.live = &publisher;

    Recorder recorder(*source, writer, settings, g_stop);
    const RecordingReport& report = recorder.report();
    runToEnd(recorder);
    tellSurprises(options, report, info, writer);
    options.json ? printJson(report, info) : printSummary(report, info);
    if (g_stop && !options.live)
        throw Failure(kFailed,
                      "interrupted after " + secondsText(report.recordedMs) + "; the rest is missing");
    return kDone;
}

} // namespace

int main(int argc, char** argv) {
    RecordOptions options;
    CLI::App app("Records a video file or a test pattern as the recorder would, for tavirn to play.",
                 "tavirn-record");
    declare(app, options);
    return runTool(app, argc, argv, [&] {
        if (options.file.empty() && !options.testPattern)
            throw Failure(kUsage, "name a video file or give --test-pattern; see tavirn-record --help");
        stopOnSignals({SIGINT, SIGTERM, SIGHUP});
        return record(options);
    });
}

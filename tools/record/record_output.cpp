#include "tools/record/record_output.h"

#include <chrono>
#include <cstdio>
#include <unistd.h>

#include "tools/common/clock_text.h"
#include "tools/common/formatted.h"
#include "tools/common/json.h"
#include "tools/common/terminal.h"

namespace {

constexpr uint64_t kTerminalMs = 200;
constexpr uint64_t kLogMs = 5000;

uint64_t runningMs() {
    using namespace std::chrono;
    return static_cast<uint64_t>(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

double seconds(uint64_t ms) {
    return static_cast<double>(ms) / 1000;
}

double megabytes(uint64_t bytes) {
    return static_cast<double>(bytes) / 1e6;
}

uint64_t bytesOf(const RecordingReport& report) {
    uint64_t bytes = 0;
    for (const RecordedStream& stream : report.streams) bytes += stream.placement.dataBytes;
    return bytes;
}

uint32_t picturesOf(const RecordingReport& report) {
    uint32_t pictures = 0;
    for (const RecordedStream& stream : report.streams) pictures += stream.pictures;
    return pictures;
}

} // namespace

void ProgressLine::show(const RecordingProgress& progress) {
    static const bool terminal = isatty(STDERR_FILENO) == 1;
    const uint64_t now = runningMs();
    if (m_lastMs == 0 && !terminal) m_lastMs = now; // a short recording says nothing on the way
    if (now - m_lastMs < (terminal ? kTerminalMs : kLogMs)) return;
    m_lastMs = now;
    if (terminal && !drawsProgress()) return;
    m_shown = terminal;
    char total[32] = "";
    if (progress.totalMs != 0) std::snprintf(total, sizeof total, " of %.1f", seconds(progress.totalMs));
    std::fprintf(stderr, "%srecorded %.1f%s s, %s, %.1f MB%s", terminal ? "\r" : "",
                 seconds(progress.sourceMs), total, counted(progress.pictures, "picture").c_str(),
                 megabytes(progress.bytes), terminal ? "\x1b[K" : "\n");
}

void ProgressLine::end() {
    if (m_shown && drawsProgress()) std::fputc('\n', stderr);
    m_shown = false;
}

void printSummary(const RecordingReport& report, const MediaInfo& info) {
    std::printf("%-7s %-23s   %-23s %9s %11s  %s\n", "stream", "from", "to", "pictures", "bytes", "chunk");
    for (const RecordedStream& stream : report.streams)
        std::printf("%-7u %-23s   %-23s %9u %11u  %u%s\n", static_cast<unsigned>(stream.streamId),
                    clockText(stream.startMs).c_str(), clockText(stream.endMs).c_str(),
                    static_cast<unsigned>(stream.pictures), static_cast<unsigned>(stream.placement.dataBytes),
                    static_cast<unsigned>(stream.placement.chunkId),
                    stream.placement.wrapped ? ", wrapped round its end" : "");
    std::printf("%s, %s of %ux%u at %.4g fps (%s), %.1f MB, %s\n",
                counted(report.streams.size(), "stream").c_str(),
                counted(picturesOf(report), "picture").c_str(), static_cast<unsigned>(info.width),
                static_cast<unsigned>(info.height), info.framesPerSecond, info.copied ? "copied" : "encoded",
                megabytes(bytesOf(report)), counted(report.alarms, "alarm").c_str());
}

void printJson(const RecordingReport& report, const MediaInfo& info) {
    Json json{{"width", info.width},
              {"height", info.height},
              {"framesPerSecond", rounded(info.framesPerSecond, 3)},
              {"copied", info.copied},
              {"encodedBecause", info.notCopied.empty() ? Json() : Json(info.notCopied)},
              {"pictures", picturesOf(report)},
              {"bytes", bytesOf(report)},
              {"alarmCount", report.alarms},
              {"alarmsMissed", report.alarmsMissed},
              {"streams", Json::array()}};
    for (const RecordedStream& stream : report.streams) {
        Json entry{{"streamId", stream.streamId},
                   {"pictures", stream.pictures},
                   {"bytes", stream.placement.dataBytes},
                   {"chunkId", stream.placement.chunkId},
                   {"wrapped", stream.placement.wrapped}};
        putTimes(entry, stream.startMs, stream.endMs);
        json["streams"].push_back(std::move(entry));
    }
    std::fputs(jsonLine(json).c_str(), stdout);
}

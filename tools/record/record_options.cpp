#include "tools/record/record_options.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>

#include "stream/records.h"
#include "tools/common/clock_text.h"
#include "tools/common/command_line.h"

namespace {

constexpr uint64_t kAlarmMs = 3000;
constexpr double kDefaultPatternSeconds = 60;
constexpr uint64_t kMinChunkBytes = 64u << 10;
constexpr uint64_t kMaxChunkBytes = 1u << 30;
constexpr double kMaxSeconds = 1e8; // some years; keeps times within the index's 32 bits

/// Help without CLI11's own words for a range.
template <class Number> CLI::Validator within(Number least, Number most) {
    return CLI::Range(least, most).description("");
}

/// The alarm of an --event; `spanMs` is the recording's length by the clock, 0 when it is not known.
Alarm alarmOf(const std::string& event, uint64_t spanMs) {
    double seconds = 0;
    unsigned trigger = 512;
    char more = 0;
    const int fields = std::sscanf(event.c_str(), "%lf:%u%c", &seconds, &trigger, &more);
    const bool complete = fields == 2 || (fields == 1 && event.find(':') == std::string::npos);
    if (!complete || !(seconds >= 0 && seconds <= kMaxSeconds) || trigger < 512 || trigger > 2047)
        throw Failure(kUsage, "--event " + event +
                                  " is no alarm; give SECONDS or SECONDS:TRIGGER with a "
                                  "trigger from 512 to 2047");
    const uint64_t offsetMs = inMs(seconds);
    if (spanMs != 0 && offsetMs >= spanMs)
        throw Failure(kUsage, "--event " + event + " lies behind the recording's end, " +
                                  std::to_string(spanMs / 1000) + " s by the clock; choose an earlier time");
    return {offsetMs, offsetMs + kAlarmMs, trigger};
}

/// How long a recording is by the clock; 0 = not known yet.
uint64_t spanOf(const Timeline& timeline, uint64_t durationMs) {
    const uint64_t gaps = durationMs == 0 || timeline.splitMs == 0 ? 0 : (durationMs - 1) / timeline.splitMs;
    return durationMs + gaps * timeline.gapMs;
}

uint64_t startOf(const std::string& typed) {
    const std::optional<uint64_t> start = parseClock(typed);
    if (!start)
        throw Failure(kUsage, "--start " + typed +
                                  " is no time from 1970 to 2038-01-19 03:14:07 UTC; write it as "
                                  "\"2024-01-02 03:04:05.250\"");
    return *start;
}

} // namespace

void declare(CLI::App& app, RecordOptions& options) {
    const auto add = [&](const char* name, auto& value, const char* type, const char* help) {
        return app.add_option(name, value, help)->type_name(type);
    };
    auto* pattern = app.add_flag("--test-pattern", options.testPattern,
                                 "Record a moving pattern that shows the recording's clock time");
    add("FILE", options.file, "",
        "Video to record, - for standard input: H.264 that a session can play is copied, all else encoded "
        "anew")
        ->excludes(pattern);
    add("--start", options.start, "TIME",
        "Clock time of the first picture, as \"2024-01-02 03:04:05.250\" (now, or a second behind the newest "
        "recording where that is later)");
    add("--split", options.split, "SECONDS", "Seconds after which a new stream begins (0: never)")
        ->check(within(0.0, kMaxSeconds));
    add("--gap", options.gap, "SECONDS", "Seconds on the clock between two streams")
        ->check(within(0.0, kMaxSeconds));
    add("--duration", options.duration, "SECONDS",
        "Seconds to record (the whole file; 60 of a test pattern; until stopped with --live)")
        ->check(within(0.001, kMaxSeconds));
    add("--event", options.events, "SECONDS[:TRIGGER]",
        "An alarm so long after the start by the clock, gaps included; trigger 512 to 2047 (512); may be "
        "repeated")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->allow_extra_args(false); // else it takes the file's name behind it
    add("--chunk-size", options.chunkBytes, "BYTES", "Bytes of a chunk, 64K to 1G (64M)")
        ->transform(CLI::AsSizeValue(false).description(""))
        ->check(within(kMinChunkBytes, kMaxChunkBytes));
    add("--gop", options.gop, "PICTURES", "Pictures from one I-picture to the next, 1 to 120 (a second's)")
        ->check(within(1u, kMaxGops));
    add("--bitrate", options.bitrateKbit, "KBIT",
        "kbit/s, 16 to 100000, when encoding (by size and frame rate)")
        ->check(within(16, 100000));
    add("--fps", options.fps, "N", "Pictures per second of the test pattern, 0.5 to 120 (30)")
        ->check(within(0.5, 120.0))
        ->needs(pattern);
    add("--size", options.size, "WxH", "Picture size of the test pattern (1280x720)")->needs(pattern);
    app.add_flag("--live", options.live, "Record in real time and publish what is being written");
    app.add_flag("--json", options.json, "Print the summary as JSON");
    app.footer("Exit codes: 0 done, 1 it could not be recorded, 2 wrong usage.");
}

RecorderSettings recorderSettings(const RecordOptions& options) {
    RecorderSettings settings;
    settings.chunkBytes = static_cast<uint32_t>(options.chunkBytes);
    settings.timeline = {options.start.empty() ? 0 : startOf(options.start), inMs(options.split),
                         inMs(options.gap)};
    settings.durationMs = inMs(options.duration);
    if (settings.durationMs == 0 && options.testPattern && !options.live)
        settings.durationMs = inMs(kDefaultPatternSeconds);
    const uint64_t spanMs = spanOf(settings.timeline, settings.durationMs);
    for (const std::string& event : options.events) settings.alarms.push_back(alarmOf(event, spanMs));
    return settings;
}

TestPattern testPattern(const RecordOptions& options) {
    unsigned width = 0;
    unsigned height = 0;
    char more = 0;
    if (std::sscanf(options.size.c_str(), "%5ux%5u%c", &width, &height, &more) != 2 || width < 64 ||
        height < 64 || width > 4096 || height > 4096 || width % 2 != 0 || height % 2 != 0)
        throw Failure(kUsage, "--size " + options.size +
                                  " is no picture size; give WIDTHxHEIGHT, even numbers from 64 to 4096");
    return {width, height, options.fps};
}

uint64_t inMs(double seconds) {
    return static_cast<uint64_t>(std::llround(seconds * 1000));
}

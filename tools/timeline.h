// Wall-clock time over a recording: how it is typed and shown, and how it passes from stream to stream.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

/// "2024-01-02 03:04:05.250" (milliseconds optional) as local time; milliseconds since the epoch. Nothing
/// when it is no such text or lies outside the index's 32 bits of seconds.
std::optional<uint64_t> parseClock(const std::string& text);
/// The same text of a time.
std::string clockText(uint64_t ms);

/// A source's time runs on without a break; the recording's wall clock stands still for nobody either, but
/// the source pauses for the gap between two streams. Streams change at the first I-picture of a segment.
struct Timeline {
    uint64_t startMs = 0; ///< wall clock of the source's time 0
    uint64_t splitMs = 0; ///< source time per stream; 0 = one stream
    uint64_t gapMs = 0;   ///< wall clock between a stream and the next

    uint64_t segment(uint64_t sourceMs) const { return splitMs == 0 ? 0 : sourceMs / splitMs; }
    uint64_t wallMs(uint64_t sourceMs, uint64_t segment) const {
        return startMs + sourceMs + segment * gapMs;
    }
};

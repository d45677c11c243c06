// The judge: what came out against what was recorded. Values in, a verdict out: knows no daemon and no
// session.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tools/recording/recording_reader.h"

using Recording = std::vector<RecordedPicture>;

/// A picture that came out.
struct ShownPicture {
    std::string data;
    uint32_t stamp;                             ///< 90 units a millisecond, wraps at 32 bits
    uint64_t arrivalMs;                         ///< by the clock, since the epoch
    std::optional<size_t> place = std::nullopt; ///< in the recording; none until found, or never recorded
};

/// Finds where `data` was recorded, byte for byte. Should two recorded pictures be the same, the one behind
/// the picture at `before` counts.
std::optional<size_t> findPlace(const Recording& recording, const std::string& data,
                                std::optional<size_t> before);

/// What came out for one request.
struct Came {
    const Recording& recording;
    std::span<const ShownPicture> pictures;
    std::optional<size_t> before; ///< place of the picture that came out before them

    /// As it was recorded; only of one that has a place.
    const RecordedPicture& recorded(size_t n) const { return recording[*pictures[n].place]; }
    /// Whether it follows the one before it, from one stream to the next.
    bool crosses(size_t n) const;
};

struct Verdict {
    std::string remark; ///< what the pictures are
    std::string fault;  ///< what is wrong with them; empty: nothing
};

/// What the pictures should be; what `expected` means stands with each. All of them find fault with a picture
/// that was never recorded.
using Check = Verdict (*)(const Came& came, int64_t expected);

Verdict staysThere(const Came&, int64_t);        ///< none
Verdict sessionIsOver(const Came&, int64_t);     ///< none
Verdict isAt(const Came&, int64_t timeMs);       ///< the I-picture of that time
Verdict isFirstOf(const Came&, int64_t stream);  ///< the stream's first one
Verdict isNewestOf(const Came&, int64_t stream); ///< an I-picture recorded a moment ago
Verdict isNext(const Came&, int64_t);            ///< the one behind the one before
Verdict isIPictureBefore(const Came&, int64_t);  ///< the I-picture next before the one before
Verdict crossesABorder(const Came&, int64_t);    ///< one after the other, over the end of a stream
Verdict followsClosely(const Came&, int64_t);    ///< one after the other, the last recorded a moment ago
Verdict playsAtHalfSpeed(const Came&, int64_t);  ///< one after the other, stamps twice as far apart
Verdict skips(const Came&, int64_t stepMs);      ///< I-pictures so far apart, below 0 for backward

/// Where the longest stretch begins that was played without a jump, and behind its end.
std::span<const ShownPicture> longestPlay(std::span<const ShownPicture> shown);

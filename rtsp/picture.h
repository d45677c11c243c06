// A picture on its way from the output memory to the client.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

inline constexpr int64_t kSkipMs = 333; ///< between two pictures of fast and reverse play

/// Times of the recording are in milliseconds since the epoch, UTC; those of this moment in microseconds of a
/// clock that never goes back.
struct Picture {
    std::shared_ptr<const std::vector<char>> bytes; ///< Annex B
    std::optional<uint32_t> stamp; ///< the daemon's, 90 units per millisecond; none straight from the card
    bool iPicture = false;
    std::optional<int64_t> time; ///< when it was recorded; none when it was not found in the recording
    std::optional<int64_t> next; ///< the time of the picture recorded next
    bool gapBefore = false;      ///< nothing was recorded between the picture before it and this one
    bool gapAfter = false;
};

/// Where in the recording to look for a picture.
struct Expected {
    enum class How {
        next,     ///< the one after the picture found last
        onward,   ///< an I-picture behind it
        backward, ///< an I-picture before it
        around,   ///< an I-picture near a time
    } how = How::next;
    int64_t around = 0;
};

/// How a picture stands among those sent, as the replay extension tells it.
struct Standing {
    bool discontinuity = false; ///< the first one after a jump, a gap or pictures left out
    bool endOfSection = false;  ///< the last one before a gap or the end of the recording
    bool terminal = false;      ///< no other follows
    uint8_t cseq = 0;           ///< of the PLAY that it answers, its low byte
};

// A recording as SDP. Pure.
#pragma once

#include <string>

#include "rtsp/play_headers.h"

/// What a path of the server makes of the recording.
struct View {
    RangeUnit unit;
    bool live = false; ///< begins at the newest picture, and has no end
};

/// `address`: the one that the client has reached; `now` makes the session's number.
std::string sessionDescription(const Description& description, const View& view, const std::string& address,
                               uint64_t now);

/// The part of a URI that names the one stream.
inline constexpr char kTrack[] = "track1";

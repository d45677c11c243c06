// A recording as SDP. Pure.
#pragma once

#include <string>

#include "rtsp/play_headers.h"

/// `address`: the one that the client has reached; `now` makes the session's number.
std::string sessionDescription(const Description& description, RangeUnit unit, const std::string& address,
                               uint64_t now);

/// The part of a URI that names the one stream.
inline constexpr char kTrack[] = "track1";

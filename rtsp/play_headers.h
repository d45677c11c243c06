// The headers of PLAY as a request to play, and times as its reply writes them. Pure.
#pragma once

#include <string>

#include "rtsp/playback.h"
#include "rtsp/request_parser.h"

enum class RangeUnit { npt, clock };

/// Reads Range, Scale, Frames, Rate-Control and Require into `play`; `unit` stays unless a Range names one.
/// npt counts from `zero`. The status to reply with: 200, or what is wrong.
int readPlay(const RtspRequest& request, int64_t zero, PlayRequest& play, RangeUnit& unit);

/// A time of the recording in that unit, without its name: 12.345, or 20240102T030405.250Z.
std::string timeText(RangeUnit unit, int64_t time, int64_t zero);
/// The value of a Range header; an end that is not known is left open.
std::string rangeText(RangeUnit unit, std::optional<int64_t> from, std::optional<int64_t> until,
                      int64_t zero);

// What the stream access object stands on, and the kinds and modes its operations take.
#pragma once

#include <cstdint>
#include <memory>

#include "stream/records.h"
#include "stream/stream_read.h"

/// Direction kinds of `move`; everything but forward and backward is refused, whatever its number.
inline constexpr unsigned char PBST_FORWARD = 0;
inline constexpr unsigned char PBST_BACKWARD = 1;

/// Search modes of `move`. `getTime` is passed its direction's, too, and does not read it.
inline constexpr unsigned char kSearchNone = 0;
inline constexpr unsigned char kSearchForward = 1;
inline constexpr unsigned char kSearchBackward = 2;

/// Kinds of `getSkip`.
inline constexpr unsigned char kSkipLatest = 0;
inline constexpr unsigned char kSkipOldest = 1;
inline constexpr unsigned char kSkipEvent = 3;

/// The one stream being played. After a successful open both readers are open on the stream of `db`, `stH`
/// is record 0 of its header area and `picH` record `offset` + 1.
struct PB_VIDEO {
    DB_STREAM db{};                       ///< streamID 0 = no stream
    std::unique_ptr<CStreamRead> readSt;  ///< picture-data area
    std::unique_ptr<CStreamRead> readPic; ///< header area
    uint32_t offset = 0;                  ///< current picture, 0-based
    STREAM_HEADER stH{};
    PICTURE_HEADER picH{};
};

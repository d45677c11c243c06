// The records of the index and of the card. A leaf: anyone may include it. All are plain values; the two
// on-card headers and the chunk locator have fixed little-endian layouts.
//
// A stream occupies two areas of one chunk: the header area, an array of 32-byte records (record 0 the
// STREAM_HEADER, record n + 1 the PICTURE_HEADER of picture n), and the picture-data area. The chunk is a
// ring: a byte position may lie before its area's start. docs/on-card-formats.md has worked examples.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

/// One row of table STREAM; one column per field, found by name.
struct DB_STREAM {
    uint32_t streamID;    ///< 0 = no stream, throughout the system
    uint16_t inTrg;       ///< trigger bits of the recording
    uint16_t frameSet;    ///< low 4 bits: frame-rate code, 1..9
    uint32_t bitrateSet;  ///< bit-rate setting
    uint32_t recSize;     ///< recorded size; 0 = nothing recorded
    uint32_t chunkID;     ///< only the low 16 bits reach the chunk library
    uint32_t chunkOffset; ///< chunk byte position of the header area
    uint32_t chunkSize;   ///< bytes of the header area; may be 0 while being recorded
    uint32_t status;      ///< DB_STATUS_RECORDING or closed
    uint32_t startDate;   ///< seconds since the epoch
    uint32_t endDate;     ///< seconds since the epoch
    uint16_t startMSec;
    uint16_t endMSec;
    uint32_t backOffset; ///< carried and shown, not interpreted
};

inline constexpr uint32_t DB_STATUS_RECORDING = 1;

/// One row of table EVENT, a recorded alarm.
struct DB_EVENT {
    uint32_t eventID;
    uint32_t startDate; ///< seconds since the epoch
    uint16_t startMSec;
    uint32_t endDate; ///< 0 = not ended yet
    uint16_t endMSec;
    uint32_t extTrg; ///< external trigger bits
};

/// Locator of one area of a chunk, passed to the chunk library.
struct CHUNK_EVENT {
    uint16_t chunkID;
    uint16_t kind;   ///< always CHUNK_KIND_STREAM
    uint32_t offset; ///< chunk byte position of the area
    uint32_t size;   ///< bytes; 0 = not known yet, the area is still growing
};
static_assert(sizeof(CHUNK_EVENT) == 12);
static_assert(offsetof(CHUNK_EVENT, kind) == 2 && offsetof(CHUNK_EVENT, offset) == 4 &&
              offsetof(CHUNK_EVENT, size) == 8);

inline constexpr uint16_t CHUNK_KIND_STREAM = 0x0033;

inline constexpr uint32_t kHeaderBytes = 32;
inline constexpr uint32_t kStreamMarker = 0xFFFFFFFF;
inline constexpr uint32_t kPictureMarker = 0xFFFFFFFE;
inline constexpr uint32_t kMinPictureBytes = 5;
inline constexpr uint32_t kMaxPictureBytes = 819200;
/// Longest GOP that a stream header can name; a larger figure is replaced.
inline constexpr uint32_t kMaxGops = 120;

/// Record 0 of a header area.
struct STREAM_HEADER {
    uint32_t marker;   ///< kStreamMarker
    uint32_t id;       ///< the recorder's; a change tells the engine that a new stream has begun
    uint32_t offset;   ///< chunk byte position of the picture-data area
    uint32_t size;     ///< bytes of the picture-data area
    uint32_t pts;      ///< not used on playback
    uint32_t pictures; ///< number of pictures
    uint32_t gops;     ///< GOP figure; outside 1..kMaxGops it is taken as 5
    uint16_t reserved;
    uint16_t cs; ///< headerChecksum of bytes 0..29
};
static_assert(sizeof(STREAM_HEADER) == kHeaderBytes);
static_assert(offsetof(STREAM_HEADER, id) == 4 && offsetof(STREAM_HEADER, offset) == 8 &&
              offsetof(STREAM_HEADER, size) == 12 && offsetof(STREAM_HEADER, pts) == 16 &&
              offsetof(STREAM_HEADER, pictures) == 20 && offsetof(STREAM_HEADER, gops) == 24 &&
              offsetof(STREAM_HEADER, cs) == 30);

/// Record n + 1 of a header area.
struct PICTURE_HEADER {
    uint32_t marker;   ///< kPictureMarker
    uint32_t id;       ///< the recorder's, not checked
    uint32_t offset;   ///< chunk byte position of the picture's data
    uint32_t size;     ///< bytes; read only within kMinPictureBytes..kMaxPictureBytes
    uint32_t pts;      ///< seconds on the recorder's running scale; only differences count
    uint32_t pictures; ///< flags; low 2 bits: 1 or 2 = I-picture
    uint32_t reserved;
    uint16_t msec; ///< milliseconds of the time stamp
    uint16_t cs;   ///< headerChecksum of bytes 0..29
};
static_assert(sizeof(PICTURE_HEADER) == kHeaderBytes);
static_assert(offsetof(PICTURE_HEADER, id) == 4 && offsetof(PICTURE_HEADER, offset) == 8 &&
              offsetof(PICTURE_HEADER, size) == 12 && offsetof(PICTURE_HEADER, pts) == 16 &&
              offsetof(PICTURE_HEADER, pictures) == 20 && offsetof(PICTURE_HEADER, msec) == 28 &&
              offsetof(PICTURE_HEADER, cs) == 30);

/// Decoding can start at an I-picture.
constexpr bool isIPicture(const PICTURE_HEADER& header) {
    const uint32_t type = header.pictures & 3;
    return type == 1 || type == 2;
}

/// The sixteen 16-bit words of a header, as the checksum adds and the log shows them.
struct HeaderWords {
    uint16_t word[kHeaderBytes / 2];
};

template <class Header> HeaderWords headerWords(const Header& header) {
    static_assert(sizeof(Header) == kHeaderBytes);
    HeaderWords words;
    std::memcpy(&words, &header, sizeof words);
    return words;
}

/// Sum, modulo 65536, of the first fifteen words (the marker included, `cs` not).
template <class Header> uint16_t headerChecksum(const Header& header) {
    const HeaderWords words = headerWords(header);
    uint32_t sum = 0;
    for (int i = 0; i < 15; ++i) sum += words.word[i];
    return static_cast<uint16_t>(sum);
}

/// One row of the frame-rate tables.
struct FrameRateRow {
    uint32_t tenthsPerSecond; ///< frames per second times 10
    uint32_t defaultInterval; ///< picture interval that time positioning falls back to, used as it stands
};

inline constexpr FrameRateRow kFrameRates[] = {
    {300, 3336}, {250, 4004}, {150, 6673}, {100, 10010}, {75, 14300},
    {50, 20020}, {30, 33366}, {20, 50050}, {10, 100100},
};

/// The row of a frame-rate setting's code; null for a code outside 1..9.
constexpr const FrameRateRow* frameRateRow(uint16_t frameSet) {
    const unsigned code = frameSet & 0x0Fu;
    return code >= 1 && code <= 9 ? &kFrameRates[code - 1] : nullptr;
}

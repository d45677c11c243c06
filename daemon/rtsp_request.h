// The request record of the control channel. A leaf: anyone may include it. Integers are the machine's own
// (little-endian on the target); both ends run on the same host. docs/control-channel.md has the whole
// contract.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

inline constexpr int32_t RTSP_REQ_OPEN = 1;
inline constexpr int32_t RTSP_REQ_SESSION = 3;
inline constexpr int32_t RTSP_REQ_PLAY = 4;
inline constexpr int32_t RTSP_REQ_PAUSE = 5;
inline constexpr int32_t RTSP_REQ_TEARDOWN = 6;
inline constexpr int32_t RTSP_REQ_STATUS = 7;
inline constexpr int32_t RTSP_REQ_FFTIME = 8;

/// Bytes of the answers: parameter sets (at most, and exactly for a failure) and status.
inline constexpr int kParameterSetAnswerBytes = 96;
inline constexpr int kStatusAnswerBytes = 64;

/// One header line, already split. A field without a NUL ends at its last byte.
struct RTSP_HEADER {
    char name[64];
    char value[256];
};

struct rtsp_request {
    int32_t type;
    uint8_t unused[564]; ///< zero in every record the daemon writes
    int32_t headerNum;   ///< used entries; outside 0..64 it is taken as the nearer bound
    RTSP_HEADER header[64];
};
static_assert(sizeof(RTSP_HEADER) == 320);
static_assert(sizeof(rtsp_request) == 21052);
static_assert(offsetof(rtsp_request, headerNum) == 568);
static_assert(offsetof(rtsp_request, header) == 572);

/// The text of a fixed-size field: up to its NUL, or all of it.
template <size_t N> std::string_view fieldText(const char (&field)[N]) {
    return {field, strnlen(field, N)};
}

/// The entries in use, never more than there are.
inline int headerCount(const rtsp_request& request) {
    constexpr int kEntries = sizeof request.header / sizeof request.header[0];
    return request.headerNum < 0 ? 0 : request.headerNum > kEntries ? kEntries : request.headerNum;
}

/// Names are compared as case-sensitive prefixes: Session-X is a "Session".
inline bool isNamed(const RTSP_HEADER& header, std::string_view name) {
    return fieldText(header.name).starts_with(name);
}

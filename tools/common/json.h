// JSON as every tool prints it: one line, members in the order in which they were put in. One set of names
// for all of them: camelCase, a unit at the end where there is one (startMs), and of one thing everywhere the
// same: streamId, chunkId, alarmId, pictures, bytes, missedBlocks, framesPerSecond.
//
// For .cpp files only: the library's header is a large one.
#pragma once

#include <cmath>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "tools/common/clock_text.h"

using Json = nlohmann::ordered_json;

/// Puts in when something began and ended, as text and in milliseconds since the epoch; null while it goes
/// on.
inline void putTimes(Json& json, uint64_t startMs, std::optional<uint64_t> endMs) {
    json["start"] = clockText(startMs);
    json["startMs"] = startMs;
    json["end"] = endMs ? Json(clockText(*endMs)) : Json();
    json["endMs"] = endMs ? Json(*endMs) : Json();
}

/// The number with so many decimals at most.
inline double rounded(double value, int decimals) {
    const double scale = std::pow(10, decimals);
    return std::round(value * scale) / scale;
}

/// The line, its newline included. Text that is no UTF-8 is mended rather than refused.
inline std::string jsonLine(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n';
}

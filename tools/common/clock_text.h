// Wall-clock time as a person types and reads it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

/// "2024-01-02 03:04:05.250" (milliseconds optional) as local time; milliseconds since the epoch. Nothing
/// when it is no such text or lies beyond 2038-01-19 03:14:07 UTC, where the daemon's clock ends.
std::optional<uint64_t> parseClock(const std::string& text);
/// The same text of a time.
std::string clockText(uint64_t ms);

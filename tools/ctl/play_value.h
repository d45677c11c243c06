// What a person types as the target of a play request, turned into what the daemon reads.
#pragma once

#include <optional>
#include <string>

/// The value of a "Range" header: "clock=20240102T030405Z" as it is, "2024-01-02 03:04:05" (with or without
/// "clock=") converted. Nothing when the text is no time.
std::optional<std::string> rangeValue(const std::string& text);

/// The value of a "Jump" header: the same, or one of the words the daemon knows.
std::optional<std::string> jumpValue(const std::string& text);

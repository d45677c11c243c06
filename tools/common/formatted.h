// For the short lines that tools print: printf into a string, its format checked by the compiler, and counts.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>

__attribute__((format(printf, 1, 2))) inline std::string formatted(const char* format, ...) {
    va_list values, again;
    va_start(values, format);
    va_copy(again, values);
    std::string line(static_cast<size_t>(std::vsnprintf(nullptr, 0, format, values)), '\0');
    std::vsnprintf(line.data(), line.size() + 1, format, again);
    va_end(again);
    va_end(values);
    return line;
}

/// "1 stream", "2 streams".
inline std::string counted(unsigned long count, const char* thing) {
    return formatted("%lu %s%s", count, thing, count == 1 ? "" : "s");
}

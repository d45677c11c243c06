// For the short lines that tools print: printf into a string, its format checked by the compiler, and counts.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>

__attribute__((format(printf, 1, 2))) inline std::string formatted(const char* format, ...) {
    char line[512];
    va_list values;
    va_start(values, format);
    std::vsnprintf(line, sizeof line, format, values);
    va_end(values);
    return line;
}

/// "1 stream", "2 streams".
inline std::string counted(unsigned long count, const char* thing) {
    return formatted("%lu %s%s", count, thing, count == 1 ? "" : "s");
}

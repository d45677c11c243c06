// printf into a string, its format checked by the compiler. For the short lines that tools print.
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

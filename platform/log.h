// Diagnostics go to syslog, which is never opened explicitly: default identity, user facility. Priorities
// in use: LOG_ERR (3) for errors, LOG_WARNING (4) for a few warnings, LOG_INFO (6) for progress and dumps.
//
// Macros, so that the compiler checks each format against its arguments and the prefix costs no second
// formatting. "%m" stands for the text of errno, as syslog expands it: an extension of POSIX to C's formats,
// hence __extension__, which -Wpedantic wants.
#pragma once

#include <cstdint>
#include <syslog.h>

/// The message behind the name of the reporting function and a source line.
#define logAt(priority, format, ...) logNamed(priority, __func__, format __VA_OPT__(, ) __VA_ARGS__)

/// The same, reporting under a fixed name instead of the enclosing function's.
#define logNamed(priority, name, format, ...)                                                                \
    __extension__ syslog((priority), "%s(%d) " format, (name), __LINE__ __VA_OPT__(, ) __VA_ARGS__)

/// The message as it is.
#define logPlain(priority, ...) syslog((priority), __VA_ARGS__)

/// A 32-bit word for a "%lu" or "%ld" conversion, on 32-bit and 64-bit machines alike.
constexpr unsigned long asLu(uint32_t value) {
    return value;
}
constexpr long asLd(int32_t value) {
    return value;
}
constexpr long asLd(uint32_t value) {
    return static_cast<int32_t>(value);
}

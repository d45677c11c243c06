// PB_STREAM_TIME: a clock time or a time span. A leaf: anyone may include it.
#pragma once

#include <cstdint>

/// Whole seconds plus milliseconds. {0, 0} also says that no time was found. Seconds are compared as
/// unsigned 32-bit numbers and wrap at 32 bits on purpose; milliseconds are 0..999 in normalised values.
struct PB_STREAM_TIME {
    int32_t sec = 0;
    uint16_t mSec = 0;

    PB_STREAM_TIME() = default;
    PB_STREAM_TIME(uint32_t seconds, uint32_t milliseconds)
        : sec(static_cast<int32_t>(seconds)), mSec(static_cast<uint16_t>(milliseconds)) {}

    /// The seconds as they are compared and printed.
    uint32_t seconds() const { return static_cast<uint32_t>(sec); }

    /// No time was found: operations say so by seconds of 0, whatever the milliseconds.
    bool isNone() const { return sec == 0; }

    PB_STREAM_TIME operator+(PB_STREAM_TIME b) const;
    /// Saturates at {0, 0}.
    PB_STREAM_TIME operator-(PB_STREAM_TIME b) const;
    PB_STREAM_TIME operator*(unsigned long n) const;
    /// Division by 0 gives {0, 0}.
    PB_STREAM_TIME operator/(unsigned long n) const;

    bool operator<(PB_STREAM_TIME b) const;
    bool operator>(PB_STREAM_TIME b) const;
    bool operator==(PB_STREAM_TIME b) const;
    bool operator!=(PB_STREAM_TIME b) const;
};

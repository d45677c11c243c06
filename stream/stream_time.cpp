#include "stream/stream_time.h"

PB_STREAM_TIME PB_STREAM_TIME::operator+(PB_STREAM_TIME b) const {
    const uint32_t ms = uint32_t{mSec} + b.mSec;
    // One carry only: values from damaged rows may hold more than 999 ms and are not put in order here.
    if (ms > 999) return {seconds() + b.seconds() + 1, ms - 1000};
    return {seconds() + b.seconds(), ms};
}

PB_STREAM_TIME PB_STREAM_TIME::operator-(PB_STREAM_TIME b) const {
    if (*this < b) return {};
    if (mSec < b.mSec) return {seconds() - b.seconds() - 1, uint32_t{mSec} + 1000 - b.mSec};
    return {seconds() - b.seconds(), uint32_t{mSec} - b.mSec};
}

PB_STREAM_TIME PB_STREAM_TIME::operator*(unsigned long n) const {
    const auto factor = static_cast<uint32_t>(n);
    const uint32_t ms = factor * mSec;
    return {factor * seconds() + ms / 1000, ms % 1000};
}

PB_STREAM_TIME PB_STREAM_TIME::operator/(unsigned long n) const {
    const auto divisor = static_cast<uint32_t>(n);
    if (divisor == 0) return {};
    return {seconds() / divisor, (mSec + seconds() % divisor * 1000) / divisor};
}

bool PB_STREAM_TIME::operator<(PB_STREAM_TIME b) const {
    return seconds() < b.seconds() || (seconds() == b.seconds() && mSec < b.mSec);
}

bool PB_STREAM_TIME::operator>(PB_STREAM_TIME b) const {
    return b < *this;
}

bool PB_STREAM_TIME::operator==(PB_STREAM_TIME b) const {
    return sec == b.sec && mSec == b.mSec;
}

bool PB_STREAM_TIME::operator!=(PB_STREAM_TIME b) const {
    return !(*this == b);
}

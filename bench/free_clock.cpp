// The clock of the benchmarks: a pause costs nothing and moves the time on by as much.
#include <atomic>
#include <cstdint>

#include "platform/clock.h"

namespace {
std::atomic<int64_t> usecNow{1'704'196'800'000'000}; // 2024-01-02 12:00:00 UTC
} // namespace

namespace wallclock {

timeval now() {
    const int64_t usec = usecNow;
    timeval time{};
    time.tv_sec = static_cast<time_t>(usec / 1'000'000);
    time.tv_usec = static_cast<suseconds_t>(usec % 1'000'000);
    return time;
}

void sleepFor(timeval span) {
    usecNow += int64_t{span.tv_sec} * 1'000'000 + span.tv_usec;
}

void sleepWhile(const std::atomic<bool>&, timeval span) {
    sleepFor(span);
}

void wakeSleeper() {}

} // namespace wallclock

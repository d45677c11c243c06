#include "platform/clock.h"

#include <algorithm>
#include <ctime>
#include <semaphore.h>

namespace {

/// Never destroyed: a thread may sleep until the process has gone.
struct Bell {
    Bell() { sem_init(&rung, 0, 0); }
    sem_t rung;
} g_bell;

} // namespace

namespace wallclock {

timeval now() {
    timeval t{};
    gettimeofday(&t, nullptr);
    return t;
}

void sleepFor(timeval span) {
    timespec request{};
    request.tv_sec = span.tv_sec;
    request.tv_nsec = static_cast<decltype(request.tv_nsec)>(span.tv_usec) * 1000;
    nanosleep(&request, nullptr);
}

// A semaphore, since its wait is one system call, as nanosleep is; a condition's is two, and C++'s own
// semaphores look around first.
void sleepWhile(const std::atomic<bool>& wanted, timeval span) {
    constexpr time_t kLongest = 1 << 30; // 34 years: the end fits every clock
    constexpr long kSecond = 1'000'000'000;
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &end);
    end.tv_sec += std::min(span.tv_sec, kLongest);
    end.tv_nsec += static_cast<long>(span.tv_usec) * 1000;
    if (end.tv_nsec >= kSecond) {
        ++end.tv_sec;
        end.tv_nsec -= kSecond;
    }
    // Rung for a sleep that was over, it is waited for again.
    while (wanted && sem_clockwait(&g_bell.rung, CLOCK_MONOTONIC, &end) == 0) {
    }
}

void wakeSleeper() {
    sem_post(&g_bell.rung);
}

} // namespace wallclock

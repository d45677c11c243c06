#include "platform/clock.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <mutex>

namespace {

struct Sleepers {
    std::mutex mutex;
    std::condition_variable woken;
};

/// Never destroyed: a thread may sleep until the process has gone.
Sleepers& sleepers() {
    static Sleepers& instance = *new Sleepers;
    return instance;
}

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

// One system call a sleep, and on the monotonic clock, as sleepFor.
void sleepWhile(const std::atomic<bool>& wanted, timeval span) {
    constexpr time_t kLongest = 1 << 30; // 34 years: the end fits every clock
    const auto length =
        std::chrono::seconds(std::min(span.tv_sec, kLongest)) + std::chrono::microseconds(span.tv_usec);
    std::unique_lock lock(sleepers().mutex);
    sleepers().woken.wait_for(lock, length, [&] { return !wanted; });
}

void wakeSleepers() {
    // Through the lock: whoever saw the flag still set is asleep by now.
    { const std::lock_guard lock(sleepers().mutex); }
    sleepers().woken.notify_all();
}

} // namespace wallclock

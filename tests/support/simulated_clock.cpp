#include "tests/support/simulated_clock.h"

#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <sched.h>

#include "platform/clock.h"

namespace {

constexpr int64_t kUsPerSecond = 1'000'000;

struct SimulatedClock {
    /// A sleep that is soon taken allocates nothing, so that nothing can fail there.
    SimulatedClock() { sleepsUs.reserve(1000); }

    std::mutex mutex;
    std::condition_variable moved;
    int64_t nowUs = 1704196800 * kUsPerSecond; // 2024-01-02 12:00:00 UTC
    std::vector<int64_t> sleepsUs;
    bool held = false;
};

/// Never destroyed: a playback thread may sleep until the process has gone.
SimulatedClock& theClock() {
    static SimulatedClock& instance = *new SimulatedClock;
    return instance;
}

template <class Change> void change(Change toWhat) {
    const std::lock_guard lock(theClock().mutex);
    toWhat(theClock());
    theClock().moved.notify_all();
}

} // namespace

namespace wallclock {

timeval now() {
    const std::lock_guard lock(theClock().mutex);
    const auto [seconds, us] = std::lldiv(theClock().nowUs, kUsPerSecond);
    return {static_cast<time_t>(seconds), static_cast<suseconds_t>(us)};
}

void sleepFor(timeval span) {
    static const std::atomic<bool> always{true};
    sleepWhile(always, span);
}

void sleepWhile(const std::atomic<bool>& wanted, timeval span) {
    SimulatedClock& clock = theClock();
    {
        std::unique_lock lock(clock.mutex);
        clock.sleepsUs.push_back(span.tv_sec * kUsPerSecond + span.tv_usec);
        const int64_t wakeUs = clock.nowUs + clock.sleepsUs.back();
        if (!clock.held) clock.nowUs = wakeUs;
        clock.moved.wait(lock, [&] { return !wanted || !clock.held || clock.nowUs >= wakeUs; });
    }
    sched_yield();
}

void wakeSleeper() {
    change([](SimulatedClock&) {});
}

} // namespace wallclock

namespace test::simulated {

void advanceUs(int64_t us) {
    change([&](SimulatedClock& clock) { clock.nowUs += us; });
}
void hold() {
    change([](SimulatedClock& clock) { clock.held = true; });
}
void resume() {
    change([](SimulatedClock& clock) { clock.held = false; });
}

std::vector<int64_t> takeSleepsUs() {
    const std::lock_guard lock(theClock().mutex);
    const std::vector<int64_t> sleepsUs = theClock().sleepsUs;
    theClock().sleepsUs.clear();
    return sleepsUs;
}

} // namespace test::simulated

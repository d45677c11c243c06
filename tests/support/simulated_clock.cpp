#include "tests/support/simulated_clock.h"

#include <condition_variable>
#include <mutex>
#include <sched.h>

#include "platform/clock.h"

namespace {

constexpr size_t kSleepsKept = 1000;

enum class Mode { runs, held, frozen };

struct SimulatedClock {
    /// Sleeping allocates nothing, so that nothing can fail there.
    SimulatedClock() { sleeps.reserve(kSleepsKept); }

    std::mutex mutex;
    std::condition_variable moved;
    timeval now{1704196800, 0}; // 2024-01-02 12:00:00 UTC
    std::vector<timeval> sleeps;
    Mode mode = Mode::runs;
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

timeval sum(timeval a, timeval b) {
    timeval result{};
    timeradd(&a, &b, &result);
    return result;
}

} // namespace

namespace wallclock {

timeval now() {
    return test::simulated::now();
}

void sleepFor(timeval span) {
    static const std::atomic<bool> always{true};
    sleepWhile(always, span);
}

void sleepWhile(const std::atomic<bool>& wanted, timeval span) {
    SimulatedClock& clock = theClock();
    {
        std::unique_lock lock(clock.mutex);
        if (clock.sleeps.size() == kSleepsKept) clock.sleeps.erase(clock.sleeps.begin());
        clock.sleeps.push_back(span);
        const timeval wake = sum(clock.now, span);
        if (clock.mode == Mode::runs) clock.now = wake;
        clock.moved.wait(
            lock, [&] { return !wanted || clock.mode != Mode::held || !timercmp(&clock.now, &wake, <); });
    }
    sched_yield();
}

void wakeSleeper() {
    change([](SimulatedClock&) {});
}

} // namespace wallclock

namespace test::simulated {

void set(timeval now) {
    change([&](SimulatedClock& clock) { clock.now = now; });
}
void advance(timeval span) {
    change([&](SimulatedClock& clock) { clock.now = sum(clock.now, span); });
}
void advanceMs(long ms) {
    advance({ms / 1000, ms % 1000 * 1000});
}
void hold() {
    change([](SimulatedClock& clock) { clock.mode = Mode::held; });
}
void freeze() {
    change([](SimulatedClock& clock) { clock.mode = Mode::frozen; });
}
void resume() {
    change([](SimulatedClock& clock) { clock.mode = Mode::runs; });
}

timeval now() {
    const std::lock_guard lock(theClock().mutex);
    return theClock().now;
}

std::vector<timeval> takeSleeps() {
    const std::lock_guard lock(theClock().mutex);
    const std::vector<timeval> sleeps = theClock().sleeps;
    theClock().sleeps.clear();
    return sleeps;
}

} // namespace test::simulated

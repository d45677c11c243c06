#include "tests/support/simulated_clock.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <sched.h>

#include "platform/clock.h"

namespace {

constexpr size_t kSleepsKept = 1000;

enum class Mode { runs, held, frozen };

struct SimulatedClock {
    std::mutex mutex;
    timeval now{1704196800, 0}; // 2024-01-02 12:00:00 UTC
    std::deque<timeval> sleeps;
    Mode mode = Mode::runs;
    std::condition_variable moved;
};

/// Never destroyed: a playback thread may sleep until the process has gone.
SimulatedClock& simulatedClock() {
    static SimulatedClock& instance = *new SimulatedClock;
    return instance;
}

void setMode(Mode mode) {
    const std::lock_guard lock(simulatedClock().mutex);
    simulatedClock().mode = mode;
    simulatedClock().moved.notify_all();
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
    SimulatedClock& clock = simulatedClock();
    {
        std::unique_lock lock(clock.mutex);
        clock.sleeps.push_back(span);
        if (clock.sleeps.size() > kSleepsKept) clock.sleeps.pop_front();
        const timeval wake = sum(clock.now, span);
        if (clock.mode == Mode::runs) clock.now = wake;
        clock.moved.wait(lock, [&] { return clock.mode != Mode::held || !timercmp(&clock.now, &wake, <); });
    }
    sched_yield();
}

} // namespace wallclock

namespace test::simulated {

void set(timeval now) {
    const std::lock_guard lock(simulatedClock().mutex);
    simulatedClock().now = now;
    simulatedClock().moved.notify_all();
}

void advance(timeval span) {
    const std::lock_guard lock(simulatedClock().mutex);
    simulatedClock().now = sum(simulatedClock().now, span);
    simulatedClock().moved.notify_all();
}

void advanceMs(long ms) {
    advance({ms / 1000, ms % 1000 * 1000});
}

timeval now() {
    const std::lock_guard lock(simulatedClock().mutex);
    return simulatedClock().now;
}

void hold() {
    setMode(Mode::held);
}

void freeze() {
    setMode(Mode::frozen);
}

void resume() {
    setMode(Mode::runs);
}

std::vector<timeval> takeSleeps() {
    const std::lock_guard lock(simulatedClock().mutex);
    std::deque<timeval>& sleeps = simulatedClock().sleeps;
    std::vector<timeval> taken(sleeps.begin(), sleeps.end());
    sleeps.clear();
    return taken;
}

} // namespace test::simulated

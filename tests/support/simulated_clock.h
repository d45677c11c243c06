// Stands in for platform/clock.h in the programs that link simulated_clock.cpp.
#pragma once

#include <sys/time.h>
#include <vector>

namespace test {

/// Time as the test says. Sleeping moves it on and returns at once (yielding to other threads), so that a
/// playback thread runs as fast as it can and simulated minutes pass in moments.
namespace simulated {
void set(timeval now);
void advance(timeval span);
void advanceMs(long ms);
timeval now();
/// While the clock is held or frozen, only the test moves it. A sleeper waits for its time to come when it is
/// held, and returns at once when it is frozen.
void hold();
void freeze();
void resume();
/// Spans slept since the last call, oldest first, at most the newest 1000; any thread.
std::vector<timeval> takeSleeps();
} // namespace simulated

} // namespace test

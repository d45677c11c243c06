// Stands in for platform/clock.h in the programs that link simulated_clock.cpp.
#pragma once

#include <cstdint>
#include <vector>

namespace test {

/// Time as the test says. Sleeping moves it on and returns at once (yielding to other threads), so that a
/// playback thread runs as fast as it can and simulated minutes pass in moments.
namespace simulated {
void advanceUs(int64_t us);
/// While the clock is held, only the test moves it, and a sleeper waits for its time to come.
void hold();
void resume();
/// What was slept since the last call, in microseconds, oldest first; any thread.
std::vector<int64_t> takeSleepsUs();
} // namespace simulated

} // namespace test

// The daemon's only view of time: the wall clock and sleeping. Tests link a simulated clock in its place.
// Differences of timevals are taken with timersub, which borrows as the pacing rules expect.
#pragma once

#include <atomic>
#include <sys/time.h>

namespace wallclock {

/// Seconds and microseconds since the epoch.
timeval now();

/// Suspends the calling thread for `span` (tv_usec 0..999999). Returns early when a signal is handled on
/// the calling thread; nobody relies on the full span.
void sleepFor(timeval span);

/// As sleepFor, but no longer than `wanted` holds: whoever clears it calls wakeSleeper behind that. For one
/// thread at a time.
void sleepWhile(const std::atomic<bool>& wanted, timeval span);

/// Has sleepWhile look at its flag; any thread.
void wakeSleeper();

} // namespace wallclock

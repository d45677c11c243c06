// Which signals the process accepts, and what they mean to the request loop.
#pragma once

#include <atomic>

inline constexpr int kLoopNotBegun = 0;
inline constexpr int kLoopRun = 1;
inline constexpr int kLoopStop = -1;

/// kLoopRun while the request loop shall run. The start-up turns kLoopNotBegun into kLoopRun; a stop signal
/// writes kLoopStop, also during start-up, and it is never taken back.
extern std::atomic<int> g_loopFlag;

/// 1 = the card is being formatted: SIGUSR1 sets it, SIGUSR2 and the loop that has acted on it clear it. Of
/// two that are pending at once, SIGUSR2 is handled first, so that the session ends: that errs on the safe
/// side.
extern std::atomic<int> g_formatFlag;

static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free,
              "the handler may touch the flags");

/// Blocks every signal but the seven in use, ignores SIGPIPE and installs sigcatch. Before any other thread
/// exists, which then inherits the mask. 0, or -1 after the first failing step.
int setSignal();

/// The handler; any thread. Async-signal-safe: it writes flags and counters, shuts sockets down on a stop,
/// and logs nothing.
void sigcatch(int signal);

/// The socket that a stop signal shuts down, so that the wait for a client, and every later one, ends at once
/// and the accept fails (one that still finds a client in the queue serves it first): a stop is noticed
/// whichever thread handles it and wherever the loop stands. -1 = none.
void setStopSocket(int listeningSocket);

/// The connection that a request is being read from, -1 = none. A stop, also one that was caught before this
/// call, ends the reading as if the client had closed; what the client has sent by then can still be read.
void setReadingFrom(int connection);

/// A descriptor that is readable while a caught signal's message is due; -1 when it could not be had.
int caughtSignalEvent();

/// Writes the message of every signal caught since the last call. Main thread.
void logCaughtSignals();

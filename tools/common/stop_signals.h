// How a tool that works for a while is ended: a first signal asks it to, a second one ends it at once.
#pragma once

#include <atomic>
#include <csignal>
#include <initializer_list>

/// A signal has asked the program to end. Set in a handler.
inline std::atomic<bool> g_stop{false};
static_assert(std::atomic<bool>::is_always_lock_free);

/// From here on these signals set g_stop, and a reader that goes away is an error of the write, no signal.
inline void stopOnSignals(std::initializer_list<int> numbers) {
    struct sigaction action {};
    action.sa_handler = [](int) { g_stop = true; };
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int number : numbers) sigaction(number, &action, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

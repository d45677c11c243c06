// Turns in the loop that serves clients: all that belongs to it runs in one. The loop's own thread has one
// except while it waits; a thread of ours that brings something takes its own, as handing it over would wake
// another thread for each picture.
#pragma once

#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <gio/gio.h>
#include <mutex>

class LoopTurn {
public:
    LoopTurn() { begin(); }
    ~LoopTurn() { end(); }
    LoopTurn(const LoopTurn&) = delete;
    LoopTurn& operator=(const LoopTurn&) = delete;

    /// To be called in a turn; runs until the loop is told to quit.
    static void run(GMainLoop* loop) {
        g_main_context_set_poll_func(g_main_loop_get_context(loop), wait);
        g_main_loop_run(loop);
    }

private:
    /// In the order of asking: a mutex alone would let a loop that clients keep busy take it again at once.
    static void begin() {
        std::unique_lock lock(s_mutex);
        const uint64_t mine = s_asked++;
        s_ending.wait(lock, [mine] { return s_ended == mine; });
    }
    static void end() {
        {
            const std::lock_guard lock(s_mutex);
            ++s_ended;
        }
        s_ending.notify_all();
    }
    static gint wait(GPollFD* events, guint count, gint ms) {
        end();
        const gint ready = g_poll(events, count, ms);
        const int error = errno; // GLib looks at it
        begin();
        errno = error;
        return ready;
    }

    static inline std::mutex s_mutex;
    static inline std::condition_variable s_ending;
    static inline uint64_t s_asked = 0, s_ended = 0; ///< turns
};

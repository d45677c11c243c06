// Turns in the loop that serves clients: all that belongs to it runs in one. The loop's own thread has one
// except while it waits; a thread of ours that brings something takes its own, as handing it over would wake
// another thread for each picture.
#pragma once

#include <gio/gio.h>
#include <mutex>

class LoopTurn {
public:
    LoopTurn() : m_lock(mutex()) {}

    /// To be called in a turn; runs until the loop is told to quit.
    static void run(GMainLoop* loop) {
        g_main_context_set_poll_func(g_main_loop_get_context(loop), wait);
        g_main_loop_run(loop);
    }

private:
    static std::mutex& mutex() {
        static std::mutex one;
        return one;
    }
    static gint wait(GPollFD* events, guint count, gint ms) {
        mutex().unlock();
        const gint ready = g_poll(events, count, ms);
        mutex().lock();
        return ready;
    }

    const std::lock_guard<std::mutex> m_lock;
};

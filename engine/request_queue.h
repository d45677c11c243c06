// The way of a request from the main thread to the playback thread.
#pragma once

#include <optional>

#include "engine/pb_types.h"
#include "platform/mutex.h"

class RequestQueue {
public:
    void push(const PBDATA& request) EXCLUDES(m_eventMutex) {
        MutexLock lock(m_eventMutex);
        m_eventQueue = request;
    }

    /// Puts the newest request into `request`; false when none has come since. The lock is not held while a
    /// request is acted on, so that none ever waits for a stream search.
    bool takeNewest(PBDATA& request) EXCLUDES(m_eventMutex) {
        MutexLock lock(m_eventMutex);
        if (!m_eventQueue) return false;
        request = *m_eventQueue;
        m_eventQueue.reset();
        return true;
    }

private:
    Mutex m_eventMutex;
    /// Only the newest is ever acted on, so those before it are not kept.
    std::optional<PBDATA> m_eventQueue GUARDED_BY(m_eventMutex);
};

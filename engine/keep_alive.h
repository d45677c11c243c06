// Whether the session is still wanted: what its requests leave behind, and since when none has come. Any
// thread may ask.
#pragma once

#include <cstdint>
#include <sys/time.h>

#include "platform/mutex.h"

class KeepAlive {
public:
    /// A request of session `sessionId` has arrived.
    void renew(unsigned long sessionId) EXCLUDES(m_keepAliveMutex);
    uint32_t sessionId() EXCLUDES(m_keepAliveMutex);
    /// Waits until nobody is inside.
    void drain() EXCLUDES(m_keepAliveMutex);

    /// Counts from `now` on.
    void begin(timeval now) EXCLUDES(m_keepAliveMutex);
    /// Takes note of a request that has arrived since the last look; true when there was none for too long.
    bool lapses(timeval now) EXCLUDES(m_keepAliveMutex);
    /// The lapse has been told: it counts as a request, so that the next one follows a whole period later.
    void told() EXCLUDES(m_keepAliveMutex);

private:
    Mutex m_keepAliveMutex;
    int32_t m_keepAliveFlag GUARDED_BY(m_keepAliveMutex) = 0; ///< 1 = arrived since the last look
    uint32_t m_sessionId GUARDED_BY(m_keepAliveMutex) = 0;    ///< of the request that came last
    timeval m_reference GUARDED_BY(m_keepAliveMutex){};       ///< when the last request was noted
};

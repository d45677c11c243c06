#include "engine/keep_alive.h"

namespace {

/// A session without a request for longer than this has lapsed.
constexpr time_t kKeepAliveSeconds = 60;

} // namespace

void KeepAlive::renew(unsigned long sessionId) {
    MutexLock lock(m_keepAliveMutex);
    m_keepAliveFlag = 1;
    m_sessionId = static_cast<uint32_t>(sessionId);
}

uint32_t KeepAlive::sessionId() {
    MutexLock lock(m_keepAliveMutex);
    return m_sessionId;
}

void KeepAlive::drain() {
    m_keepAliveMutex.drain();
}

void KeepAlive::begin(timeval now) {
    MutexLock lock(m_keepAliveMutex);
    m_reference = now;
    m_keepAliveFlag = 0;
}

bool KeepAlive::lapses(timeval now) {
    MutexLock lock(m_keepAliveMutex);
    if (m_keepAliveFlag == 1) m_reference = now;
    m_keepAliveFlag = 0;
    timeval idle;
    timersub(&now, &m_reference, &idle);
    return idle.tv_sec > kKeepAliveSeconds;
}

void KeepAlive::told() {
    MutexLock lock(m_keepAliveMutex);
    m_keepAliveFlag = 1;
}

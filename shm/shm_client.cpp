#include "shm/shm_client.h"

#include <sys/sem.h>

#include "platform/clock.h"

namespace {

constexpr unsigned long kModeReadWrite = 1;
constexpr char kOpen[] = "@CShmClient::open()";

} // namespace

CShmClient::CShmClient(int key, unsigned long mode) {
    while (!open(key, mode)) wallclock::sleepFor({1, 0});
}

// Both ids are forgotten, so that the base class removes nothing.
CShmClient::~CShmClient() {
    close();
    m_shmId = -1;
    m_semId = -1;
}

void* CShmClient::open(int key, unsigned long mode) {
    m_errno = 0;
    m_key = key;
    m_size = kSegmentBytes;
    const bool segment = m_shmId != -1 || attach(mode == kModeReadWrite ? 0 : SHM_RDONLY);
    if (m_semId == -1) {
        m_semId = semget(m_key, 1, kPermissions);
        if (m_semId == -1) failed(kOpen);
    }
    return segment && m_semId != -1 ? m_addr : nullptr;
}

bool CShmClient::attach(int flags) {
    m_shmId = shmget(m_key, kSegmentBytes, kPermissions);
    if (m_shmId == -1) {
        failed(kOpen);
        return false;
    }
    m_addr = shmat(m_shmId, nullptr, flags);
    if (m_addr != kNoAddress) return true;
    failed(kOpen);
    m_shmId = -1;
    return false;
}

int CShmClient::close() {
    if (m_addr == kNoAddress) return 1;
    const bool detached = shmdt(m_addr) != -1;
    if (!detached) failed("@CShmClient::close()");
    m_addr = kNoAddress;
    m_shmId = -1;
    return detached;
}

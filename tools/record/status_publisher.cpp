#include "tools/record/status_publisher.h"

#include <sys/ipc.h>

#include "platform/clock.h"
#include "platform/paths.h"
#include "shm/shm_client.h"

namespace {

constexpr unsigned long kReadWrite = 1;

} // namespace

StatusPublisher::StatusPublisher(const std::string& keyFile) : m_keyFile(keyFile) {}

StatusPublisher::~StatusPublisher() = default;

/// A fresh client each time: the ids of a segment that has gone are of no use for the one that follows.
bool StatusPublisher::attach() {
    const long now = wallclock::now().tv_sec;
    if (now == m_lastLook) return false;
    m_lastLook = now;
    const key_t key = ftok(m_keyFile.c_str(), kStatusSegmentProject);
    auto client = std::make_unique<CShmClient>();
    if (key == -1 || client->isShm(key) == 0) return false; // asked first: a failed open speaks up
    m_status = static_cast<REC_STATUS*>(client->open(key, kReadWrite));
    if (!m_status) return false;
    m_client = std::move(client);
    return true;
}

void StatusPublisher::publish(uint32_t streamId, uint32_t pictures) {
    if (!m_client && !attach()) return;
    m_client->lockShm();
    m_status->recStreamID = streamId;
    m_status->recPictures = pictures;
    // The daemon removes segment and lock together, so a lock that fails is how its end is noticed.
    if (m_client->unlockShm() == 0) m_client.reset();
}

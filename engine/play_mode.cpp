// Requests and play modes: the newest request is taken once per pass, and the play type changes in one place
// only. Playback thread, but for the getters and the skip time.
#include <algorithm>
#include <optional>

#include "engine/pb_picker_thread.h"
#include "platform/log.h"

namespace {

struct PlayMode {
    PBTYPE type;
    uint32_t speed; ///< tenths
};

/// What a direction and a speed stand for; nothing for a direction there is not.
std::optional<PlayMode> playMode(uint32_t direction, uint32_t speed) {
    if (speed == 0) return PlayMode{PB_PAUSE, 0};
    if (direction != kForward && direction != kBackward) return std::nullopt;
    const bool forward = direction == kForward;
    if (speed == kStepSpeed) return PlayMode{forward ? PB_STEP_FWD : PB_STEP_BACK, kNormalSpeed};
    if (speed < kNormalSpeed) return PlayMode{forward ? PB_SLOW : PB_SLOW_REW, kSlowSpeed};
    if (!forward) return PlayMode{PB_REW, speed};
    return PlayMode{speed == kNormalSpeed ? PB_NORMAL : PB_FF, speed};
}

} // namespace

unsigned long CpbPickerThread::m_changePlayMode(unsigned long newDirection, unsigned long speed) {
    const auto dir = static_cast<uint32_t>(newDirection);
    const auto requested = static_cast<uint32_t>(speed);
    logPlain(LOG_INFO, " dir=%lu speed=%lu", asLu(dir), asLu(requested));
    const std::optional<PlayMode> mode = playMode(dir, requested);
    if (!mode) logAt(LOG_INFO, "invalid path!");
    {
        MutexLock lock(m_modeMutex);
        if (mode) m_pbType = mode->type;
        playSpeed = mode ? mode->speed : requested;
        direction = dir;
        m_pbTypeShown = m_pbType;
        m_pauseModeShown = m_pauseMode;
    }
    logPlain(LOG_INFO, "direction[%lu]\nplaySpeed[%lu.%lu]\nm_pbType[%d]\n", asLu(direction),
             asLu(playSpeed / 10), asLu(playSpeed % 10), m_pbType);
    return playSpeed;
}

void CpbPickerThread::pausePlay() {
    m_changePlayMode(kForward, 0);
}

int CpbPickerThread::m_eventHandler(unsigned long& stepCount) {
    if (!takeRequest()) {
        stepCount = m_curEvent.reqSpeed;
        return 1;
    }
    const int32_t readyBefore = m_pictureReady;
    m_pictureReady = 0;
    // Once play has left the alarm it jumped to, the next alarm search goes by time alone.
    if (m_alarmTime != m_pbStream.getTimePts()) m_pbStream.clearEventID();

    switch (m_curEvent.reqType) {
    case kReqPlay:
        playOrJump(readyBefore);
        logAt(LOG_INFO, "m_pbStreamTime = %lu", asLu(m_pbStreamTime.seconds()));
        break;
    case kReqScaleForward:
        m_changePlayMode(kForward, m_curEvent.reqSpeed);
        break;
    case kReqScaleReverse:
        m_changePlayMode(kBackward, m_curEvent.reqSpeed);
        break;
    case kReqStepForward:
        stepCount = m_curEvent.reqSpeed;
        m_changePlayMode(kForward, kStepSpeed);
        break;
    case kReqStepBackward:
        stepCount = m_curEvent.reqSpeed;
        m_changePlayMode(kBackward, kStepSpeed);
        break;
    case kReqPause:
        m_pictureReady = readyBefore;
        pausePlay();
        break;
    default:
        break;
    }
    return 1;
}

/// The lock is not held while the request is acted on, so that no request ever waits for a stream search.
bool CpbPickerThread::takeRequest() {
    MutexLock lock(m_eventMutex);
    if (m_eventQueue.empty()) return false;
    m_curEvent = m_eventQueue.back();
    while (!m_eventQueue.empty()) m_eventQueue.pop();
    return true;
}

PBTYPE CpbPickerThread::getCurrentPlayMode() {
    MutexLock lock(m_modeMutex);
    return m_pbTypeShown;
}

unsigned char CpbPickerThread::getCurrentPauseMode() {
    MutexLock lock(m_modeMutex);
    return m_pauseModeShown;
}

void CpbPickerThread::setFFSkipTime(unsigned long ms) {
    MutexLock lock(m_modeMutex);
    m_ffSkipTime = static_cast<uint32_t>(std::clamp<unsigned long>(ms, kMinSkipMs, kMaxSkipMs));
}

uint32_t CpbPickerThread::ffSkipTime() {
    MutexLock lock(m_modeMutex);
    return m_ffSkipTime;
}

#include "engine/play_mode.h"

#include <algorithm>

#include "platform/log.h"

std::optional<PlayState> playStateFor(Direction direction, uint32_t speed) {
    if (speed == 0) return PlayState{PB_PAUSE, 0, direction};
    const bool forward = direction == Direction::forward;
    if (!forward && direction != Direction::backward) return std::nullopt;
    if (speed == kStepSpeed) return PlayState{forward ? PB_STEP_FWD : PB_STEP_BACK, kNormalSpeed, direction};
    if (speed < kNormalSpeed) return PlayState{forward ? PB_SLOW : PB_SLOW_REW, kSlowSpeed, direction};
    if (!forward) return PlayState{PB_REW, speed, direction};
    return PlayState{speed == kNormalSpeed ? PB_NORMAL : PB_FF, speed, direction};
}

unsigned long PlayMode::m_changePlayMode(unsigned long direction, unsigned long speed, uint8_t pauseMode) {
    const auto dir = static_cast<uint32_t>(direction);
    const auto way = static_cast<Direction>(std::min(dir, 0xFFu)); // what is none stays none
    const auto requested = static_cast<uint32_t>(speed);
    logPlain(LOG_INFO, " dir=%lu speed=%lu", asLu(dir), asLu(requested));
    const std::optional<PlayState> state = playStateFor(way, requested);
    if (!state) logAt(LOG_INFO, "invalid path!");
    {
        MutexLock lock(m_modeMutex);
        m_state = state.value_or(PlayState{m_state.m_pbType, requested, way});
        m_pbTypeShown = m_state.m_pbType;
        m_pauseModeShown = pauseMode;
    }
    logPlain(LOG_INFO, "direction[%lu]\nplaySpeed[%lu.%lu]\nm_pbType[%d]\n", asLu(number(m_state.direction)),
             asLu(m_state.playSpeed / 10), asLu(m_state.playSpeed % 10), m_state.m_pbType);
    return m_state.playSpeed;
}

PBTYPE PlayMode::getCurrentPlayMode() {
    MutexLock lock(m_modeMutex);
    return m_pbTypeShown;
}

unsigned char PlayMode::getCurrentPauseMode() {
    MutexLock lock(m_modeMutex);
    return m_pauseModeShown;
}

void PlayMode::setFFSkipTime(unsigned long ms) {
    MutexLock lock(m_modeMutex);
    m_ffSkipTime = static_cast<uint32_t>(std::clamp<unsigned long>(ms, kMinSkipMs, kMaxSkipMs));
}

uint32_t PlayMode::ffSkipTime() {
    MutexLock lock(m_modeMutex);
    return m_ffSkipTime;
}

void PlayMode::drain() {
    m_modeMutex.drain();
}

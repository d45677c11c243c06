// What play does: the table of play types, and the state that requests and ends of the recording change.
#pragma once

#include <optional>

#include "engine/pb_types.h"
#include "platform/mutex.h"

struct PlayState {
    PBTYPE m_pbType = PB_PAUSE;
    uint32_t playSpeed = 0; ///< tenths (10 = 1.0x)
    Direction direction = Direction::forward;
};

/// What a direction and a speed in tenths stand for; nothing for a direction there is not.
std::optional<PlayState> playStateFor(Direction direction, uint32_t speed);

/// The playback thread changes it; status queries and the skip time come from the main thread.
class PlayMode {
public:
    // ---- playback thread ----

    PlayState state() const { return m_state; }
    /// The only place where the play type changes; status queries see it with that pause reason from here
    /// on. The new speed.
    unsigned long m_changePlayMode(unsigned long direction, unsigned long speed, uint8_t pauseMode)
        EXCLUDES(m_modeMutex);

    // ---- any thread ----

    PBTYPE getCurrentPlayMode() EXCLUDES(m_modeMutex);
    unsigned char getCurrentPauseMode() EXCLUDES(m_modeMutex);
    /// Milliseconds, taken as the nearest of kMinSkipMs..kMaxSkipMs.
    void setFFSkipTime(unsigned long ms) EXCLUDES(m_modeMutex);
    uint32_t ffSkipTime() EXCLUDES(m_modeMutex);
    /// Waits until nobody is inside.
    void drain() EXCLUDES(m_modeMutex);

private:
    PlayState m_state; ///< playback thread

    Mutex m_modeMutex;
    PBTYPE m_pbTypeShown GUARDED_BY(m_modeMutex) = PB_PAUSE; ///< as status queries see it
    uint8_t m_pauseModeShown GUARDED_BY(m_modeMutex) = kPauseNone;
    uint32_t m_ffSkipTime GUARDED_BY(m_modeMutex) = kMaxSkipMs;
};

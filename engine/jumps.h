// Jumps of a play request. Each leaves play on a picture, with the time it aimed at.
#pragma once

#include "engine/movement.h"

enum class AfterJump {
    none,       ///< no jump was asked for: play goes on from where it stands
    playAfresh, ///< play goes on from the picture found, which goes out first
    pause,
};

class Jumps {
public:
    Jumps(Position& position, Movement& movement) : m_position(position), m_movement(movement) {}

    /// What play has to do there.
    AfterJump jump(const PBDATA& request);
    /// Once play has left the alarm it jumped to, the next alarm search goes by time alone.
    void leaveAlarm();

private:
    AfterJump toClock(const PBDATA& request);
    Direction chooseClockTarget(uint32_t second);
    void toAlarm(Direction direction);
    void settleOnAlarm();
    /// To the time aimed at.
    bool toAim(Direction direction);
    PB_STREAM_TIME landingBackward(PB_STREAM_TIME time);

    Position& m_position;
    Movement& m_movement;
    PB_STREAM_TIME m_alarmTime; ///< playback time the last alarm jump reached
};

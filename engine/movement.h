// Moving to the picture that the play type calls for, once per pass, and the moves that jumps are made of.
#pragma once

#include "engine/play_mode.h"
#include "engine/position.h"

class Movement {
public:
    Movement(Position& position, PlayMode& playMode) : m_position(position), m_playMode(playMode) {}

    /// First positioning: finds the picture that `info` names, so that it goes out first.
    bool toStart(const T_PB_INFO& info);
    /// Moves on as the play type says; false when play has to pause, at an end of the recording.
    /// `stepCount` pictures in a step.
    bool toNext(unsigned long stepCount);
    /// To a picture near that time, searched for in that direction.
    bool toTime(PB_STREAM_TIME time, Direction direction);
    /// To the last or the first picture there is, with that end as the pause reason.
    void toEnd(Direction direction);
    /// The playback time of a skip target, which becomes the one aimed at; none = there is none. `kind` is
    /// one of getSkip's.
    PB_STREAM_TIME aimAt(unsigned char kind, Direction direction = Direction::forward,
                         PB_STREAM_TIME* from = nullptr);

    // 1 = moved, 0 = the recording ends there; m_pauseMode then says which end, if one was met. The play
    // types and the rate that some take are not looked at.

    int m_moveStreamNormal(CPbStreamVideo* video, unsigned long count, PBTYPE prevType);
    int m_moveStreamStep(CPbStreamVideo* video, unsigned char dir, unsigned long count);
    int m_moveStreamTime(CPbStreamVideo* video, unsigned char dir, PB_STREAM_TIME time);

    /// The next playback time of a fast play: `time` moved by the skip time at `speed`.
    PB_STREAM_TIME m_calcSpeedFrameTime(CPbStreamVideo* video, PBTYPE type, PBTYPE prevType,
                                        PB_STREAM_TIME time, unsigned long rate, unsigned long speed,
                                        unsigned char dir);
    static PB_STREAM_TIME m_calcDiffTime(PB_STREAM_TIME time, PB_STREAM_TIME step, unsigned char dir);

private:
    bool playNext();
    bool playFast(Direction direction, uint32_t speed);
    bool playStep(Direction direction, unsigned long count);

    Position& m_position;
    PlayMode& m_playMode;
    uint32_t m_lastStreamID = 0; ///< stream of the last fast-play step
};

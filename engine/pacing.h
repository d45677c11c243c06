// When a picture's turn has come. Play follows the recording's own clock: wall clock and picture clock are
// taken together once, and from then on the wall clock runs ahead of the picture clock by the play speed.
// In fast and reverse play no pause is longer than a second, and a late picture still rests for half a GOP or
// half the skip time. Values only: neither waits nor looks at a clock.
#pragma once

#include <sys/time.h>

#include "engine/play_mode.h"
#include "stream/stream_time.h"

/// What a pause depends on.
struct Moment {
    timeval now;
    PlayState play;
    PB_STREAM_TIME pts; ///< of the picture stood on
    uint32_t streamId;  ///< as the stream header has it
    uint32_t gops;      ///< GOP figure of the stream
    uint32_t frameRate; ///< frames per second times 10; 0 = not known
    uint32_t skipMs;
};

class Pacing {
public:
    struct Pause {
        timeval span;
        bool rebased; ///< the clocks have been taken together afresh
    };
    /// The pause before the next picture.
    Pause pauseAt(const Moment& moment);
    /// The next pause takes the clocks together afresh.
    void resync() { m_resyncPacing = true; }

private:
    Pause paceAgainstBase(const Moment& moment);
    Pause startAfresh(const Moment& moment);
    Pause rebase(timeval span, timeval wallTime, PB_STREAM_TIME pts);

    timeval m_baseWallTime{}; ///< when the picture of m_basePts had its turn
    PB_STREAM_TIME m_basePts;
    bool m_resyncPacing = false;

    // As they were at the previous pause.
    uint32_t m_prevPlaySpeed = 0;
    Direction m_prevDirection = Direction::forward;
    uint32_t m_prevStreamIdPacing = 0;
};

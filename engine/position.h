// Where play stands in the recording. Movement and Jumps move it for play, the search for parameter sets
// before the thread runs; playback thread only, once it does. Asking the stream access object for its records
// follows a stream that is being recorded.
#pragma once

#include "engine/pb_types.h"
#include "stream/pb_stream_video.h"

struct Position {
    explicit Position(CtavirnShmServer* shmServer) : m_pbStream(shmServer) {}

    CPbStreamVideo m_pbStream;
    PB_STREAM_TIME m_pbStreamTime;    ///< playback time, as play or a jump has aimed at it
    uint8_t m_pauseMode = kPauseNone; ///< which end of the recording the last move met
    int32_t m_pictureReady = 0;       ///< 1 = the picture goes out before the next move
    uint32_t m_pbRefresh = 0;         ///< 1 = while paused, the picture goes out once
    uint32_t m_pbRealRate = 0;        ///< frames per second times 10, as last asked for; 0 = not yet
};

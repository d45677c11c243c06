// The plain values of the playback engine.
#pragma once

#include <cstdint>

#include "stream/direction.h"

class CtavirnShmServer;

/// What an engine is created with.
struct T_PB_INFO {
    uint32_t searchMode = 0;               ///< kStartAtStream or kStartAtTime
    uint32_t searchValue = 0;              ///< stream ID, or start time in seconds since the epoch
    uint32_t searchMSec = 0;               ///< milliseconds of the start time
    CtavirnShmServer* shmServer = nullptr; ///< status segment, not owned
    uint32_t spare = 0;
};

inline constexpr uint32_t kStartAtStream = 2;
inline constexpr uint32_t kStartAtTime = 3;

/// The play type; 7 and 8 do not exist.
enum PBTYPE : int32_t {
    PB_NORMAL = 0,    ///< forward at 1.0x
    PB_FF = 1,        ///< forward above 1.0x, by jumping through time
    PB_REW = 2,       ///< backward at 1.0x or faster, by jumping through time
    PB_STEP_FWD = 3,  ///< one step forward, then pause
    PB_STEP_BACK = 4, ///< one step backward, then pause
    PB_SLOW = 5,      ///< slow forward
    PB_SLOW_REW = 6,  ///< slow backward, by jumping through time
    PB_PAUSE = 9,
    PB_INIT = 10, ///< nothing was output yet
};

/// Play types in which a pass gives a block.
constexpr bool isPlayed(PBTYPE type) {
    return (PB_NORMAL <= type && type <= PB_SLOW_REW) || type == PB_PAUSE;
}

constexpr bool isStep(PBTYPE type) {
    return type == PB_STEP_FWD || type == PB_STEP_BACK;
}

/// One queued play or pause request.
struct PBDATA {
    uint32_t reqType = 0;  ///< PbRequest
    uint32_t reqSpeed = 0; ///< tenths (10 = 1.0x) for scales, picture count for steps
    uint32_t reqJump = 0;  ///< PbJump, for kReqPlay
    uint32_t reqTime = 0;  ///< seconds since the epoch, for JUMP_CLOCK and JUMP_RANGE
};
static_assert(sizeof(PBDATA) == 16);

enum PbRequest : uint32_t {
    kReqPlay = 0,
    kReqScaleForward = 1,
    kReqScaleReverse = 2,
    kReqStepForward = 3,
    kReqStepBackward = 4,
    kReqPause = 9,
};

enum PbJump : uint32_t {
    JUMP_NONE = 0,
    JUMP_OLDEST = 1,
    JUMP_LATEST = 2,
    JUMP_CLOCK = 3,
    JUMP_NEXT_ALARM = 4,
    JUMP_PREV_ALARM = 5,
    JUMP_RANGE = 6,
};

/// Pause reasons.
inline constexpr uint8_t kPauseNone = 0;
inline constexpr uint8_t kPauseEnd = 1;   ///< end of the recording reached
inline constexpr uint8_t kPauseStart = 2; ///< start of the recording reached

/// As the published operations take it.
constexpr unsigned char number(Direction direction) {
    return static_cast<unsigned char>(direction);
}

inline constexpr uint32_t kNormalSpeed = 10;  ///< tenths: 1.0x
inline constexpr uint32_t kSlowSpeed = 5;     ///< tenths: every slow play
inline constexpr uint32_t kStepSpeed = 65535; ///< stands for a step

/// Frames per second times 10, in place of a frame rate that the recording does not tell.
inline constexpr uint32_t kAssumedFrameRate = 300;

/// Bounds of the skip time.
inline constexpr uint32_t kMinSkipMs = 333;
inline constexpr uint32_t kMaxSkipMs = 1000;

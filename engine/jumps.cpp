#include "engine/jumps.h"

namespace {

/// The searches a clock jump can end with.
enum class ClockCandidate {
    forward,     ///< forward from the second asked for
    halfLater,   ///< backward from half a second after it
    secondLater, ///< backward from one second after it
};

/// Chooses by how many seconds each search landed away from the second asked for.
ClockCandidate clockCandidate(uint32_t forward, uint32_t halfLater, uint32_t secondLater) {
    if (forward <= halfLater && halfLater <= secondLater) return ClockCandidate::forward;
    if (forward > halfLater && halfLater < secondLater) return ClockCandidate::halfLater;
    return ClockCandidate::secondLater;
}

/// In seconds; the difference is taken as signed 32-bit.
uint32_t secondsApart(PB_STREAM_TIME time, uint32_t second) {
    const uint32_t difference = time.seconds() - second;
    return static_cast<int32_t>(difference) < 0 ? 0u - difference : difference;
}

} // namespace

void Jumps::leaveAlarm() {
    CPbStreamVideo& video = m_position.m_pbStream;
    if (m_alarmTime != video.getTimePts()) video.clearEventID();
}

AfterJump Jumps::jump(const PBDATA& request) {
    switch (request.reqJump) {
    case JUMP_CLOCK:
    case JUMP_RANGE:
        return toClock(request);
    case JUMP_OLDEST:
        m_movement.toEnd(Direction::backward);
        m_position.m_pbRefresh = 1;
        return AfterJump::pause;
    case JUMP_LATEST:
        m_movement.toEnd(Direction::forward);
        return AfterJump::pause;
    case JUMP_PREV_ALARM:
        toAlarm(Direction::backward);
        return AfterJump::pause; // also where the alarm can't be shown
    case JUMP_NEXT_ALARM:
        toAlarm(Direction::forward);
        return AfterJump::pause;
    default:
        return AfterJump::none;
    }
}

AfterJump Jumps::toClock(const PBDATA& request) {
    m_position.m_pbStreamTime = {request.reqTime, 0};
    if (!toAim(Direction::forward)) m_movement.toEnd(Direction::forward);
    const Direction direction = chooseClockTarget(request.reqTime);
    if (!toAim(direction)) {
        m_movement.toEnd(direction);
    } else {
        m_position.m_pbRefresh = 1;
        m_position.m_pauseMode = kPauseNone; // also after a time before every recording
    }
    if (request.reqJump != JUMP_RANGE || m_position.m_pauseMode != kPauseNone) return AfterJump::pause;
    m_position.m_pictureReady = 1;
    return AfterJump::playAfresh;
}

/// Tries the backward searches besides the forward one just made, and aims at the target whose landing lies
/// nearest to the second asked for; the direction to search in.
Direction Jumps::chooseClockTarget(uint32_t second) {
    const PB_STREAM_TIME half{second, 500};
    const PB_STREAM_TIME next{second + 1, 0};
    const PB_STREAM_TIME reached = m_position.m_pbStream.getTimePts();
    const PB_STREAM_TIME beforeHalf = landingBackward(half);
    const PB_STREAM_TIME beforeNext = landingBackward(next);
    switch (clockCandidate(secondsApart(reached, second), secondsApart(beforeHalf, second),
                           secondsApart(beforeNext, second))) {
    case ClockCandidate::forward:
        return Direction::forward;
    case ClockCandidate::halfLater:
        m_position.m_pbStreamTime = half;
        return Direction::backward;
    case ClockCandidate::secondLater:
        break;
    }
    m_position.m_pbStreamTime = next;
    return Direction::backward;
}

void Jumps::toAlarm(Direction direction) {
    PB_STREAM_TIME from = m_position.m_pbStream.getTimePts();
    if (m_movement.aimAt(kSkipEvent, direction, &from).isNone()) {
        m_position.m_pbStreamTime = from;
    } else if (toAim(Direction::forward)) {
        settleOnAlarm();
    }
}

/// Of the I-pictures on either side of the alarm, takes the one nearer to its start.
void Jumps::settleOnAlarm() {
    CPbStreamVideo& video = m_position.m_pbStream;
    const uint32_t alarm = m_position.m_pbStreamTime.seconds();
    const PB_STREAM_TIME after = video.getTimePts();
    toAim(Direction::backward);
    if (secondsApart(video.getTimePts(), alarm) <= secondsApart(after, alarm)) {
        toAim(Direction::backward);
    } else {
        m_position.m_pbStreamTime = after;
        toAim(Direction::forward);
    }
    m_alarmTime = video.getTimePts();
}

bool Jumps::toAim(Direction direction) {
    return m_movement.toTime(m_position.m_pbStreamTime, direction);
}

/// Where a search backward from `time` lands; none when it fails.
PB_STREAM_TIME Jumps::landingBackward(PB_STREAM_TIME time) {
    return m_movement.toTime(time, Direction::backward) ? m_position.m_pbStream.getTimePts()
                                                        : PB_STREAM_TIME{};
}

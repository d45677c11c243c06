// Jumps of a play request. Each leaves the position on a picture, m_pbStreamTime on what it aimed at, and
// the engine paused there, except that plain play and a range inside the recording play on. Playback thread.
#include "engine/jumps.h"

#include "engine/pb_picker_thread.h"
#include "platform/log.h"

uint32_t secondsApart(uint32_t a, uint32_t b) {
    const uint32_t difference = a - b;
    return static_cast<int32_t>(difference) < 0 ? 0u - difference : difference;
}

ClockCandidate clockCandidate(uint32_t forward, uint32_t halfLater, uint32_t secondLater) {
    if (forward <= halfLater && halfLater <= secondLater) return ClockCandidate::forward;
    if (forward > halfLater && halfLater < secondLater) return ClockCandidate::halfLater;
    return ClockCandidate::secondLater;
}

void CpbPickerThread::playOrJump(int32_t readyBefore) {
    switch (m_curEvent.reqJump) {
    case JUMP_CLOCK:
    case JUMP_RANGE:
        jumpToClock();
        break;
    case JUMP_OLDEST:
        jumpToOldest();
        break;
    case JUMP_LATEST:
        jumpToLatest();
        break;
    case JUMP_PREV_ALARM:
        jumpToAlarm(kBackward);
        break;
    case JUMP_NEXT_ALARM:
        jumpToAlarm(kForward);
        break;
    default:
        m_pictureReady = readyBefore;
        m_changePlayMode(kForward, kNormalSpeed);
        break;
    }
}

void CpbPickerThread::jumpToClock() {
    m_pbStreamTime = {m_curEvent.reqTime, 0};
    if (!moveToTime(m_pbStreamTime, kForward)) {
        skipTo(kSkipLatest);
        moveToTime(m_pbStreamTime, kForward);
        m_pauseMode = kPauseEnd;
    }
    const unsigned char dir = chooseClockTarget(m_curEvent.reqTime);
    if (moveToTime(m_pbStreamTime, dir)) {
        m_pbRefresh = 1;
        m_pauseMode = kPauseNone; // also after a time before every recording
    } else if (dir == kForward) {
        skipTo(kSkipLatest);
        moveToTime(m_pbStreamTime, kForward);
        m_pauseMode = kPauseEnd;
    } else {
        skipTo(kSkipOldest);
        moveToTime(m_pbStreamTime, kBackward);
        m_pauseMode = kPauseStart;
    }

    if (m_curEvent.reqJump == JUMP_RANGE && m_pauseMode == kPauseNone) {
        m_pictureReady = 1;
        m_resyncPacing = 1;
        m_changePlayMode(kForward, kNormalSpeed);
    } else {
        pausePlay();
    }
}

/// Tries the backward searches besides the forward one just made, and takes the target whose landing lies
/// nearest to the second asked for: the direction to search in, the time in m_pbStreamTime.
unsigned char CpbPickerThread::chooseClockTarget(uint32_t second) {
    const PB_STREAM_TIME half{second, 500};
    const PB_STREAM_TIME next{second + 1, 0};
    const PB_STREAM_TIME reached = m_pbStream.getTimePts();
    const PB_STREAM_TIME beforeHalf = landingBackward(half);
    const PB_STREAM_TIME beforeNext = landingBackward(next);
    switch (clockCandidate(secondsApart(reached.seconds(), second),
                           secondsApart(beforeHalf.seconds(), second),
                           secondsApart(beforeNext.seconds(), second))) {
    case ClockCandidate::forward:
        return kForward;
    case ClockCandidate::halfLater:
        m_pbStreamTime = half;
        return kBackward;
    case ClockCandidate::secondLater:
        break;
    }
    m_pbStreamTime = next;
    return kBackward;
}

void CpbPickerThread::jumpToOldest() {
    skipTo(kSkipOldest);
    moveToTime(m_pbStreamTime, kBackward);
    m_pbRefresh = 1;
    m_pauseMode = kPauseStart;
    pausePlay();
}

void CpbPickerThread::jumpToLatest() {
    skipTo(kSkipLatest);
    moveToTime(m_pbStreamTime, kForward);
    m_pauseMode = kPauseEnd;
    pausePlay();
}

void CpbPickerThread::jumpToAlarm(unsigned char dir) {
    PB_STREAM_TIME from = m_pbStream.getTimePts();
    m_pbStreamTime = m_pbStream.getSkip(&from, &m_db, &m_stH, &m_picH, kSkipEvent, dir, 0, 0);
    if (m_pbStreamTime.sec == 0) {
        m_pbStreamTime = from;
    } else if (moveToTime(m_pbStreamTime, kForward)) {
        settleOnAlarm();
    }
    pausePlay(); // every alarm jump ends paused, also one whose alarm can't be shown
}

/// Of the I-pictures on either side of the alarm, takes the one nearer to its start.
void CpbPickerThread::settleOnAlarm() {
    const uint32_t alarm = m_pbStreamTime.seconds();
    const PB_STREAM_TIME after = m_pbStream.getTimePts();
    moveToTime(m_pbStreamTime, kBackward);
    const PB_STREAM_TIME before = m_pbStream.getTimePts();
    if (secondsApart(alarm, before.seconds()) <= secondsApart(alarm, after.seconds())) {
        moveToTime(m_pbStreamTime, kBackward);
    } else {
        m_pbStreamTime = after;
        moveToTime(m_pbStreamTime, kForward);
    }
    m_alarmTime = m_pbStream.getTimePts();
}

/// Where a search backward from `time` lands; {0, 0} when it fails.
PB_STREAM_TIME CpbPickerThread::landingBackward(PB_STREAM_TIME time) {
    return moveToTime(time, kBackward) ? m_pbStream.getTimePts() : PB_STREAM_TIME{};
}

bool CpbPickerThread::moveToTime(PB_STREAM_TIME time, unsigned char dir) {
    if (m_moveStreamTime(&m_pbStream, dir, time) != 0) return true;
    logPlain(LOG_INFO, "m_moveStreamTime error!");
    return false;
}

void CpbPickerThread::skipTo(unsigned char kind) {
    m_pbStreamTime = m_pbStream.getSkip(nullptr, &m_db, &m_stH, &m_picH, kind, kForward, 0, 0);
}

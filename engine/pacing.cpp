// When a picture's turn has come. Play follows the recording's own clock: wall clock and picture clock are
// taken together once, and from then on the wall clock runs ahead of the picture clock by the play speed.
// Fast and reverse play go by the skip time instead. Playback thread, outside m_dataMutex.
#include <algorithm>

#include "engine/pb_picker_thread.h"
#include "platform/clock.h"

namespace {

constexpr timeval kStillPause{.tv_sec = 0, .tv_usec = 100000};
constexpr timeval kShortestPause{.tv_sec = 0, .tv_usec = 10};
constexpr timeval kLongestCut{.tv_sec = 1, .tv_usec = 0};

bool isFast(PBTYPE type) {
    return type == PB_FF || type == PB_REW || type == PB_SLOW_REW;
}

timeval fromMs(uint32_t ms) {
    timeval span{};
    span.tv_sec = static_cast<time_t>(ms / 1000);
    span.tv_usec = static_cast<suseconds_t>(ms % 1000) * 1000;
    return span;
}

timeval fromStreamTime(PB_STREAM_TIME time) {
    timeval span{};
    span.tv_sec = static_cast<time_t>(time.seconds());
    span.tv_usec = static_cast<suseconds_t>(time.mSec) * 1000;
    return span;
}

/// Whether a span (not negative) is so long that the clocks no longer belong together.
bool isGap(timeval span, uint32_t gops) {
    return static_cast<uint64_t>(span.tv_sec) >= gops;
}

} // namespace

timeval CpbPickerThread::m_sleepTimer(timeval, timeval) {
    const timeval now = wallclock::now();
    STREAM_HEADER stream; // first of all, so that pause and base speak of the picture a refresh leaves
    m_pbStream.getStH(&stream);

    timeval pause;
    if (m_pbType == PB_PAUSE) {
        pause = kStillPause;
    } else if (playSpeed == m_prevPlaySpeed && direction == m_prevDirection && m_resyncPacing == 0) {
        pause = paceAgainstBase(now, stream.gops);
    } else {
        pause = startAfresh(now);
    }

    m_resyncPacing = 0;
    if (stream.id != m_prevStreamIdPacing && pause.tv_sec > 0) {
        pause = kLongestCut;
        rebase(now);
    }
    m_prevPlaySpeed = playSpeed;
    m_prevDirection = direction;
    m_prevStreamIdPacing = stream.id;
    wallclock::sleepFor(pause);
    return pause;
}

timeval CpbPickerThread::paceAgainstBase(timeval now, uint32_t gops) {
    timeval wall;
    timersub(&now, &m_baseWallTime, &wall);
    const timeval shown = fromStreamTime(shownSinceBase());
    timeval apart;
    if (timercmp(&wall, &shown, <)) {
        timersub(&shown, &wall, &apart);
        return pauseWhenEarly(apart, now, gops);
    }
    timersub(&wall, &shown, &apart);
    return pauseWhenLate(apart, now, gops);
}

timeval CpbPickerThread::pauseWhenEarly(timeval lead, timeval now, uint32_t gops) {
    if (isGap(lead, gops)) {
        rebase(now);
        return kShortestPause;
    }
    return isFast(m_pbType) && lead.tv_sec > 0 ? kLongestCut : lead;
}

timeval CpbPickerThread::pauseWhenLate(timeval lag, timeval now, uint32_t gops) {
    if (isGap(lag, gops)) rebase(now);
    if (!isFast(m_pbType)) return kShortestPause;
    return fromMs(std::min(halfGopMs(gops), ffSkipTime() / 2));
}

/// The first pause after a change of speed or direction, and after a jump that plays on.
timeval CpbPickerThread::startAfresh(timeval now) {
    const timeval pause = isFast(m_pbType) ? fromMs(ffSkipTime()) : kShortestPause;
    timeval turn;
    timeradd(&now, &pause, &turn);
    rebase(turn);
    return pause;
}

void CpbPickerThread::rebase(timeval wallTime) {
    m_baseWallTime = wallTime;
    m_basePts = m_pbStream.getNowPts();
    m_prevPts = m_basePts;
}

/// Recording time shown since the base, as wall time at the play speed.
PB_STREAM_TIME CpbPickerThread::shownSinceBase() const {
    const PB_STREAM_TIME pts = m_pbStream.getNowPts();
    const PB_STREAM_TIME span = direction == kForward ? pts - m_basePts : m_basePts - pts;
    return span / playSpeed * 10;
}

/// Half the time that a GOP takes at the play speed, in milliseconds.
uint32_t CpbPickerThread::halfGopMs(uint32_t gops) const {
    const uint64_t rate = m_pbStream.getFrameRate();
    const uint64_t speed = playSpeed != 0 ? playSpeed : kNormalSpeed;
    // In 64 bits, since a product that wraps could be 0.
    const uint64_t ms = uint64_t{gops} * 10000 / (speed * (rate != 0 ? rate : kAssumedFrameRate)) / 2;
    return static_cast<uint32_t>(std::min<uint64_t>(ms, UINT32_MAX));
}

PB_STREAM_TIME CpbPickerThread::m_calcSpeedFrameTime(CPbStreamVideo* video, PBTYPE type, PBTYPE prevType,
                                                     PB_STREAM_TIME time, unsigned long, unsigned long speed,
                                                     unsigned char dir) {
    DB_STREAM db;
    video->getDb(&db);
    if (type != prevType || m_lastStreamID != db.streamID) {
        if (m_lastStreamID != db.streamID) time = video->getTimePts();
        m_lastStreamID = db.streamID;
    }
    const uint32_t stepMs = ffSkipTime() * static_cast<uint32_t>(speed) / 10;
    return m_calcDiffTime(time, {stepMs / 1000, stepMs % 1000}, dir);
}

PB_STREAM_TIME CpbPickerThread::m_calcDiffTime(PB_STREAM_TIME time, PB_STREAM_TIME step, unsigned char dir) {
    return dir == kBackward ? time - step : time + step;
}

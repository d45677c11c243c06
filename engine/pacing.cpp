#include "engine/pacing.h"

#include <algorithm>

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

/// Recording time shown since the base, as wall time at the play speed.
timeval shownSince(PB_STREAM_TIME base, const Moment& moment) {
    const bool forward = moment.play.direction == Direction::forward;
    const PB_STREAM_TIME span = forward ? moment.pts - base : base - moment.pts;
    return fromStreamTime(span / moment.play.playSpeed * 10);
}

/// Half the time that a GOP takes at the play speed, in milliseconds.
uint32_t halfGopMs(const Moment& moment) {
    const uint64_t rate = moment.frameRate != 0 ? moment.frameRate : kAssumedFrameRate;
    const uint64_t speed = moment.play.playSpeed != 0 ? moment.play.playSpeed : kNormalSpeed;
    // In 64 bits, since a product that wraps could be 0.
    const uint64_t ms = uint64_t{moment.gops} * 10000 / (speed * rate) / 2;
    return static_cast<uint32_t>(std::min<uint64_t>(ms, UINT32_MAX));
}

timeval pauseWhenEarly(timeval lead, PBTYPE type) {
    return isFast(type) && lead.tv_sec > 0 ? kLongestCut : lead;
}

timeval pauseWhenLate(const Moment& moment) {
    if (!isFast(moment.play.m_pbType)) return kShortestPause;
    return fromMs(std::min(halfGopMs(moment), moment.skipMs / 2));
}

} // namespace

Pacing::Pause Pacing::pauseAt(const Moment& moment) {
    const PlayState& play = moment.play;
    Pause pause{kStillPause, false};
    if (play.m_pbType != PB_PAUSE) {
        const bool asBefore = play.playSpeed == m_prevPlaySpeed && play.direction == m_prevDirection;
        pause = asBefore && !m_resyncPacing ? paceAgainstBase(moment) : startAfresh(moment);
    }
    m_resyncPacing = false;
    if (moment.streamId != m_prevStreamIdPacing && pause.span.tv_sec > 0)
        pause = rebase(kLongestCut, moment.now, moment.pts);
    m_prevPlaySpeed = play.playSpeed;
    m_prevDirection = play.direction;
    m_prevStreamIdPacing = moment.streamId;
    return pause;
}

Pacing::Pause Pacing::paceAgainstBase(const Moment& moment) {
    timeval wall;
    timersub(&moment.now, &m_baseWallTime, &wall);
    const timeval shown = shownSince(m_basePts, moment);
    timeval apart;
    if (timercmp(&wall, &shown, <)) {
        timersub(&shown, &wall, &apart);
        if (isGap(apart, moment.gops)) return rebase(kShortestPause, moment.now, moment.pts);
        return {pauseWhenEarly(apart, moment.play.m_pbType), false};
    }
    timersub(&wall, &shown, &apart);
    const timeval span = pauseWhenLate(moment);
    return isGap(apart, moment.gops) ? rebase(span, moment.now, moment.pts) : Pause{span, false};
}

/// The first pause after a change of speed or direction, and after a jump that plays on.
Pacing::Pause Pacing::startAfresh(const Moment& moment) {
    const timeval span = isFast(moment.play.m_pbType) ? fromMs(moment.skipMs) : kShortestPause;
    timeval turn;
    timeradd(&moment.now, &span, &turn);
    return rebase(span, turn, moment.pts);
}

Pacing::Pause Pacing::rebase(timeval span, timeval wallTime, PB_STREAM_TIME pts) {
    m_baseWallTime = wallTime;
    m_basePts = pts;
    return {span, true};
}

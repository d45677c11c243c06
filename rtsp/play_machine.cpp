#include "rtsp/play_machine.h"

#include <cstdlib>
#include <utility>

#include "daemon/rtsp_request.h"

namespace {

constexpr int64_t kSecond = 1'000'000;
/// A PLAY is answered after that, picture or not.
constexpr int64_t kFirstPicture = kSecond * 3 / 2;
/// The daemon takes no request while it waits out a hole in the recording.
constexpr int64_t kLongestSettling = 5 * kSecond;
/// At the live edge: until the next try, and until the recording counts as ended.
constexpr int64_t kEdgeStep = kSecond;
constexpr int64_t kEdgeEnd = 5 * kSecond;
/// A third of what the daemon waits before it takes a session for left.
constexpr int64_t kKeepAlive = 20 * kSecond;
/// Fast play says PAUSE now and then for a turn that has not moved on.
constexpr int kFastPauses = 3;

std::string inTenths(int scale) {
    const int size = std::abs(scale);
    return (scale < 0 ? "-" : "") + std::to_string(size / 10) + "." + std::to_string(size % 10);
}

} // namespace

// ---- requests ----

void PlayMachine::play(const PlayOrder& order, int64_t nowUs) {
    if (m_replyDue) {
        m_out.reply({.status = 455});
        return;
    }
    const bool here = order.start == PlayOrder::Start::here;
    const bool same = playing() && here && order.scale == m_order.scale && !order.until &&
                      order.iPicturesOnly == m_order.iPicturesOnly && order.intervalMs == m_order.intervalMs;
    if (same) {
        answer(false, m_sieve.sentTime());
        return;
    }
    m_replyDue = true;
    if (m_state == State::settling || (here && isUnderWay()))
        m_next = order;
    else
        begin(order, nowUs);
}

void PlayMachine::pause(int64_t nowUs) {
    if (m_replyDue || m_state == State::paused) {
        m_out.reply({.status = m_replyDue ? 455 : 200});
        return;
    }
    m_replyDue = true;
    m_pauseDue = isUnderWay();
    if (!m_pauseDue && m_state != State::settling) settle(nowUs);
}

void PlayMachine::control(int32_t type, int64_t nowUs, const std::string& name, const std::string& value) {
    if (type != RTSP_REQ_STATUS) {
        ++m_pending;
        m_from.reset();
    }
    m_lastControl = nowUs;
    m_out.control(type, name, value);
}

void PlayMachine::enter(State state, int64_t nowUs) {
    m_state = state;
    m_since = nowUs;
    m_pauses = 0;
}

void PlayMachine::settle(int64_t nowUs) {
    enter(State::settling, nowUs);
    control(RTSP_REQ_PAUSE, nowUs);
}

/// What has waited for the request before, now that the daemon has acted on that one.
void PlayMachine::takeUp(int64_t nowUs) {
    if (m_next)
        begin(*std::exchange(m_next, std::nullopt), nowUs);
    else if (std::exchange(m_pauseDue, false))
        settle(nowUs);
}

void PlayMachine::begin(const PlayOrder& order, int64_t nowUs) {
    const bool here = order.start == PlayOrder::Start::here;
    if (here) m_sieve.sendHeld(false, false);
    m_order = order;
    m_sieve.begin(order);
    m_ended = false;
    if (here) {
        m_reached = m_state == State::paused;
        start(nowUs);
        return;
    }
    m_shown.reset();
    m_passed.reset();
    m_reached = false;
    const bool range = order.start == PlayOrder::Start::at && order.scale == kNormalScale;
    enter(range ? State::starting : State::jumping, nowUs);
    const std::string clock = "clock=" + order.clock;
    if (range)
        control(RTSP_REQ_PLAY, nowUs, "Range", clock + "-");
    else
        control(RTSP_REQ_PLAY, nowUs, "Jump", order.start == PlayOrder::Start::at ? clock : "latest");
    if (order.target) first(*order.target, nowUs);
}

/// From where the daemon stands; a picture shown there and not yet sent comes first.
void PlayMachine::start(int64_t nowUs) {
    enter(State::starting, nowUs);
    if (m_order.scale == kNormalScale)
        control(RTSP_REQ_PLAY, nowUs);
    else
        control(RTSP_REQ_PLAY, nowUs, "Scale", inTenths(m_order.scale));
    if (!m_shown) return;
    const Picture shown = *std::exchange(m_shown, std::nullopt);
    first(shown, nowUs);
}

void PlayMachine::answer(bool firstFollows, std::optional<int64_t> from) {
    m_replyDue = false;
    m_out.reply({200, from, m_order.until, m_order.scale, firstFollows});
}

// ---- what came of them ----

void PlayMachine::controlDone(int32_t type, uint32_t newest, const std::string& status, int64_t nowUs) {
    if (type == RTSP_REQ_STATUS) {
        const bool about = std::exchange(m_asked, false) && m_state == State::playing && m_pauses > 0;
        if (about && status.starts_with("pause")) reachedEnd(nowUs);
        return;
    }
    if (--m_pending > 0) return;
    m_from = newest + 2;
    if (!isUnderWay()) return;
    m_since = nowUs;
    if (m_state == State::jumping && m_reached) start(nowUs);
}

void PlayMachine::block(uint32_t sequence, const Picture* picture, int64_t nowUs) {
    const bool follows = m_from && static_cast<int32_t>(sequence - *m_from) >= 0;
    if (picture)
        pictureCame(*picture, follows, nowUs);
    else
        pauseCame(follows, nowUs);
}

bool PlayMachine::isSame(const std::optional<Picture>& one, const Picture& other) {
    return one && *one->bytes == *other.bytes;
}

void PlayMachine::pictureCame(const Picture& picture, bool follows, int64_t nowUs) {
    m_pauses = 0;
    const bool wasSeen = isSame(m_last, picture);
    // Fast play from here is known by leaving pictures out, or turning back.
    if (m_state == State::starting && !m_reached && m_order.start == PlayOrder::Start::here &&
        m_order.isFast() && m_last)
        follows = follows || leaps(*m_last, picture);
    m_last = picture;
    switch (m_state) {
    case State::paused: // what a session begins with
        if (!wasSeen) m_shown = picture;
        break;
    case State::settling: // goes on until the pause is taken
        if (!wasSeen && !m_ended && m_reached) emit(picture, nowUs);
        break;
    case State::jumping:
    case State::starting:
        arrived(picture, follows, wasSeen, nowUs);
        break;
    case State::edge:
        if (wasSeen) break;
        enter(State::playing, nowUs);
        [[fallthrough]];
    case State::playing:
        if (!wasSeen) emit(picture, nowUs);
        break;
    }
}

/// The daemon begins with the first I-picture of a second, which may be an earlier one than was sent.
bool PlayMachine::leadsUp(const Picture& picture) const {
    return m_order.target && picture.time && m_order.scale > 0 && *picture.time < m_order.from;
}

bool PlayMachine::leaps(const Picture& from, const Picture& to) const {
    if (!from.time || !from.next || !to.time) return false;
    return m_order.scale > 0 ? *to.time > *from.next : *to.time < *from.time;
}

/// Whether it belongs to the order that has been given.
bool PlayMachine::isFirst(const Picture& picture, bool follows) {
    if (m_reached) return true;
    // A play goes on from the picture before, whichever request that one answered; a fast one does not.
    if (m_order.start == PlayOrder::Start::here) return follows || !m_order.isFast();
    if (isSame(m_order.target, picture)) return true;
    if (!follows) return false;
    if (leadsUp(picture)) return true;
    m_sieve.jump();
    if (!picture.iPicture) m_sieve.lose();
    return true;
}

void PlayMachine::arrived(const Picture& picture, bool follows, bool wasSeen, int64_t nowUs) {
    const bool here = m_order.start == PlayOrder::Start::here;
    if (here && wasSeen) return;
    if (!isFirst(picture, follows)) {
        m_passed = picture;
        return;
    }
    m_reached = true;
    const bool sent = isSame(m_order.target, picture);
    if (m_state == State::jumping) {
        if (!sent && !leadsUp(picture)) m_shown = picture;
        if (m_pending == 0) start(nowUs);
        return;
    }
    if (m_replyDue && !m_next && !m_pauseDue) {
        first(picture, nowUs);
    } else if (!sent && !wasSeen) {
        emit(picture, nowUs);
    }
    if (m_state == State::starting) enter(State::playing, nowUs);
    takeUp(nowUs);
}

void PlayMachine::pauseCame(bool follows, int64_t nowUs) {
    if (!follows) return;
    switch (m_state) {
    case State::settling:
        enter(State::paused, nowUs);
        if (m_next) {
            takeUp(nowUs);
        } else {
            m_sieve.sendHeld(false, false);
            if (std::exchange(m_replyDue, false)) m_out.reply({});
        }
        break;
    case State::jumping: // it stands on the picture shown last, which came too early to be certain
        m_reached = true;
        if (m_passed && !leadsUp(*m_passed)) m_shown = m_passed;
        start(nowUs);
        break;
    case State::starting: // fast play has turns that do not move on
        if (!m_order.isFast()) giveUpWaiting(nowUs);
        break;
    case State::playing:
        if (++m_pauses < (m_order.isFast() ? kFastPauses : 1) || m_asked) break;
        m_asked = true;
        control(RTSP_REQ_STATUS, nowUs);
        break;
    case State::paused:
    case State::edge:
        break;
    }
}

/// No picture has come: the reply says so, and what happens is looked at as in play.
void PlayMachine::giveUpWaiting(int64_t nowUs) {
    m_reached = true;
    enter(State::playing, nowUs);
    if (m_replyDue && !m_next && !m_pauseDue) answer(false, std::nullopt);
    takeUp(nowUs);
}

void PlayMachine::first(const Picture& picture, int64_t nowUs) {
    m_sieve.jump();
    if (m_replyDue) answer(true, picture.time);
    emit(picture, nowUs);
}

// ---- pictures ----

void PlayMachine::emit(const Picture& picture, int64_t nowUs) {
    m_lastPicture = nowUs;
    if (!m_sieve.take(picture)) stop(nowUs);
}

// ---- the end ----

/// The end of a closed range.
void PlayMachine::stop(int64_t nowUs) {
    m_ended = true;
    m_sieve.sendHeld(true, false);
    m_out.goodBye();
    if (m_state != State::settling) settle(nowUs);
}

/// The daemon has paused by itself.
void PlayMachine::reachedEnd(int64_t nowUs) {
    if (m_order.scale > 0 && m_out.recordingGoesOn()) {
        m_order.scale = kNormalScale;
        enter(State::edge, nowUs);
        return;
    }
    m_sieve.sendHeld(true, true);
    m_out.goodBye();
    enter(State::paused, nowUs);
}

void PlayMachine::tick(int64_t nowUs) {
    const int64_t waited = nowUs - m_since;
    switch (m_state) {
    case State::settling:
        if (m_pending == 0 && waited > kLongestSettling) pauseCame(true, nowUs);
        break;
    case State::jumping:
        if (m_pending == 0 && waited > kFirstPicture) pauseCame(true, nowUs);
        break;
    case State::starting:
        if (m_pending == 0 && waited > kFirstPicture) giveUpWaiting(nowUs);
        break;
    case State::edge:
        if (nowUs - m_lastPicture > kEdgeEnd) {
            m_sieve.sendHeld(true, true);
            m_out.goodBye();
            enter(State::paused, nowUs);
        } else if (waited > kEdgeStep && m_pending == 0) {
            m_since = nowUs;
            control(RTSP_REQ_PLAY, nowUs);
        }
        break;
    case State::paused:
    case State::playing:
        break;
    }
    if (nowUs - m_lastControl > kKeepAlive) control(RTSP_REQ_STATUS, nowUs);
}

Expected PlayMachine::expected() const {
    using How = Expected::How;
    if (isUnderWay() && m_order.start != PlayOrder::Start::here && !m_reached)
        return {How::around, m_order.from};
    if (m_order.scale < 0) return {How::backward};
    return {m_order.scale > kNormalScale ? How::onward : How::next};
}

// The blocks of the output memory, as the play machine takes them.
#include <utility>

#include "daemon/rtsp_request.h"
#include "rtsp/play_machine.h"

namespace {

/// Fast play says PAUSE now and then for a turn that has not moved on.
constexpr int kFastPauses = 3;

} // namespace

void PlayMachine::block(uint32_t sequence, const Picture* picture, int64_t nowUs) {
    const bool follows = m_from && static_cast<int32_t>(sequence - *m_from) >= 0;
    if (follows) m_cutOff = false;
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
        if (!wasSeen && m_reached) emit(picture, nowUs);
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
        if (wasSeen) break;
        emit(picture, nowUs);
        if (m_cutOff && picture.time) m_sieve.goOnBehind(picture);
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

void PlayMachine::emit(const Picture& picture, int64_t nowUs) {
    m_lastPicture = nowUs;
    if (m_ended) return;
    if (!m_sieve.take(picture)) stop(nowUs);
}

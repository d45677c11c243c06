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
    const bool same = playing() && order.start == PlayOrder::Start::here && order.scale == m_order.scale &&
                      !order.until && order.iPicturesOnly == m_order.iPicturesOnly &&
                      order.intervalMs == m_order.intervalMs;
    if (same) {
        answer(false, m_sentTime);
        return;
    }
    m_next = order;
    m_replyDue = m_playDue = true;
    if (m_state == State::paused)
        proceed(nowUs);
    else if (m_state != State::settling)
        settle(nowUs);
}

void PlayMachine::pause(int64_t nowUs) {
    if (m_replyDue || m_state == State::paused) {
        m_out.reply({.status = m_replyDue ? 455 : 200});
        return;
    }
    m_replyDue = true;
    if (m_state != State::settling) settle(nowUs);
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

void PlayMachine::settled(int64_t nowUs) {
    enter(State::paused, nowUs);
    if (m_playDue) {
        proceed(nowUs);
    } else {
        sendHeld(false, false);
        if (std::exchange(m_replyDue, false)) m_out.reply({});
    }
}

/// Paused, and to play.
void PlayMachine::proceed(int64_t nowUs) {
    m_playDue = false;
    if (m_next.start == PlayOrder::Start::here) sendHeld(false, false);
    m_held.reset();
    m_ended = false;
    m_order = m_next;
    if (m_order.start == PlayOrder::Start::here) {
        start(nowUs);
        return;
    }
    m_shown.reset();
    if (m_order.start == PlayOrder::Start::at && m_order.scale == kNormalScale) {
        enter(State::starting, nowUs);
        control(RTSP_REQ_PLAY, nowUs, "Range", "clock=" + m_order.clock + "-");
        return;
    }
    enter(State::jumping, nowUs);
    control(RTSP_REQ_PLAY, nowUs, "Jump",
            m_order.start == PlayOrder::Start::at ? "clock=" + m_order.clock : "latest");
}

/// From where the daemon stands; the picture shown there comes first.
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
    if (m_state == State::starting || m_state == State::jumping) m_since = nowUs;
    if (m_state == State::jumping && m_shown) start(nowUs);
}

bool PlayMachine::isSame(const Picture& picture) const {
    return m_last && *m_last->bytes == *picture.bytes;
}

void PlayMachine::block(uint32_t sequence, const Picture* picture, int64_t nowUs) {
    const bool follows = m_from && static_cast<int32_t>(sequence - *m_from) >= 0;
    if (picture)
        pictureCame(*picture, nowUs);
    else
        pauseCame(follows, nowUs);
}

void PlayMachine::pictureCame(const Picture& picture, int64_t nowUs) {
    m_pauses = 0;
    const bool wasSeen = isSame(picture);
    m_last = picture;
    switch (m_state) {
    case State::paused: // what a session begins with
        if (!wasSeen) m_shown = picture;
        break;
    case State::settling: // goes on until the pause is taken; of no use when play goes on elsewhere
        if (!wasSeen && !m_ended && !(m_playDue && m_next.start != PlayOrder::Start::here))
            emit(picture, nowUs);
        break;
    case State::jumping:
        m_shown = picture;
        if (m_pending == 0) start(nowUs);
        break;
    case State::starting: // a plain play may show once more what was shown while paused
        if (!wasSeen || m_order.start == PlayOrder::Start::at) first(picture, nowUs);
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

void PlayMachine::pauseCame(bool follows, int64_t nowUs) {
    if (!follows) return;
    if (m_state == State::settling) {
        settled(nowUs);
    } else if (m_state == State::jumping) { // it stands there already
        start(nowUs);
    } else if (m_state == State::playing && ++m_pauses >= (isFast() ? kFastPauses : 1) && !m_asked) {
        m_asked = true;
        control(RTSP_REQ_STATUS, nowUs);
    }
}

void PlayMachine::first(const Picture& picture, int64_t nowUs) {
    enter(State::playing, nowUs);
    m_sentTime.reset();
    m_discontinuity = true;
    m_lost = false;
    if (m_replyDue) answer(true, picture.time);
    emit(picture, nowUs);
}

// ---- pictures ----

bool PlayMachine::isBeyond(std::optional<int64_t> time) const {
    if (!time || !m_order.until) return false;
    return m_order.scale > 0 ? *time > *m_order.until : *time < *m_order.until;
}

/// Whether it is among those that the client wants.
bool PlayMachine::passes(const Picture& picture) const {
    if (!m_order.iPicturesOnly) return true;
    if (!picture.iPicture) return false;
    return !m_sentTime || !picture.time || std::abs(*picture.time - *m_sentTime) >= m_order.intervalMs;
}

void PlayMachine::emit(const Picture& picture, int64_t nowUs) {
    m_lastPicture = nowUs;
    if (isBeyond(picture.time)) {
        stop(nowUs);
        return;
    }
    if (picture.gapBefore) m_discontinuity = true;
    if (m_lost && !picture.iPicture) return;
    if (m_lost) m_discontinuity = true;
    m_lost = false;
    if (passes(picture)) {
        sendHeld(false, picture.gapBefore);
        send(picture, {.discontinuity = std::exchange(m_discontinuity, false), .cseq = m_order.cseq}, nowUs);
    }
    // In normal play the next picture is known: no need to wait for it.
    if (!isFast() && isBeyond(picture.next)) stop(nowUs);
}

void PlayMachine::send(const Picture& picture, Standing standing, int64_t) {
    m_sentTime = picture.time;
    if (m_order.holdBack) {
        m_held = picture;
        m_heldStanding = standing;
        return;
    }
    if (!isFast()) {
        const bool atEnd = picture.time && !picture.next && !m_out.recordingGoesOn();
        standing.endOfSection = picture.gapAfter || atEnd;
        standing.terminal = atEnd || isBeyond(picture.next);
    }
    m_out.picture(picture, standing);
}

void PlayMachine::sendHeld(bool last, bool gap) {
    if (!m_held) return;
    m_heldStanding.terminal = last;
    m_heldStanding.endOfSection = gap || (last && !m_order.until);
    const Picture held = *std::exchange(m_held, std::nullopt);
    m_out.picture(held, m_heldStanding);
}

// ---- the end ----

/// The end of a closed range.
void PlayMachine::stop(int64_t nowUs) {
    m_ended = true;
    sendHeld(true, false);
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
    sendHeld(true, true);
    m_out.goodBye();
    enter(State::paused, nowUs);
}

void PlayMachine::tick(int64_t nowUs) {
    const int64_t waited = nowUs - m_since;
    switch (m_state) {
    case State::settling:
        if (m_pending == 0 && waited > kLongestSettling) settled(nowUs);
        break;
    case State::jumping:
        if (m_pending == 0 && waited > kFirstPicture) start(nowUs);
        break;
    case State::starting:
        if (m_pending > 0 || waited <= kFirstPicture) break;
        enter(State::playing, nowUs);
        if (m_replyDue) answer(false, std::nullopt);
        break;
    case State::edge:
        if (nowUs - m_lastPicture > kEdgeEnd) {
            sendHeld(true, true);
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
    const bool elsewhere = m_order.start != PlayOrder::Start::here;
    if ((m_state == State::jumping || m_state == State::starting) && elsewhere)
        return {How::around, m_order.from};
    if (m_order.scale < 0) return {How::backward};
    return {m_order.scale > kNormalScale ? How::onward : How::next};
}

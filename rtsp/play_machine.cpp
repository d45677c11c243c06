#include "rtsp/play_machine.h"

#include <cstdlib>
#include <utility>

#include "daemon/rtsp_request.h"
#include "platform/output_words.h"

namespace {

constexpr int64_t kSecond = 1'000'000;
/// A PLAY is answered after that, picture or not.
constexpr int64_t kFirstPicture = kSecond * 3 / 2;
/// The daemon takes no request while it waits out a hole in the recording.
constexpr int64_t kLongestSettling = 5 * kSecond;
/// At the live edge: until the next try, and until the recording counts as ended.
constexpr int64_t kEdgeStep = kSecond / 4;
constexpr int64_t kEdgeEnd = 5 * kSecond;
/// A third of what the daemon waits before it takes a session for left.
constexpr int64_t kKeepAlive = 20 * kSecond;

std::string inTenths(int scale) {
    const int size = std::abs(scale);
    return (scale < 0 ? "-" : "") + std::to_string(size / 10) + "." + std::to_string(size % 10);
}

} // namespace

// ---- requests ----

void PlayMachine::play(const PlayOrder& order, int64_t nowUs) {
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
    if (m_state == State::paused) {
        m_out.reply({});
        return;
    }
    m_replyDue = true;
    m_pauseDue = isUnderWay();
    if (!m_pauseDue && m_state != State::settling) settle(nowUs);
}

void PlayMachine::halt(int64_t nowUs) {
    m_ended = true;
    m_sieve.begin(m_order); // what it holds back is not to come in between
    if (m_state == State::paused || m_state == State::settling) return;
    m_pauseDue = isUnderWay();
    if (!m_pauseDue) settle(nowUs);
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
    m_ended = m_pauseDue = m_cutOff = false;
    m_atEdge = order.start == PlayOrder::Start::newest;
    if (here) {
        m_reached = m_state == State::paused;
        start(nowUs);
        return;
    }
    goElsewhere(nowUs);
    if (order.target) first(*order.target, nowUs);
}

void PlayMachine::goElsewhere(int64_t nowUs) {
    m_shown.reset();
    m_passed.reset();
    m_reached = false;
    const bool at = m_order.start == PlayOrder::Start::at;
    const bool range = at && m_order.scale == kNormalScale;
    enter(range ? State::starting : State::jumping, nowUs);
    const std::string clock = "clock=" + m_order.clock;
    if (range)
        control(RTSP_REQ_PLAY, nowUs, "Range", clock + "-");
    else
        control(RTSP_REQ_PLAY, nowUs, "Jump", at ? clock : "latest");
}

bool PlayMachine::follows() const {
    return m_state == State::playing && m_atEdge && m_order.scale == kNormalScale && !m_order.iPicturesOnly &&
           m_last && m_last->time && m_last->stamp;
}

void PlayMachine::catchUp(std::vector<Picture> pictures, const std::string& clock, int64_t nowUs) {
    for (Picture& picture : pictures) {
        const auto later = static_cast<uint32_t>((*picture.time - *m_last->time) * kPtsPerMs);
        picture.stamp = *m_last->stamp + later; // what the daemon would have given it; wraps at 32 bits
        emit(picture, nowUs);
        if (m_ended) return;
    }
    m_order.start = PlayOrder::Start::at;
    m_order.from = *pictures.back().time;
    m_order.clock = clock;
    m_order.target = pictures.back();
    m_sieve.goOnBehind(m_order.target);
    m_cutOff = true;
    goElsewhere(nowUs);
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
    m_out.reply({from, m_order.until, m_order.scale, firstFollows});
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
        m_atEdge = true;
        enter(State::edge, nowUs);
        return;
    }
    endOfRecording(nowUs);
}

void PlayMachine::endOfRecording(int64_t nowUs) {
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
            endOfRecording(nowUs);
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

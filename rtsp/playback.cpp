#include "rtsp/playback.h"

#include <algorithm>
#include <utility>

namespace {

/// At the live edge: how far behind it, and how often to look.
constexpr int64_t kMostBehindMs = 2000, kLookEvery = 1'000'000;
/// From the card at a look, to catch up; and where the next I-picture is not among them.
constexpr size_t kCatchUpBytes = 1u << 20, kLongestGopBytes = 4u << 20;
constexpr size_t kMostWaiting = 1500; ///< for the daemon to open: more than can be connected
constexpr int64_t kReportEvery = 5'000'000;

void setPlace(Picture& picture, const RecordingTime::Found& found) {
    picture.time = found.time;
    picture.next = found.next;
    picture.gapBefore = found.gapBefore;
    picture.gapAfter = found.gapAfter;
}

} // namespace

Playback::Playback(std::function<void()> lost) : m_lost(std::move(lost)) {}

// ---- the daemon's session ----

void Playback::describe(OnDescribed done) {
    if (m_waiting.size() >= kMostWaiting) {
        done(nullptr);
        return;
    }
    m_waiting.push_back(std::move(done));
    if (m_opening) return;
    if (isOpen()) {
        if (const auto span = m_recording.span()) m_description.span.newest = span->newest;
        tellDescription(&m_description);
        return;
    }
    m_opening = true;
    m_link.open([this](const std::optional<std::string>& parameterSets) { opened(parameterSets); },
                [this](OutputBlock* came) { block(came); }, [this] { lost(); });
}

void Playback::opened(const std::optional<std::string>& parameterSets) {
    if (!parameterSets) {
        tellDescription(nullptr);
        return;
    }
    m_description = {*parameterSets, m_recording.span().value_or(RecordingTime::Span{}),
                     m_recording.frameRate()};
    m_machine = std::make_unique<PlayMachine>(static_cast<PlayOutput&>(*this));
    m_played = false;
}

void Playback::tellDescription(const Description* description) {
    m_opening = false;
    for (const OnDescribed& done : std::exchange(m_waiting, {})) done(description);
}

void Playback::lost() {
    if (isSetUp()) goodBye();
    end(454);
    m_lost();
}

void Playback::end(int status) {
    m_link.close();
    stopDelivery();
    m_machine.reset();
    m_rtp.reset();
    m_transport.reset();
    if (const auto answer = std::exchange(m_answer, nullptr)) answer({.status = status});
    tellDescription(nullptr);
}

// ---- pictures ----

Picture Playback::pictureOf(OutputBlock& block) {
    Picture picture;
    picture.stamp = block.timestamp;
    picture.iPicture = isIPicture(block);
    if (const auto found = m_recording.find(block.data, picture.iPicture, m_machine->expected()))
        setPlace(picture, *found);
    picture.bytes = std::make_shared<const std::vector<char>>(std::move(block.data));
    return picture;
}

void Playback::block(OutputBlock* block) {
    const int64_t now = g_get_monotonic_time();
    m_machine->tick(now);
    const bool caughtUp = keepToEdge();
    if (block == nullptr) return;
    if (block->missed > 0 && !caughtUp) m_machine->picturesLost();
    if (!isPauseBlock(*block)) {
        const Picture picture = pictureOf(*block);
        m_machine->block(block->sequence, &picture, now);
        return;
    }
    m_machine->block(block->sequence, nullptr, now);
    if (m_opening) tellDescription(&m_description);
}

void Playback::picture(const Picture& picture, const Standing& standing) {
    const Pace pace = m_machine->order().isFast() ? Pace::sampled : Pace::recorded;
    const int64_t now = g_get_monotonic_time();
    if (!m_transport->keepsUp()) {
        m_rtp->advance(picture, pace, now);
        m_machine->picturesLost();
        return;
    }
    m_rtp->send(picture, standing, pace, now);
    if (now - m_lastReport > kReportEvery)
        report(false);
    else
        m_transport->flush();
}

void Playback::report(bool bye) {
    const int64_t now = g_get_monotonic_time();
    m_lastReport = now;
    // Without rate control, RTP time is not this moment's.
    const uint64_t ntp = m_delivery ? 0 : ntpTime(g_get_real_time());
    m_rtp->senderReport(ntp, now, bye, [this](std::string_view packet) { m_transport->rtcp(packet); });
    m_transport->flush();
}

/// What a stall of the recorder has cost at the live edge, the daemon never makes up. So the pictures missed
/// come from the card, some each second, and the daemon goes on behind them. Whether some have come.
bool Playback::keepToEdge() {
    const int64_t now = g_get_monotonic_time();
    if (now - m_lookedAt < kLookEvery || !m_machine->follows() || !m_transport->keepsUp()) return false;
    m_lookedAt = now;
    if (m_recording.behind() <= kMostBehindMs) return false;
    auto last = m_recording.lastFound();
    const int64_t from = last->time; // there is one, since play is behind
    const auto isFar = [&] { return last->time - from > kMostBehindMs; };
    std::vector<Picture> pictures;
    size_t upToIPicture = 0;
    for (size_t bytes = 0; bytes < (upToIPicture > 0 && isFar() ? kCatchUpBytes : kLongestGopBytes);) {
        auto picture = m_recording.step(true) ? pictureHere() : std::nullopt;
        if (!picture) break;
        bytes += picture->bytes->size();
        pictures.push_back(std::move(*picture));
        if (!pictures.back().iPicture) continue;
        upToIPicture = pictures.size();
        last = m_recording.lastFound();
    }
    m_recording.goOnFrom(last);
    if (upToIPicture == 0) return false;
    pictures.resize(upToIPicture);
    const std::string clock = daemonClock(static_cast<time_t>(*pictures.back().time / 1000));
    m_machine->catchUp(std::move(pictures), clock, now);
    return true;
}

// ---- the client's requests ----

void Playback::setUp(std::unique_ptr<MediaTransport> transport, uint32_t ssrc) {
    m_transport = std::move(transport);
    m_rtp = std::make_unique<RtpStream>(ssrc, static_cast<uint16_t>(g_random_int()), g_random_int(),
                                        [this](std::string_view packet) { m_transport->rtp(packet); });
}

/// The picture that the recording stands on.
std::optional<Picture> Playback::pictureHere() {
    Picture picture;
    picture.bytes = std::make_shared<const std::vector<char>>(m_recording.read());
    if (picture.bytes->empty()) return std::nullopt;
    picture.iPicture = m_recording.atIPicture();
    setPlace(picture, m_recording.found());
    return picture;
}

PlayOrder Playback::orderFor(const PlayRequest& request) {
    PlayOrder order{.until = request.until,
                    .scale = request.scale,
                    .iPicturesOnly = request.iPicturesOnly,
                    .intervalMs = request.intervalMs,
                    .cseq = request.cseq};
    const bool forward = request.scale > 0;
    order.holdBack = m_rtp->hasReplayExtension() && (request.iPicturesOnly || order.isFast());
    const auto span = m_recording.span();
    if (!span) return order;
    // The reply is to tell what follows: no end lies beyond the recording, unless that goes on.
    if (order.until && !(forward && recordingGoesOn()))
        order.until = std::clamp(*order.until, span->oldest, span->newest);
    std::optional<int64_t> from = request.from;
    // The beginning, unless the client says something else or has been playing.
    if (!request.hasRange && !m_played) from = forward ? span->oldest : span->newest;
    if (request.live) {
        order.start = PlayOrder::Start::newest;
        from = span->newest;
    } else if (from) {
        order.start = PlayOrder::Start::at;
    }
    if (!from) return order;
    order.from = std::clamp(*from, span->oldest, span->newest);
    if (m_recording.goTo(order.from, forward)) {
        order.from = m_recording.time();
        order.target = pictureHere();
    }
    order.clock = daemonClock(static_cast<time_t>(order.from / 1000));
    return order;
}

/// Tells it what is wrong, if something is.
bool Playback::takes(const OnAnswer& answer) const {
    if (isSetUp() && !m_machine->busy()) return true;
    answer({.status = isSetUp() ? 455 : 454});
    return false;
}

void Playback::play(const PlayRequest& request, OnAnswer answer) {
    if (!takes(answer)) return;
    const auto place = m_recording.lastFound();
    const PlayOrder order = orderFor(request);
    m_played = true;
    stopDelivery();
    if (!request.rateControl && m_transport->holdsBack() && order.target) {
        m_recording.goOnFrom(place); // the daemon stays there meanwhile
        deliver(order, answer);
        return;
    }
    m_answer = std::move(answer);
    m_machine->play(order, g_get_monotonic_time());
}

void Playback::pause(OnAnswer answer) {
    if (!takes(answer)) return;
    stopDelivery();
    m_answer = std::move(answer);
    m_machine->pause(g_get_monotonic_time());
}

void Playback::reply(const PlayReply& reply) {
    PlayAnswer result{.reply = reply};
    if (reply.firstFollows) {
        result.sequence = m_rtp->nextSequence();
        result.rtpTime = m_rtp->begin(g_get_monotonic_time());
        m_lastReport = 0; // one goes with the first picture
    }
    std::exchange(m_answer, nullptr)(result);
}

void Playback::control(int32_t type, const std::string& name, const std::string& value) {
    m_link.request(type, name, value, [this, type](const ControlDone& done) {
        if (done.answer)
            m_machine->controlDone(type, done.newest, readStatusAnswer(*done.answer), g_get_monotonic_time());
        else
            lost();
    });
}

// ---- a play without rate control ----

void Playback::deliver(const PlayOrder& order, const OnAnswer& answer) {
    m_machine->halt(g_get_monotonic_time());
    m_delivery = std::make_unique<CardDelivery>(order);
    PlayAnswer result{.reply = {order.from, order.until, order.scale, true},
                      .sequence = m_rtp->nextSequence()};
    result.rtpTime = m_rtp->begin(g_get_monotonic_time());
    m_rtpEpoch = result.rtpTime - static_cast<uint32_t>(order.from * kPtsPerMs);
    answer(result);
    deliverIn(1);
}

void Playback::deliverIn(guint ms) {
    const GSourceFunc some = [](gpointer self) -> gboolean {
        static_cast<Playback*>(self)->deliverSome();
        return G_SOURCE_CONTINUE; // one that has been replaced or destroyed meanwhile does not
    };
    m_delivering = every(ms, some, this);
}

void Playback::stopDelivery() {
    m_delivering.reset();
    m_delivery.reset();
}

/// As much as the client takes, but not so long that others wait.
void Playback::deliverSome() {
    constexpr int64_t kTurnUs = 4000;
    const int64_t begin = g_get_monotonic_time();
    while (!m_delivery->ended() && m_transport->takesMore() && g_get_monotonic_time() - begin < kTurnUs) {
        const auto delivered = m_delivery->next();
        if (!delivered) continue;
        const auto time = static_cast<uint32_t>(*delivered->picture.time * kPtsPerMs);
        m_rtp->sendAt(m_rtpEpoch + time, delivered->picture, delivered->standing, g_get_monotonic_time());
        m_transport->flush();
    }
    constexpr guint kFullMs = 10; // a client that does not read is not looked at all the time
    if (!m_delivery->ended()) {
        deliverIn(m_transport->takesMore() ? 1 : kFullMs);
        return;
    }
    goodBye();
    stopDelivery();
}

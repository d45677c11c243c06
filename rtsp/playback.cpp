#include "rtsp/playback.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace {

constexpr guint kTickMs = 100;
constexpr size_t kMostWaiting = 1500; ///< for the daemon to open: more than can be connected
constexpr int64_t kReportEvery = 5'000'000;

void setPlace(Picture& picture, const RecordingTime::Found& found) {
    picture.time = found.time;
    picture.next = found.next;
    picture.gapBefore = found.gapBefore;
    picture.gapAfter = found.gapAfter;
}

} // namespace

Playback::Playback(DaemonLink::Post post) : m_link(std::move(post)) {}

// ---- the daemon's session ----

void Playback::describe(OnDescribed done) {
    if (m_waiting.size() >= kMostWaiting) {
        done(DaemonLink::Opening::unreachable, m_description);
        return;
    }
    m_waiting.push_back(std::move(done));
    if (m_open && m_shown) {
        tellDescription(DaemonLink::Opening::opened);
        return;
    }
    if (m_opening || m_open) return;
    m_opening = true;
    const uint32_t generation = ++m_generation;
    m_link.open(
        [this, generation](DaemonLink::Opening result, const std::string& sets) {
            if (generation == m_generation) opened(result, sets);
        },
        [this, generation](OutputBlock came) {
            if (generation == m_generation) block(std::move(came));
        },
        [this, generation] {
            if (generation == m_generation) lost();
        });
}

void Playback::opened(DaemonLink::Opening result, const std::string& parameterSets) {
    m_opening = false;
    m_open = result == DaemonLink::Opening::opened;
    m_shown = false;
    if (!m_open) {
        tellDescription(result);
        return;
    }
    m_machine = std::make_unique<PlayMachine>(static_cast<PlayOutput&>(*this));
    m_description.parameterSets = parameterSets;
    m_description.span = m_recording.span().value_or(RecordingTime::Span{});
    m_description.frameRate = m_recording.frameRate();
    m_played = false;
    m_ticking = every(kTickMs, onTick, this);
}

void Playback::tellDescription(DaemonLink::Opening result) {
    // Looking moves the stream that a delivery reads from.
    if (result == DaemonLink::Opening::opened && !m_delivery)
        if (const auto span = m_recording.span()) m_description.span.newest = span->newest;
    for (const OnDescribed& done : std::exchange(m_waiting, {})) done(result, m_description);
}

void Playback::lost() {
    if (m_rtp) goodBye();
    const auto tell = std::exchange(m_lost, nullptr);
    end();
    if (tell) tell();
}

void Playback::end() {
    ++m_generation;
    m_link.close();
    m_opening = m_open = false;
    m_ticking.reset();
    stopDelivery();
    m_machine.reset();
    m_rtp.reset();
    m_transport.reset();
    m_lost = nullptr;
    for (const OnAnswer& answer : std::exchange(m_answers, {})) answer({.reply = {.status = 454}});
    tellDescription(DaemonLink::Opening::unreachable);
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

void Playback::block(OutputBlock block) {
    if (!m_machine) return;
    if (block.missed > 0) m_machine->picturesLost();
    const int64_t now = g_get_monotonic_time();
    if (!isPauseBlock(block) && m_delivery) return; // the pause before it is on its way
    if (!isPauseBlock(block)) {
        const Picture picture = pictureOf(block);
        m_machine->block(block.sequence, &picture, now);
        return;
    }
    m_machine->block(block.sequence, nullptr, now);
    if (!std::exchange(m_shown, true)) tellDescription(DaemonLink::Opening::opened);
}

void Playback::picture(const Picture& picture, const Standing& standing) {
    if (!m_transport || m_delivery) return;
    const PlayOrder& order = m_machine->order();
    const bool sampled = order.scale > kNormalScale || order.scale < 0;
    const Pace pace = sampled ? Pace::sampled : Pace::recorded;
    const int64_t now = g_get_monotonic_time();
    if (!m_transport->keepsUp()) {
        m_rtp->leaveOut(picture, pace, kSkipMs * 1000, now);
        m_machine->picturesLost();
        return;
    }
    MediaTransport* transport = m_transport.get();
    m_rtp->send(picture, standing, pace, kSkipMs * 1000, now,
                [transport](std::string_view packet) { transport->rtp(packet); });
    if (now - m_lastReport > kReportEvery)
        report(false);
    else
        transport->flush();
}

void Playback::report(bool bye) {
    const int64_t now = g_get_monotonic_time();
    m_lastReport = now;
    // Without rate control, RTP time is not this moment's.
    const uint64_t ntp = m_delivery ? 0 : ntpTime(g_get_real_time());
    m_rtp->senderReport(ntp, now, bye, [this](std::string_view packet) { m_transport->rtcp(packet); });
    m_transport->flush();
}

void Playback::goodBye() {
    if (m_transport) report(true);
}

bool Playback::recordingGoesOn() {
    return RecordingTime::goesOn();
}

// ---- the client's requests ----

void Playback::setUp(std::unique_ptr<MediaTransport> transport, uint32_t ssrc, std::function<void()> lost) {
    m_transport = std::move(transport);
    m_rtp = std::make_unique<RtpStream>(ssrc, static_cast<uint16_t>(g_random_int()), g_random_int());
    m_lost = std::move(lost);
    m_replay = false;
}

/// The picture that the recording stands on, as the one that a play begins with.
std::optional<Picture> Playback::targetHere() {
    Picture picture;
    picture.bytes = std::make_shared<const std::vector<char>>(m_recording.read());
    if (picture.bytes->empty()) return std::nullopt;
    picture.iPicture = true;
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
    order.holdBack = m_replay && (request.iPicturesOnly || request.scale > kNormalScale || !forward);
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
    const int64_t cut = std::clamp(*from, span->oldest, span->newest);
    order.from = cut;
    if (m_recording.goTo(cut, forward)) {
        order.from = m_recording.time();
        order.target = targetHere();
    }
    order.clock = daemonClock(static_cast<time_t>(order.from / 1000));
    return order;
}

void Playback::play(const PlayRequest& request, OnAnswer answer) {
    if (!m_machine || !m_rtp) {
        answer({.reply = {.status = 454}});
        return;
    }
    if (m_machine->busy()) {
        answer({.reply = {.status = 455}});
        return;
    }
    const int64_t now = g_get_monotonic_time();
    const PlayOrder order = orderFor(request);
    m_played = true;
    stopDelivery();
    if (!request.rateControl && m_transport->holdsBack() && order.target) {
        deliver(order, std::move(answer));
        return;
    }
    m_answers.push_back(std::move(answer));
    m_machine->play(order, now);
}

void Playback::pause(OnAnswer answer) {
    if (!m_machine || m_machine->busy()) {
        answer({.reply = {.status = m_machine ? 455 : 454}});
        return;
    }
    stopDelivery();
    m_answers.push_back(std::move(answer));
    m_machine->pause(g_get_monotonic_time());
}

void Playback::reply(const PlayReply& reply) {
    if (m_answers.empty()) return;
    const OnAnswer answer = std::move(m_answers.front());
    m_answers.erase(m_answers.begin());
    PlayAnswer result{reply};
    if (reply.firstFollows && m_rtp) {
        result.sequence = m_rtp->nextSequence();
        result.rtpTime = m_rtp->begin(g_get_monotonic_time());
        m_lastReport = 0; // one goes with the first picture
    }
    answer(result);
}

void Playback::control(int32_t type, const std::string& name, const std::string& value) {
    m_link.request(type, name, value, [this, type, generation = m_generation](const DaemonLink::Done& done) {
        if (generation != m_generation) return;
        if (!done.reached) {
            lost();
            return;
        }
        m_machine->controlDone(type, done.newest, readStatusAnswer(done.answer), g_get_monotonic_time());
    });
}

gboolean Playback::onTick(gpointer self) {
    static_cast<Playback*>(self)->tick();
    return G_SOURCE_CONTINUE;
}

void Playback::tick() {
    m_machine->tick(g_get_monotonic_time());
}

// A play without rate control, in the loop that serves clients.
#include "rtsp/playback.h"

void Playback::deliver(const PlayOrder& order, OnAnswer answer) {
    m_machine->halt(g_get_monotonic_time());
    m_recording.goTo(order.from, order.scale > 0);
    m_delivery = std::make_unique<CardDelivery>(m_recording, order);
    m_deliveredFrom = order.from;
    PlayAnswer result{{200, order.from, order.until, order.scale, true}, m_rtp->nextSequence()};
    result.rtpTime = m_rtpFrom = m_rtp->begin(g_get_monotonic_time());
    answer(result);
    m_delivering = every(1, onDelivery, this);
}

void Playback::stopDelivery() {
    m_delivering.reset();
    m_delivery.reset();
}

gboolean Playback::onDelivery(gpointer self) {
    auto* playback = static_cast<Playback*>(self);
    if (playback->deliverSome()) return G_SOURCE_CONTINUE;
    playback->goodBye();
    playback->stopDelivery();
    return G_SOURCE_REMOVE;
}

/// As much as the client takes, but not so long that others wait; false at the end.
bool Playback::deliverSome() {
    constexpr int kAtATime = 16;
    MediaTransport* transport = m_transport.get();
    for (int n = 0; n < kAtATime && transport->takesMore(); ++n) {
        const auto delivered = m_delivery->next();
        if (!delivered) return false;
        const auto time =
            m_rtpFrom + static_cast<uint32_t>((*delivered->picture.time - m_deliveredFrom) * kPtsPerMs);
        m_rtp->sendAt(time, delivered->picture, delivered->standing, g_get_monotonic_time(),
                      [transport](std::string_view packet) { transport->rtp(packet); });
        transport->flush();
    }
    return true;
}

#include "rtsp/card_delivery.h"

#include <cstdlib>
#include <utility>

CardDelivery::CardDelivery(RecordingTime& recording, const PlayOrder& order)
    : m_recording(recording), m_order(order), m_gop(recording.time()) {}

CardDelivery::Step CardDelivery::forward(const RecordingTime::Found& from) {
    const bool beyond = from.next && m_order.until && *from.next > *m_order.until;
    const bool ended = beyond || !m_recording.step(true);
    return {ended, from.gapAfter || !from.next, from.gapAfter};
}

CardDelivery::Step CardDelivery::backward() {
    if (!m_order.iPicturesOnly && m_recording.step(true) && !m_recording.atIPicture())
        return {false, false, false};
    if (!m_recording.goTo(m_gop, false) || !m_recording.step(false)) return {true, true, false};
    if (m_order.until && m_gop <= *m_order.until) return {true, false, false};
    const bool gap = m_recording.found().gapAfter;
    while (!m_recording.atIPicture())
        if (!m_recording.step(false)) return {true, true, false};
    m_gop = m_recording.time();
    return {false, gap, true};
}

std::optional<CardDelivery::Delivered> CardDelivery::next() {
    while (!m_ended) {
        const RecordingTime::Found found = m_recording.found();
        Delivered delivered{{.bytes = {},
                             .stamp = {},
                             .iPicture = m_recording.atIPicture(),
                             .time = found.time,
                             .next = found.next},
                            {}};
        const bool apart = !m_sent || std::abs(found.time - *m_sent) >= m_order.intervalMs;
        const bool wanted = !m_order.iPicturesOnly || (delivered.picture.iPicture && apart);
        if (wanted) delivered.picture.bytes = std::make_shared<const std::vector<char>>(m_recording.read());
        const Step step = m_order.scale > 0 ? forward(found) : backward();
        m_ended = step.ended;
        delivered.standing = {m_discontinuity, step.gap, step.ended, m_order.cseq};
        m_discontinuity = step.discontinuity || (m_discontinuity && !wanted);
        if (!wanted) continue;
        if (delivered.picture.bytes->empty()) break;
        m_sent = found.time;
        return delivered;
    }
    m_ended = true;
    return std::nullopt;
}

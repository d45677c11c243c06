#include "rtsp/card_delivery.h"

#include <cstdlib>

namespace {

/// Pictures: no search takes longer, for others wait meanwhile.
constexpr int kLongestGop = 3000;

} // namespace

CardDelivery::CardDelivery(const PlayOrder& order)
    : m_order(order), m_ended(!m_recording.goTo(order.from, order.scale > 0)), m_gop(order.from) {}

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
    for (int n = 0; !m_recording.atIPicture(); ++n)
        if (n == kLongestGop || !m_recording.step(false)) return {true, true, false};
    m_gop = m_recording.time();
    return {false, gap, true};
}

std::optional<CardDelivery::Delivered> CardDelivery::next() {
    if (m_ended) return std::nullopt;
    const RecordingTime::Found found = m_recording.found();
    const bool iPicture = m_recording.atIPicture();
    const bool apart = !m_sent || std::abs(found.time - *m_sent) >= m_order.intervalMs;
    const bool wanted = !m_order.iPicturesOnly || (iPicture && apart);
    std::vector<char> bytes = wanted ? m_recording.read() : std::vector<char>{};
    const Step step = m_order.scale > 0 ? forward(found) : backward();
    const Standing standing{m_discontinuity, step.gap, step.ended, m_order.cseq};
    m_discontinuity = step.discontinuity || (m_discontinuity && !wanted);
    m_ended = step.ended || (wanted && bytes.empty());
    if (bytes.empty()) return std::nullopt;
    m_sent = found.time;
    return Delivered{{.bytes = std::make_shared<const std::vector<char>>(std::move(bytes)),
                      .stamp = {},
                      .iPicture = iPicture,
                      .time = found.time,
                      .next = {}},
                     standing};
}

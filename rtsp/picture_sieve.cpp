#include "rtsp/picture_sieve.h"

#include <cstdlib>
#include <utility>

void PictureSieve::begin(const PlayOrder& order) {
    m_order = order;
    m_held.reset();
    m_lost = false;
}

void PictureSieve::jump() {
    m_sentTime.reset();
    m_discontinuity = true;
}

/// Forward: to the picture sent from the card, or that one itself.
bool PictureSieve::leadsUp(const Picture& picture) const {
    return m_order.target && m_order.scale > 0 && m_sentTime && picture.time &&
           *picture.time <= m_order.target->time;
}

bool PictureSieve::isBeyond(std::optional<int64_t> time) const {
    if (!time || !m_order.until) return false;
    return m_order.scale > 0 ? *time > *m_order.until : *time < *m_order.until;
}

/// Whether it is among those that the client wants.
bool PictureSieve::passes(const Picture& picture) const {
    if (!m_order.iPicturesOnly) return true;
    if (!picture.iPicture) return false;
    return !m_sentTime || !picture.time || std::abs(*picture.time - *m_sentTime) >= m_order.intervalMs;
}

bool PictureSieve::take(const Picture& picture) {
    if (leadsUp(picture)) return true;
    if (isBeyond(picture.time)) return false;
    if (picture.gapBefore || m_lost) m_discontinuity = true;
    if (m_lost && !picture.iPicture) return true;
    m_lost = false;
    if (passes(picture)) {
        sendHeld(false, picture.gapBefore);
        send(picture);
    }
    // In normal play the next picture is known: no need to wait for it.
    return m_order.isFast() || !isBeyond(picture.next);
}

void PictureSieve::send(const Picture& picture) {
    Standing standing{.discontinuity = std::exchange(m_discontinuity, false), .cseq = m_order.cseq};
    m_sentTime = picture.time;
    if (m_order.holdBack) {
        m_held = picture;
        m_heldStanding = standing;
        return;
    }
    if (!m_order.isFast()) {
        const bool atEnd = picture.time && !picture.next && !m_out.recordingGoesOn();
        standing.endOfSection = picture.gapAfter || atEnd;
        standing.terminal = atEnd || isBeyond(picture.next);
    }
    m_out.picture(picture, standing);
}

void PictureSieve::sendHeld(bool last, bool gap) {
    if (!m_held) return;
    m_heldStanding.terminal = last;
    m_heldStanding.endOfSection = gap;
    const Picture held = *std::exchange(m_held, std::nullopt);
    m_out.picture(held, m_heldStanding);
}

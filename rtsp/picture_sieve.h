// Which of the pictures that come are sent, and how each stands among them: the end of the range, pictures
// left out, the filters of the client. Pure.
#pragma once

#include "rtsp/play_order.h"

class PictureSieve {
public:
    explicit PictureSieve(PlayOutput& output) : m_out(output) {}

    void begin(const PlayOrder& order);
    /// The pictures up to this one have been sent.
    void goOnBehind(const std::optional<Picture>& target) { m_order.target = target; }
    /// The next picture does not go on from the one before.
    void jump();
    /// Nothing before the next I-picture can be decoded.
    void lose() { m_lost = true; }
    /// Sends it, unless it is left out. False when no other is to follow: the range has ended.
    bool take(const Picture& picture);
    /// What was held back goes: as the last of all, or before a gap.
    void sendHeld(bool last, bool gap);
    /// When the picture sent last was recorded.
    std::optional<int64_t> sentTime() const { return m_sentTime; }

private:
    bool leadsUp(const Picture& picture) const;
    bool isBeyond(std::optional<int64_t> time) const;
    bool passes(const Picture& picture) const;
    void send(const Picture& picture);

    PlayOutput& m_out;
    PlayOrder m_order;
    std::optional<int64_t> m_sentTime;
    std::optional<Picture> m_held;
    Standing m_heldStanding;
    bool m_discontinuity = true;
    bool m_lost = false;
};

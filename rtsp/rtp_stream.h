// The one RTP stream of a session: packets, time stamps in real time, sender reports, the good-bye. Pure:
// bytes go to whoever asks for them. Sequence numbers and stamps go on from PLAY to PLAY and never go back.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "platform/output_words.h"
#include "rtsp/picture.h"

/// What the daemon's stamps are worth.
enum class Pace {
    recorded, ///< normal and slow play: their differences are real time
    sampled,  ///< fast and reverse play: pictures come about once per skip time, whatever the stamps say
};

class RtpStream {
public:
    using Sink = std::function<void(std::string_view packet)>;
    static constexpr uint8_t kPayloadType = 96;

    /// `sink` takes the packets of pictures.
    RtpStream(uint32_t ssrc, uint16_t firstSequence, uint32_t firstTime, Sink sink);

    uint16_t nextSequence() const { return m_sequence; }
    /// With it, the first packet of each picture carries the replay extension.
    void setReplayExtension() { m_extension = true; }
    bool hasReplayExtension() const { return m_extension; }

    /// A PLAY begins: the RTP time of its first picture.
    uint32_t begin(int64_t nowUs);
    /// Packets of one picture, in order.
    void send(const Picture& picture, const Standing& standing, Pace pace, int64_t nowUs);
    /// The same at an RTP time of the caller's: without rate control it is the recording's.
    void sendAt(uint32_t time, const Picture& picture, const Standing& standing, int64_t nowUs);
    /// A picture that could not be sent counts in time.
    void advance(const Picture& picture, Pace pace, int64_t nowUs);

    /// A report about this moment; `ntp` is its wall-clock time (64 bits, since 1900).
    void senderReport(uint64_t ntp, int64_t nowUs, bool bye, const Sink& sink) const;

private:
    uint32_t elapsed(int64_t nowUs) const;
    void packets(const Picture& picture, const Standing& standing);
    void unit(std::string_view nalUnit, const Picture& picture, const Standing* standing, bool last);
    void packet(std::string_view head, std::string_view payload, const Picture& picture,
                const Standing* standing, bool marker);

    const Sink m_sink;
    const uint32_t m_ssrc;
    uint16_t m_sequence;
    uint32_t m_time;                 ///< RTP time of the newest picture
    int64_t m_stepUs = 0;            ///< to it, in normal or slow play
    int64_t m_timeUs = 0;            ///< when that was
    std::optional<uint32_t> m_stamp; ///< the daemon's stamp of that picture
    bool m_begun = false;            ///< a picture has been there
    bool m_fresh = false;            ///< `begin` has set the time of the picture to come
    bool m_extension = false;
    std::string m_packet;                 ///< under way
    uint32_t m_packets = 0, m_octets = 0; ///< sent, as reports count them
};

/// Wall-clock time as NTP's 64 bits.
uint64_t ntpTime(int64_t usSinceEpoch);

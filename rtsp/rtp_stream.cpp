#include "rtsp/rtp_stream.h"

#include <algorithm>
#include <string>

#include "tools/record/h264.h"

namespace {

/// Fits into an Ethernet frame with IP, UDP, RTP and the extension.
constexpr size_t kMostPayload = 1400;
constexpr uint8_t kVersion = 0x80, kExtended = 0x90;
constexpr uint16_t kReplayExtension = 0xABAC, kReplayWords = 3;
constexpr uint32_t kLongestStep = 1000 * kPtsPerMs; ///< of a stamp that is taken for real time
constexpr uint8_t kFragment = 28;                   ///< NAL unit type FU-A
constexpr int64_t kSampleUs = kSkipMs * 1000;       ///< between two pictures of Pace::sampled

/// The lowest `count` bytes of the value, the highest one first.
void put(std::string& packet, uint64_t value, int count) {
    while (count-- > 0) packet += static_cast<char>(value >> (8 * count));
}

void putReplayExtension(std::string& packet, const Picture& picture, const Standing& standing) {
    put(packet, kReplayExtension, 2);
    put(packet, kReplayWords, 2);
    put(packet, picture.time ? ntpTime(*picture.time * 1000) : 0, 8);
    put(packet,
        (picture.iPicture ? 0x80u : 0) | (standing.endOfSection ? 0x40u : 0) |
            (standing.discontinuity ? 0x20u : 0) | (standing.terminal ? 0x10u : 0),
        1);
    put(packet, standing.cseq, 1);
    put(packet, 0, 2);
}

} // namespace

uint64_t ntpTime(int64_t usSinceEpoch) {
    constexpr uint64_t kFrom1900 = 2'208'988'800;
    constexpr uint64_t kMillion = 1'000'000;
    const auto us = static_cast<uint64_t>(usSinceEpoch);
    return ((us / kMillion + kFrom1900) << 32) | (((us % kMillion) << 32) / kMillion);
}

RtpStream::RtpStream(uint32_t ssrc, uint16_t firstSequence, uint32_t firstTime, Sink sink)
    : m_sink(std::move(sink)), m_ssrc(ssrc), m_sequence(firstSequence), m_time(firstTime) {}

uint32_t RtpStream::elapsed(int64_t nowUs) const {
    return static_cast<uint32_t>((nowUs - m_timeUs) * kPtsPerMs / 1000);
}

uint32_t RtpStream::begin(int64_t nowUs) {
    // The last picture's time may be ahead of now; it goes on from there all the same.
    if (m_begun) m_time += nowUs > m_timeUs ? std::max(elapsed(nowUs), 1u) : 1u;
    m_timeUs = nowUs;
    m_stepUs = 0;
    m_begun = m_fresh = true;
    return m_time;
}

void RtpStream::advance(const Picture& picture, Pace pace, int64_t nowUs) {
    const uint32_t step =
        picture.stamp && m_stamp ? *picture.stamp - *m_stamp : 0; // wraps at 32 bits on purpose
    m_stamp = picture.stamp;
    if (m_fresh) {
        m_fresh = false;
        m_timeUs = nowUs; // it may have been held back
        return;
    }
    if (pace == Pace::recorded && step > 0 && step <= kLongestStep) {
        // The stamps go on where they are; what reports tell follows them.
        m_time += step;
        m_timeUs += static_cast<int64_t>(step) * 1000 / kPtsPerMs;
        m_stepUs = static_cast<int64_t>(step) * 1000 / kPtsPerMs;
        return;
    }
    int64_t stepUs = nowUs - m_timeUs;
    // Pictures of fast play come in jerks: a nominal step, drawn slowly to the clock, is smoother.
    if (pace == Pace::sampled && stepUs < 2 * kSampleUs) stepUs = kSampleUs + (stepUs - kSampleUs) / 8;
    // The output runs a picture ahead: no two of them are closer together than they use to be.
    stepUs = std::max(stepUs, pace == Pace::recorded ? std::max<int64_t>(m_stepUs, 1000) : kSampleUs / 2);
    m_time += static_cast<uint32_t>(stepUs * kPtsPerMs / 1000);
    m_timeUs += stepUs;
}

void RtpStream::send(const Picture& picture, const Standing& standing, Pace pace, int64_t nowUs) {
    advance(picture, pace, nowUs);
    packets(picture, standing);
}

void RtpStream::sendAt(uint32_t time, const Picture& picture, const Standing& standing, int64_t nowUs) {
    m_time = time;
    m_timeUs = nowUs;
    m_stamp.reset();
    m_begun = true;
    m_fresh = false;
    packets(picture, standing);
}

void RtpStream::packets(const Picture& picture, const Standing& standing) {
    const auto units = h264::nalUnits({picture.bytes->data(), picture.bytes->size()});
    const Standing* first = &standing;
    for (size_t n = 0; n < units.size(); ++n) {
        unit(units[n], picture, first, n + 1 == units.size());
        first = nullptr;
    }
}

void RtpStream::unit(std::string_view nalUnit, const Picture& picture, const Standing* standing, bool last) {
    if (nalUnit.size() <= kMostPayload) {
        packet({}, nalUnit, picture, standing, last);
        return;
    }
    const auto header = static_cast<uint8_t>(nalUnit.front());
    const char indicator = static_cast<char>((header & 0xE0) | kFragment);
    std::string_view left = nalUnit.substr(1);
    for (bool begins = true; !left.empty(); begins = false) {
        const std::string_view part = left.substr(0, kMostPayload - 2);
        left.remove_prefix(part.size());
        const int edges = (begins ? 0x80 : 0) | (left.empty() ? 0x40 : 0);
        const char head[] = {indicator, static_cast<char>(edges | (header & 0x1F))};
        packet({head, sizeof head}, part, picture, begins ? standing : nullptr, last && left.empty());
    }
}

void RtpStream::packet(std::string_view head, std::string_view payload, const Picture& picture,
                       const Standing* standing, bool marker) {
    const bool extended = m_extension && standing;
    std::string& packet = m_packet;
    packet.clear();
    put(packet, extended ? kExtended : kVersion, 1);
    put(packet, (marker ? 0x80u : 0) | kPayloadType, 1);
    put(packet, m_sequence++, 2);
    put(packet, m_time, 4);
    put(packet, m_ssrc, 4);
    if (extended) putReplayExtension(packet, picture, *standing);
    packet.append(head).append(payload);
    m_sink(packet);
    ++m_packets;
    m_octets += static_cast<uint32_t>(head.size() + payload.size());
}

void RtpStream::senderReport(uint64_t ntp, int64_t nowUs, bool bye, const Sink& sink) const {
    // Each begins with the version, how many sources or chunks, the type, and its words beside the first.
    constexpr uint32_t kSenderReport = 0x80C80006, kDescription = 0x81CA0004, kBye = 0x81CB0001;
    constexpr std::string_view kName("\1\6tavirn\0\0\0\0", 12); // CNAME, its length, the end and padding
    std::string packet;
    put(packet, kSenderReport, 4);
    put(packet, m_ssrc, 4);
    put(packet, ntp, 8);
    put(packet, m_time + elapsed(nowUs), 4);
    put(packet, m_packets, 4);
    put(packet, m_octets, 4);
    put(packet, kDescription, 4);
    put(packet, m_ssrc, 4);
    packet += kName;
    if (bye) {
        put(packet, kBye, 4);
        put(packet, m_ssrc, 4);
    }
    sink(packet);
}

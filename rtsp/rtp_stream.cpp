#include "rtsp/rtp_stream.h"

#include <algorithm>
#include <cstring>
#include <gst/rtp/gstrtcpbuffer.h>
#include <gst/rtp/gstrtpbuffer.h>
#include <string>

#include "tools/record/h264.h"

namespace {

/// Fits into an Ethernet frame with IP, UDP, RTP and the extension.
constexpr size_t kMostPayload = 1400;
constexpr uint16_t kReplayExtension = 0xABAC;
constexpr uint32_t kReplayWords = 3;
constexpr uint32_t kLongestStep = 1000 * kPtsPerMs; ///< of a stamp that is taken for real time
constexpr uint8_t kFragment = 28;                   ///< NAL unit type FU-A
constexpr int64_t kSampleUs = kSkipMs * 1000;       ///< between two pictures of Pace::sampled

/// Lets the buffer go.
void giveTo(const RtpStream::Sink& sink, GstBuffer* buffer) {
    GstMapInfo map;
    gst_buffer_map(buffer, &map, GST_MAP_READ);
    sink({reinterpret_cast<const char*>(map.data), map.size});
    gst_buffer_unmap(buffer, &map);
    gst_buffer_unref(buffer);
}

void putWord(uint8_t* to, uint32_t word) {
    for (int shift = 24; shift >= 0; shift -= 8) *to++ = static_cast<uint8_t>(word >> shift);
}

void putReplayExtension(GstRTPBuffer& rtp, const Picture& picture, const Standing& standing) {
    gst_rtp_buffer_set_extension_data(&rtp, kReplayExtension, kReplayWords);
    gpointer data = nullptr;
    gst_rtp_buffer_get_extension_data(&rtp, nullptr, &data, nullptr);
    auto* bytes = static_cast<uint8_t*>(data);
    std::memset(bytes, 0, kReplayWords * 4);
    const uint64_t ntp = picture.time ? ntpTime(*picture.time * 1000) : 0;
    putWord(bytes, static_cast<uint32_t>(ntp >> 32));
    putWord(bytes + 4, static_cast<uint32_t>(ntp));
    bytes[8] = static_cast<uint8_t>((picture.iPicture ? 0x80 : 0) | (standing.endOfSection ? 0x40 : 0) |
                                    (standing.discontinuity ? 0x20 : 0) | (standing.terminal ? 0x10 : 0));
    bytes[9] = standing.cseq;
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
    const size_t bytes = head.size() + payload.size();
    GstBuffer* buffer = gst_rtp_buffer_new_allocate(static_cast<guint>(bytes), 0, 0);
    GstRTPBuffer rtp = GST_RTP_BUFFER_INIT;
    gst_rtp_buffer_map(buffer, GST_MAP_READWRITE, &rtp);
    gst_rtp_buffer_set_payload_type(&rtp, kPayloadType);
    gst_rtp_buffer_set_ssrc(&rtp, m_ssrc);
    gst_rtp_buffer_set_seq(&rtp, m_sequence++);
    gst_rtp_buffer_set_timestamp(&rtp, m_time);
    gst_rtp_buffer_set_marker(&rtp, marker);
    if (m_extension && standing) putReplayExtension(rtp, picture, *standing);
    auto* to = static_cast<char*>(gst_rtp_buffer_get_payload(&rtp));
    head.copy(to, head.size());
    payload.copy(to + head.size(), payload.size());
    gst_rtp_buffer_unmap(&rtp);

    giveTo(m_sink, buffer);
    ++m_packets;
    m_octets += static_cast<uint32_t>(bytes);
}

void RtpStream::senderReport(uint64_t ntp, int64_t nowUs, bool bye, const Sink& sink) const {
    constexpr guint kMostBytes = 256;
    constexpr char kName[] = "tavirn";
    GstBuffer* buffer = gst_rtcp_buffer_new(kMostBytes);
    GstRTCPBuffer rtcp = GST_RTCP_BUFFER_INIT;
    gst_rtcp_buffer_map(buffer, GST_MAP_READWRITE, &rtcp);
    GstRTCPPacket packet;
    gst_rtcp_buffer_add_packet(&rtcp, GST_RTCP_TYPE_SR, &packet);
    gst_rtcp_packet_sr_set_sender_info(&packet, m_ssrc, ntp, m_time + elapsed(nowUs), m_packets, m_octets);
    gst_rtcp_buffer_add_packet(&rtcp, GST_RTCP_TYPE_SDES, &packet);
    gst_rtcp_packet_sdes_add_item(&packet, m_ssrc);
    gst_rtcp_packet_sdes_add_entry(&packet, GST_RTCP_SDES_CNAME, sizeof kName - 1,
                                   reinterpret_cast<const guint8*>(kName));
    if (bye) {
        gst_rtcp_buffer_add_packet(&rtcp, GST_RTCP_TYPE_BYE, &packet);
        gst_rtcp_packet_bye_add_ssrc(&packet, m_ssrc);
    }
    gst_rtcp_buffer_unmap(&rtcp);
    giveTo(sink, buffer);
}

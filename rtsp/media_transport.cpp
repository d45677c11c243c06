#include "rtsp/media_transport.h"

#include <gst/rtsp/gstrtsptransport.h>
#include <limits>

namespace {

/// Of the time stamps of what the client has not taken yet: more, and it is behind.
constexpr int64_t kMostBehind = 1'000'000;
/// Bytes that wait at most where pictures are sent as fast as they are taken.
constexpr size_t kAhead = 1u << 20;

class Interleaved : public MediaTransport {
public:
    Interleaved(Connection& connection, const TransportWish& wish)
        : m_connection(connection), m_rtp(static_cast<char>(wish.first)),
          m_rtcp(static_cast<char>(wish.second)) {}

    bool keepsUp() override {
        const int64_t now = g_get_monotonic_time();
        if (m_connection.backlog() == 0) m_emptyAt = now;
        return now - m_emptyAt < kMostBehind;
    }
    bool takesMore() override { return m_connection.backlog() < kAhead; }
    bool holdsBack() const override { return true; }
    void rtp(std::string_view packet) override { frame(m_rtp, packet); }
    void rtcp(std::string_view packet) override { frame(m_rtcp, packet); }
    void flush() override {
        m_connection.send(m_frames);
        m_frames.clear();
    }
    int64_t lastSign() const override { return m_connection.lastSign(); }
    std::string description(uint32_t) const override {
        return "RTP/AVP/TCP;unicast;interleaved=" + std::to_string(static_cast<unsigned char>(m_rtp)) + "-" +
               std::to_string(static_cast<unsigned char>(m_rtcp));
    }

private:
    void frame(char channel, std::string_view packet) {
        const char head[] = {'$', channel, static_cast<char>(packet.size() >> 8),
                             static_cast<char>(packet.size() & 0xFF)};
        m_frames.append(head, sizeof head);
        m_frames.append(packet);
    }

    Connection& m_connection;
    const char m_rtp, m_rtcp;
    std::string m_frames;
    int64_t m_emptyAt = g_get_monotonic_time(); ///< when the client had taken everything
};

class Udp : public MediaTransport {
public:
    Udp(Connection& connection, const TransportWish& wish) : m_connection(connection), m_wish(wish) {
        const ObjectPtr<GInetAddress> peer(g_inet_address_new_from_string(connection.peer().c_str()));
        m_toRtp.reset(g_inet_socket_address_new(peer.get(), static_cast<guint16>(wish.first)));
        m_toRtcp.reset(g_inet_socket_address_new(peer.get(), static_cast<guint16>(wish.second)));
    }

    bool bindPorts() {
        constexpr int kTries = 100;
        for (int n = 0; n < kTries; ++n) {
            const int port = 2 * g_random_int_range(10000, 30000);
            m_rtp = bound(port);
            m_rtcp = m_rtp ? bound(port + 1) : nullptr;
            if (!m_rtcp) continue;
            m_port = port;
            listen();
            return true;
        }
        return false;
    }

    bool keepsUp() override { return true; }
    void rtp(std::string_view packet) override { send(m_rtp.get(), m_toRtp.get(), packet); }
    void rtcp(std::string_view packet) override { send(m_rtcp.get(), m_toRtcp.get(), packet); }
    int64_t lastSign() const override { return std::max(m_lastReport, m_connection.lastRequest()); }
    std::string description(uint32_t ssrc) const override {
        char text[128];
        std::snprintf(text, sizeof text, "RTP/AVP;unicast;client_port=%d-%d;server_port=%d-%d;ssrc=%08X",
                      m_wish.first, m_wish.second, m_port, m_port + 1, ssrc);
        return text;
    }

private:
    /// On the address that the client has reached.
    ObjectPtr<GSocket> bound(int port) const {
        const ObjectPtr<GInetAddress> address(g_inet_address_new_from_string(m_connection.local().c_str()));
        ObjectPtr<GSocket> socket(g_socket_new(g_inet_address_get_family(address.get()),
                                               G_SOCKET_TYPE_DATAGRAM, G_SOCKET_PROTOCOL_UDP, nullptr));
        const ObjectPtr<GSocketAddress> here(
            g_inet_socket_address_new(address.get(), static_cast<guint16>(port)));
        if (!socket || !g_socket_bind(socket.get(), here.get(), FALSE, nullptr)) return nullptr;
        g_socket_set_blocking(socket.get(), FALSE);
        return socket;
    }

    /// Receiver reports are a sign of life; what they say is not looked at.
    void listen() {
        m_reading.reset(g_socket_create_source(m_rtcp.get(), G_IO_IN, nullptr));
        const GSocketSourceFunc came = [](GSocket* socket, GIOCondition, gpointer self) -> gboolean {
            char packet[2048];
            if (g_socket_receive(socket, packet, sizeof packet, nullptr, nullptr) > 0)
                static_cast<Udp*>(self)->m_lastReport = g_get_monotonic_time();
            return G_SOURCE_CONTINUE;
        };
        g_source_set_callback(m_reading.get(),
                              reinterpret_cast<GSourceFunc>(reinterpret_cast<void (*)()>(+came)), this,
                              nullptr);
        g_source_attach(m_reading.get(), nullptr);
    }

    /// What finds no room is lost, as anywhere on its way.
    static void send(GSocket* socket, GSocketAddress* to, std::string_view packet) {
        g_socket_send_to(socket, to, packet.data(), packet.size(), nullptr, nullptr);
    }

    Connection& m_connection;
    const TransportWish m_wish;
    ObjectPtr<GSocket> m_rtp, m_rtcp;
    ObjectPtr<GSocketAddress> m_toRtp, m_toRtcp;
    SourcePtr m_reading;
    int m_port = 0;
    int64_t m_lastReport = 0;
};

bool inRange(const GstRTSPRange& range, int low, int high) {
    return range.min >= low && range.min < high && range.max >= -1 && range.max <= high;
}

std::optional<TransportWish> readOne(const std::string& text) {
    GstRTSPTransport* transport = nullptr;
    gst_rtsp_transport_new(&transport);
    std::optional<TransportWish> wish;
    constexpr int kMostPort = std::numeric_limits<uint16_t>::max(), kMostChannel = 255;
    if (gst_rtsp_transport_parse(text.c_str(), transport) == GST_RTSP_OK &&
        transport->trans == GST_RTSP_TRANS_RTP && transport->profile == GST_RTSP_PROFILE_AVP) {
        const bool tcp = transport->lower_transport == GST_RTSP_LOWER_TRANS_TCP;
        GstRTSPRange range = tcp ? transport->interleaved : transport->client_port;
        if (tcp && range.min == -1) range = {0, 1};
        const bool usable =
            tcp ? inRange(range, 0, kMostChannel)
                : transport->lower_transport == GST_RTSP_LOWER_TRANS_UDP && inRange(range, 1024, kMostPort);
        if (usable) wish = {tcp, range.min, range.max > range.min ? range.max : range.min + 1};
    }
    gst_rtsp_transport_free(transport);
    return wish;
}

} // namespace

std::optional<TransportWish> readTransport(std::string_view header, bool tcpOnly) {
    while (!header.empty()) {
        const std::string one(header.substr(0, header.find(',')));
        header.remove_prefix(std::min(one.size() + 1, header.size()));
        if (const auto wish = readOne(one); wish && (wish->tcp || !tcpOnly)) return wish;
    }
    return std::nullopt;
}

std::unique_ptr<MediaTransport> interleavedTransport(Connection& connection, const TransportWish& wish) {
    return std::make_unique<Interleaved>(connection, wish);
}

std::unique_ptr<MediaTransport> udpTransport(Connection& connection, const TransportWish& wish) {
    auto udp = std::make_unique<Udp>(connection, wish);
    if (!udp->bindPorts()) return nullptr;
    return udp;
}

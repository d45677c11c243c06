#include "rtsp/media_transport.h"

#include <deque>
#include <gst/rtsp/gstrtsptransport.h>
#include <limits>
#include <sys/socket.h>

#include "platform/output_words.h"
#include "tools/common/formatted.h"

namespace {

/// Of the time stamps of what the client has not taken yet: more, and it is behind.
constexpr int64_t kMostBehind = 1'000'000;
/// Bytes that wait at most where pictures are sent as fast as they are taken.
constexpr size_t kAhead = 1u << 20;
/// A whole I-picture is handed to the system at once; it may grant less.
constexpr int kDatagramBytes = 2 << 20;
/// Over UDP, what a stall has held up follows at so many times its pace: the client's buffer is a small one.
constexpr int64_t kHurry = 4;
constexpr int64_t kLongestRestUs = 20'000; ///< between two pictures, for that
constexpr guint kPaceMs = 5;
constexpr size_t kMostDatagrams = 8192; ///< that wait

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
    void flush() override { m_connection.flush(); }
    int64_t lastSign() const override { return m_connection.lastSign(); }
    std::string description(uint32_t) const override {
        return formatted("RTP/AVP/TCP;unicast;interleaved=%d-%d", static_cast<unsigned char>(m_rtp),
                         static_cast<unsigned char>(m_rtcp));
    }

private:
    void frame(char channel, std::string_view packet) {
        const char head[] = {'$', channel, static_cast<char>(packet.size() >> 8),
                             static_cast<char>(packet.size() & 0xFF)};
        m_connection.queue({head, sizeof head});
        m_connection.queue(packet);
    }

    Connection& m_connection;
    const char m_rtp, m_rtcp;
    int64_t m_emptyAt = g_get_monotonic_time(); ///< when the client had taken everything
};

class Udp : public MediaTransport {
public:
    Udp(const Connection& connection, const TransportWish& wish) : m_connection(connection), m_wish(wish) {
        constexpr int kTries = 100;
        for (int n = 0; n < kTries && !m_rtcp; ++n) {
            m_port = 2 * g_random_int_range(10000, 30000);
            m_rtp = between(m_port, wish.first);
            m_rtcp = m_rtp ? between(m_port + 1, wish.second) : nullptr;
        }
        if (m_rtcp) listen();
    }

    bool hasPorts() const { return m_rtcp != nullptr; }
    ~Udp() override {
        for (const Waiting& one : m_waiting) send(one.socket, one.packet);
    }

    bool keepsUp() override { return m_waiting.size() < kMostDatagrams; }
    void rtp(std::string_view packet) override {
        if (const uint32_t time = GST_READ_UINT32_BE(packet.data() + 4); time != m_time) {
            const int64_t step = int64_t{time - m_time} * 1000 / kPtsPerMs; // wraps at 32 bits on purpose
            m_due = std::max(g_get_monotonic_time(), m_due + std::min(step / kHurry, kLongestRestUs));
            m_time = time;
        }
        hand(m_rtp.get(), packet, m_due);
    }
    /// Later than the packets before it, whose port is another: some clients leave at once when told
    /// good-bye.
    void rtcp(std::string_view packet) override { hand(m_rtcp.get(), packet, m_due + kLongestRestUs); }
    int64_t lastSign() const override { return std::max(m_lastReport, m_connection.lastRequest()); }
    std::string description(uint32_t ssrc) const override {
        return formatted("RTP/AVP;unicast;client_port=%d-%d;server_port=%d-%d;ssrc=%08X", m_wish.first,
                         m_wish.second, m_port, m_port + 1, ssrc);
    }

private:
    /// From the address that the client has reached to its own, and nobody else's; null when that port is
    /// taken.
    ObjectPtr<GSocket> between(int port, int clientPort) const {
        const auto address = [](const std::string& host, int number) {
            return ObjectPtr<GSocketAddress>(
                g_inet_socket_address_new_from_string(host.c_str(), static_cast<guint>(number)));
        };
        const auto here = address(m_connection.local(), port),
                   there = address(m_connection.peer(), clientPort);
        ObjectPtr<GSocket> socket(g_socket_new(g_socket_address_get_family(here.get()),
                                               G_SOCKET_TYPE_DATAGRAM, G_SOCKET_PROTOCOL_UDP, nullptr));
        if (!socket || !g_socket_bind(socket.get(), here.get(), FALSE, nullptr) ||
            !g_socket_connect(socket.get(), there.get(), nullptr, nullptr))
            return nullptr;
        g_socket_set_blocking(socket.get(), FALSE);
        g_socket_set_option(socket.get(), SOL_SOCKET, SO_SNDBUF, kDatagramBytes, nullptr);
        return socket;
    }

    /// Receiver reports are a sign of life; what they say is not looked at.
    void listen() {
        const GSocketSourceFunc came = [](GSocket* socket, GIOCondition, gpointer self) -> gboolean {
            char packet[2048];
            if (g_socket_receive(socket, packet, sizeof packet, nullptr, nullptr) > 0)
                static_cast<Udp*>(self)->m_lastReport = g_get_monotonic_time();
            return G_SOURCE_CONTINUE;
        };
        m_reading = attached(g_socket_create_source(m_rtcp.get(), G_IO_IN, nullptr), came, this);
    }

    /// At once when it is due and the system has room, else later.
    void hand(GSocket* socket, std::string_view packet, int64_t due) {
        if (m_waiting.empty() && due <= g_get_monotonic_time() && send(socket, packet)) return;
        m_waiting.push_back({due, socket, std::string(packet)});
        const GSourceFunc turn = [](gpointer self) -> gboolean {
            static_cast<Udp*>(self)->sendDue();
            return G_SOURCE_CONTINUE;
        };
        if (!m_pacing) m_pacing = every(kPaceMs, turn, this);
    }
    void sendDue() {
        const int64_t now = g_get_monotonic_time();
        while (!m_waiting.empty() && m_waiting.front().due <= now &&
               send(m_waiting.front().socket, m_waiting.front().packet))
            m_waiting.pop_front();
        if (m_waiting.empty()) m_pacing.reset();
    }
    /// False when there is no room for it; what cannot be sent at all is lost, as anywhere on its way.
    static bool send(GSocket* socket, std::string_view packet) {
        GError* error = nullptr;
        return g_socket_send(socket, packet.data(), packet.size(), nullptr, &error) >= 0 ||
               !wouldBlock(error);
    }

    /// A packet that is not due yet, or has found no room.
    struct Waiting {
        int64_t due;
        GSocket* socket;
        std::string packet;
    };

    const Connection& m_connection;
    const TransportWish m_wish;
    ObjectPtr<GSocket> m_rtp, m_rtcp;
    SourcePtr m_reading, m_pacing;
    std::deque<Waiting> m_waiting;
    uint32_t m_time = 0; ///< RTP time of the newest packet
    int64_t m_due = 0;   ///< when it may go
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
    if (!udp->hasPorts()) return nullptr;
    return udp;
}

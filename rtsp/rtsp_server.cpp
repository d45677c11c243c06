#include "rtsp/rtsp_server.h"

#include <algorithm>
#include <gst/rtsp/gstrtspdefs.h>
#include <stdexcept>

#include "rtsp/loop_turn.h"
#include "tools/common/formatted.h"

namespace {

constexpr int64_t kSecond = 1'000'000;
constexpr int kBacklog = 511;
/// Beyond so many connections at once, the next ones wait in the backlog.
constexpr size_t kMostConnections = 1500;
/// So much longer than a client is told that its session lasts without a sign of it.
constexpr int64_t kGrace = 5 * kSecond;
/// A daemon's session that nobody sets up.
constexpr int64_t kUnused = 10 * kSecond;

} // namespace

// ---- connections ----

RtspServer::RtspServer(ServerOptions options)
    : m_options(std::move(options)), m_service(g_socket_service_new()),
      m_playback([this] { forgetSession(); }) {
    GSocketListener* listener = G_SOCKET_LISTENER(m_service.get());
    g_socket_listener_set_backlog(listener, kBacklog);
    const ObjectPtr<GSocketAddress> address(
        g_inet_socket_address_new_from_string(m_options.bind.c_str(), m_options.port));
    if (!address) throw std::runtime_error("'" + m_options.bind + "' is no address");
    GError* error = nullptr;
    GSocketAddress* bound = nullptr;
    if (!g_socket_listener_add_address(listener, address.get(), G_SOCKET_TYPE_STREAM, G_SOCKET_PROTOCOL_TCP,
                                       nullptr, &bound, &error))
        throw std::runtime_error("cannot listen on port " + std::to_string(m_options.port) + ": " +
                                 taken(error));
    m_port = g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(bound));
    g_object_unref(bound);
    using OnIncoming = gboolean (*)(GSocketService*, GSocketConnection*, GObject*, gpointer);
    const OnIncoming incoming = [](GSocketService*, GSocketConnection* socket, GObject*,
                                   gpointer self) -> gboolean {
        static_cast<RtspServer*>(self)->accepted(socket);
        return TRUE;
    };
    g_signal_connect(m_service.get(), "incoming", G_CALLBACK(incoming), this);
    const GSourceFunc second = [](gpointer self) -> gboolean {
        static_cast<RtspServer*>(self)->tick();
        return G_SOURCE_CONTINUE;
    };
    m_ticking = every(1000, second, this);
}

RtspServer::~RtspServer() {
    const LoopTurn turn;
    g_socket_service_stop(m_service.get());
    g_socket_listener_close(G_SOCKET_LISTENER(m_service.get()));
    endSession();
}

void RtspServer::accepted(GSocketConnection* socket) {
    const uint64_t id = ++m_lastConnection;
    m_connections[id] = std::make_unique<Connection>(id, socket, m_options.certificate.get(),
                                                     static_cast<ConnectionEvents&>(*this));
    if (m_connections.size() >= kMostConnections) g_socket_service_stop(m_service.get());
}

/// Called from inside the connection, and maybe from inside the session's stream: both end a little later.
void RtspServer::closed(Connection& connection) {
    const auto entry = m_connections.find(connection.id());
    if (entry == m_connections.end()) return;
    m_dead.push_back(std::move(entry->second));
    m_connections.erase(entry);
    if (m_dead.size() == 1) later(0, [this] { sweep(); });
}

void RtspServer::sweep() {
    for (const auto& connection : m_dead)
        if (m_session && m_session->connection == connection->id()) endSession();
    m_dead.clear();
    if (m_connections.size() < kMostConnections) g_socket_service_start(m_service.get());
}

void RtspServer::tick() {
    const int64_t now = g_get_monotonic_time();
    if (m_session && now - m_playback.transport().lastSign() > kSessionSeconds * kSecond + kGrace)
        endSession();
    if (!m_session && m_playback.isOpen() && now - m_described > kUnused) m_playback.end();
    for (const auto& [id, connection] : m_connections)
        if (!m_session || m_session->connection != id) connection->hangUpIfLate(now);
}

Connection* RtspServer::connectionOf(const Asked& asked) const {
    const auto entry = m_connections.find(asked.connection);
    return entry == m_connections.end() ? nullptr : entry->second.get();
}

void RtspServer::reply(const Asked& asked, int status, const Headers& headers, const std::string& body) {
    Connection* connection = connectionOf(asked);
    if (!connection) return;
    std::string text = formatted("RTSP/1.0 %d %s\r\n", status,
                                 gst_rtsp_status_as_text(static_cast<GstRTSPStatusCode>(status)));
    text += "CSeq: " + asked.cseq + "\r\nServer: tavirn\r\n";
    for (const auto& [name, value] : headers) text += name + ": " + value + "\r\n";
    if (!body.empty()) text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    connection->send(text + "\r\n" + body);
}

#include "rtsp/rtsp_server.h"

#include <algorithm>
#include <gst/rtsp/gstrtspdefs.h>
#include <stdexcept>

#include "tools/common/formatted.h"

namespace {

constexpr int64_t kSecond = 1'000'000;
constexpr int kBacklog = 511;
/// Beyond so many connections at once, the next ones wait in the backlog.
constexpr size_t kMostConnections = 1500;
/// A request has to be whole after this time, and another to come, unless its connection carries the session.
constexpr int64_t kWholeRequest = 10 * kSecond;
constexpr int64_t kIdle = 30 * kSecond;
/// A client is told that its session lasts a minute without a sign of it.
constexpr int64_t kSilence = 65 * kSecond;
/// A daemon's session that nobody sets up.
constexpr int64_t kUnused = 10 * kSecond;

DaemonLink::Post intoLoop() {
    return [](std::function<void()> function) {
        const GSourceFunc run = [](gpointer data) -> gboolean {
            (*static_cast<std::function<void()>*>(data))();
            return G_SOURCE_REMOVE;
        };
        g_idle_add_full(G_PRIORITY_DEFAULT, run, new std::function<void()>(std::move(function)),
                        [](gpointer data) { delete static_cast<std::function<void()>*>(data); });
    };
}

} // namespace

// ---- connections ----

RtspServer::RtspServer(ServerOptions options)
    : m_options(std::move(options)), m_service(g_socket_service_new()), m_playback(intoLoop()) {
    GSocketListener* listener = G_SOCKET_LISTENER(m_service.get());
    g_socket_listener_set_backlog(listener, kBacklog);
    const ObjectPtr<GSocketAddress> address(
        g_inet_socket_address_new_from_string(m_options.bind.c_str(), m_options.port));
    if (!address) throw std::runtime_error("'" + m_options.bind + "' is no address");
    GError* error = nullptr;
    GSocketAddress* bound = nullptr;
    if (!g_socket_listener_add_address(listener, address.get(), G_SOCKET_TYPE_STREAM, G_SOCKET_PROTOCOL_TCP,
                                       nullptr, &bound, &error)) {
        const std::string reason = error->message;
        g_error_free(error);
        throw std::runtime_error("cannot listen on port " + std::to_string(m_options.port) + ": " + reason);
    }
    m_port = g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(bound));
    g_object_unref(bound);
    g_signal_connect(m_service.get(), "incoming", G_CALLBACK(onIncoming), this);
    m_ticking = every(1000, onTick, this);
}

RtspServer::~RtspServer() {
    g_socket_service_stop(m_service.get());
    g_socket_listener_close(G_SOCKET_LISTENER(m_service.get()));
    endSession();
}

gboolean RtspServer::onIncoming(GSocketService*, GSocketConnection* accepted, GObject*, gpointer self) {
    static_cast<RtspServer*>(self)->accepted(accepted);
    return TRUE;
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
    if (m_sweeping) return;
    const GSourceFunc run = [](gpointer self) -> gboolean {
        static_cast<RtspServer*>(self)->sweep();
        return G_SOURCE_REMOVE;
    };
    m_sweeping = every(0, run, this);
}

void RtspServer::sweep() {
    for (const auto& connection : m_dead)
        if (m_session && m_session->connection == connection->id()) endSession();
    m_dead.clear();
    m_sweeping.reset();
    if (m_connections.size() < kMostConnections) g_socket_service_start(m_service.get());
}

gboolean RtspServer::onTick(gpointer self) {
    static_cast<RtspServer*>(self)->tick();
    return G_SOURCE_CONTINUE;
}

void RtspServer::tick() {
    const int64_t now = g_get_monotonic_time();
    if (m_session && m_playback.isSetUp() && now - m_playback.transport().lastSign() > kSilence) endSession();
    if (!m_session && m_playback.isOpen() && now - m_described > kUnused) m_playback.end();
    std::vector<Connection*> late;
    for (const auto& [id, connection] : m_connections) {
        if (m_session && m_session->connection == id) continue;
        const int64_t since = now - connection->lastRequest();
        if (since > (connection->hasPartOfRequest() ? kWholeRequest : kIdle))
            late.push_back(connection.get());
    }
    for (Connection* connection : late) connection->close();
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

#include "rtsp/connection.h"

#include <algorithm>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace {

constexpr size_t kReadBytes = 4096;
constexpr size_t kWriteBytes = 65536;
/// Small, so that a client that does not read is noticed.
constexpr int kSocketBytes = 131072;
/// A client that asks on and on without reading is let go, soon where nothing but replies waits.
constexpr size_t kMostBacklog = 8u << 20, kMostReplies = 65536;
/// A request has to be whole after this time, in microseconds, and another to come.
constexpr int64_t kWholeRequest = 10'000'000, kIdle = 30'000'000;

std::string addressOf(GSocketAddress* address) {
    const ObjectPtr<GSocketAddress> owner(address);
    if (!address || !G_IS_INET_SOCKET_ADDRESS(address)) return "";
    return taken(g_inet_address_to_string(g_inet_socket_address_get_address(G_INET_SOCKET_ADDRESS(address))));
}

} // namespace

Connection::Connection(uint64_t id, GSocketConnection* accepted, GTlsCertificate* certificate,
                       ConnectionEvents& events)
    : m_id(id), m_events(events), m_socket(G_SOCKET_CONNECTION(g_object_ref(accepted))),
      m_peer(addressOf(g_socket_connection_get_remote_address(accepted, nullptr))),
      m_local(addressOf(g_socket_connection_get_local_address(accepted, nullptr))),
      m_lastSign(g_get_monotonic_time()), m_lastRequest(m_lastSign) {
    if (certificate != nullptr) m_partialSince = m_lastSign;
    GSocket* socket = g_socket_connection_get_socket(accepted);
    g_socket_set_option(socket, SOL_SOCKET, SO_SNDBUF, kSocketBytes, nullptr);
    g_socket_set_option(socket, IPPROTO_TCP, TCP_NODELAY, 1, nullptr);
    if (certificate) {
        m_stream.reset(g_tls_server_connection_new(G_IO_STREAM(accepted), certificate, nullptr));
        // Nobody's certificate is looked at: those that the system trusts would take megabytes each time.
        g_tls_connection_set_database(G_TLS_CONNECTION(m_stream.get()), nullptr);
    } else {
        m_stream.reset(G_IO_STREAM(g_object_ref(accepted)));
    }
    auto* input = G_POLLABLE_INPUT_STREAM(g_io_stream_get_input_stream(m_stream.get()));
    const GPollableSourceFunc readable = [](GObject*, gpointer self) -> gboolean {
        static_cast<Connection*>(self)->read();
        return G_SOURCE_CONTINUE; // a source that has been destroyed meanwhile stays so
    };
    m_reading = attached(g_pollable_input_stream_create_source(input, nullptr), readable, this);
}

Connection::~Connection() {
    m_reading.reset();
    m_writing.reset();
    g_socket_close(g_socket_connection_get_socket(m_socket.get()), nullptr); // TLS would wait for its turn
}

GPollableOutputStream* Connection::output() const {
    return G_POLLABLE_OUTPUT_STREAM(g_io_stream_get_output_stream(m_stream.get()));
}

void Connection::hangUpIfLate(int64_t now) {
    if (m_partialSince ? now - *m_partialSince <= kWholeRequest : now - m_lastRequest <= kIdle) return;
    // Not closed here: a handshake of TLS has a thread and a hold on itself until its end has been read.
    g_socket_shutdown(g_socket_connection_get_socket(m_socket.get()), TRUE, TRUE, nullptr);
}

/// One read at a time: other clients have their turn in between.
void Connection::read() {
    char bytes[kReadBytes];
    GError* error = nullptr;
    auto* input = G_POLLABLE_INPUT_STREAM(g_io_stream_get_input_stream(m_stream.get()));
    const gssize got = g_pollable_input_stream_read_nonblocking(input, bytes, sizeof bytes, nullptr, &error);
    if (got < 0 && wouldBlock(error)) return;
    if (got <= 0) {
        close();
        return;
    }
    m_parser.feed({bytes, static_cast<size_t>(got)});
    for (RtspRequest request;;) {
        const auto result = m_parser.next(request);
        if (result != RequestParser::Result::incomplete || m_parser.isEmpty())
            m_partialSince.reset();
        else if (!m_partialSince)
            m_partialSince = g_get_monotonic_time();
        if (!handle(result, request)) return;
    }
}

/// Whether there may be more.
bool Connection::handle(RequestParser::Result result, const RtspRequest& request) {
    using Result = RequestParser::Result;
    switch (result) {
    case Result::incomplete:
        return false;
    case Result::interleaved:
        m_lastSign = g_get_monotonic_time();
        return true;
    case Result::request:
        m_lastSign = m_lastRequest = g_get_monotonic_time();
        m_events.request(*this, request); // marks it closed rather than deletes it
        return !m_closing && !m_closed;
    case Result::malformed:
        send("RTSP/1.0 400 Bad Request\r\n\r\n");
        break;
    case Result::tooLong:
        send("RTSP/1.0 413 Request Entity Too Large\r\n\r\n");
        break;
    }
    closeWhenSent();
    return false;
}

void Connection::queue(std::string_view bytes) {
    if (m_closed) return;
    // What was sent of a session that has ended may still wait.
    if (carriesSession || backlog() == 0) m_mostBacklog = carriesSession ? kMostBacklog : kMostReplies;
    if (backlog() + bytes.size() > m_mostBacklog)
        close();
    else
        m_out.append(bytes);
}

void Connection::flush() {
    if (!m_closed && !m_writing) write();
}

void Connection::write() {
    while (backlog() > 0) {
        if (m_attempt == 0) m_attempt = std::min(backlog(), kWriteBytes);
        GError* error = nullptr;
        const gssize sent = g_pollable_output_stream_write_nonblocking(output(), m_out.data() + m_sent,
                                                                       m_attempt, nullptr, &error);
        if (sent < 0 && wouldBlock(error)) {
            waitUntilWritable();
            return;
        }
        if (sent < 0) {
            close();
            return;
        }
        m_attempt = 0;
        m_sent += static_cast<size_t>(sent);
        m_lastSign = g_get_monotonic_time();
    }
    m_out.clear();
    m_sent = 0;
    if (m_closing) close();
}

void Connection::waitUntilWritable() {
    if (m_sent > kWriteBytes) {
        m_out.erase(0, m_sent);
        m_sent = 0;
    }
    const GPollableSourceFunc writable = [](GObject*, gpointer self) -> gboolean {
        auto* connection = static_cast<Connection*>(self);
        connection->m_writing.reset();
        connection->write();
        return G_SOURCE_REMOVE;
    };
    m_writing = attached(g_pollable_output_stream_create_source(output(), nullptr), writable, this);
}

void Connection::closeWhenSent() {
    m_closing = true;
    m_reading.reset();
    if (backlog() == 0) close();
}

void Connection::close() {
    if (m_closed) return;
    m_closed = true;
    m_reading.reset();
    m_writing.reset();
    m_events.closed(*this);
}

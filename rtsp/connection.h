// One client's connection: requests come in, replies and interleaved packets go out. Never blocks, reads no
// more at a time than it can keep, and tells how far the client is behind.
#pragma once

#include <optional>
#include <string>

#include "rtsp/glib_object.h"
#include "rtsp/request_parser.h"

class Connection;

/// What a connection tells. From `closed` on it may go, but not inside: its own functions are still under
/// way.
class ConnectionEvents {
public:
    virtual ~ConnectionEvents() = default;
    virtual void request(Connection& connection, const RtspRequest& request) = 0;
    virtual void closed(Connection& connection) = 0;
};

class Connection {
public:
    /// With a certificate, TLS is spoken.
    Connection(uint64_t id, GSocketConnection* accepted, GTlsCertificate* certificate,
               ConnectionEvents& events);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    uint64_t id() const { return m_id; }
    const std::string& peer() const { return m_peer; }   ///< address, no port
    const std::string& local() const { return m_local; } ///< the address that the client has reached

    void send(std::string_view bytes) {
        queue(bytes);
        flush();
    }
    /// What is queued goes out with the next `flush`.
    void queue(std::string_view bytes);
    void flush();
    /// Bytes that the client has not taken yet.
    size_t backlog() const { return m_out.size() - m_sent; }
    /// When a request or a packet last came, or sent bytes were taken; microseconds, monotonic.
    int64_t lastSign() const { return m_lastSign; }
    /// When the last whole request came, or the connection began.
    int64_t lastRequest() const { return m_lastRequest; }
    /// When a request is not whole in time, or none has come for long: it soon closes.
    void hangUpIfLate(int64_t now);
    /// No more is read; closed once all has been sent.
    void closeWhenSent();
    void close();

    bool authenticated = false;  ///< as the server has found
    bool refusing = false;       ///< a wrong answer waits for its refusal
    bool carriesSession = false; ///< pictures may wait in it
    std::string nonce;           ///< that its credentials are to be made for

private:
    void read();
    bool handle(RequestParser::Result result, const RtspRequest& request);
    void write();
    void waitUntilWritable();
    GPollableOutputStream* output() const;

    const uint64_t m_id;
    ConnectionEvents& m_events;
    ObjectPtr<GSocketConnection> m_socket;
    ObjectPtr<GIOStream> m_stream; ///< the socket's own, or TLS over it
    std::string m_peer, m_local;
    SourcePtr m_reading, m_writing;
    RequestParser m_parser;
    std::string m_out;
    size_t m_sent = 0; ///< of m_out
    size_t m_mostBacklog = 0;
    size_t m_attempt = 0; ///< TLS wants the same bytes again after a write that would have blocked
    int64_t m_lastSign, m_lastRequest;
    std::optional<int64_t> m_partialSince; ///< a request has begun, or TLS has, and is not whole
    bool m_closing = false;
    bool m_closed = false;
};

// rtsp/ holds the RTSP server beside the daemon: clients' connections, the play machine, packets. It uses
// what any server could, and the daemon never knows of it.
//
// RTSP: the listening socket, the clients' connections, and what each method does to the one playback
// session.
#pragma once

#include <map>
#include <optional>
#include <vector>

#include "rtsp/connection.h"
#include "rtsp/credentials.h"
#include "rtsp/description.h"

struct ServerOptions {
    std::string bind = "127.0.0.1";
    uint16_t port = 8554; ///< 0: any
    std::string path = "playback";
    std::optional<Credentials> credentials{};
    ObjectPtr<GTlsCertificate> certificate{}; ///< with it, TLS is spoken
};

class RtspServer : private ConnectionEvents {
public:
    /// Listens. Throws std::runtime_error with one sentence when it cannot.
    explicit RtspServer(ServerOptions options);
    ~RtspServer() override;

    uint16_t port() const { return m_port; }

private:
    /// A client is told that its session lasts so long without a sign of it.
    static constexpr int kSessionSeconds = 60;

    /// A client's session; there is one at most.
    struct Session {
        std::string id;
        uint64_t connection;
        std::string track; ///< URI of its SETUP
        RangeUnit unit;
        int64_t zero; ///< where its npt is 0
        bool live;    ///< its first PLAY, yet to come, begins at the live edge
    };
    /// A reply under way: which connection, which CSeq.
    struct Asked {
        uint64_t connection;
        std::string cseq;
    };
    using Headers = std::vector<std::pair<std::string, std::string>>;

    void accepted(GSocketConnection* socket);
    void tick();
    void sweep();

    void request(Connection& connection, const RtspRequest& request) override;
    void closed(Connection& connection) override;
    bool authenticated(Connection& connection, const RtspRequest& request, const Asked& asked);
    std::optional<View> viewOf(const std::string& uri) const;
    bool hasSession(const Connection& connection, const RtspRequest& request) const;

    void describe(const Connection& connection, const RtspRequest& request, const Asked& asked);
    void setUp(Connection& connection, const RtspRequest& request, const Asked& asked);
    void finishSetUp(const TransportWish& wish, const RtspRequest& request, const Asked& asked,
                     const RecordingTime::Span& span);
    void play(const RtspRequest& request, const Asked& asked);
    void pause(const Asked& asked);
    void endSession();
    void forgetSession();

    void reply(const Asked& asked, int status, const Headers& headers = {}, const std::string& body = {});
    void replyPlay(const Asked& asked, const PlayAnswer& answer, RangeUnit unit);
    Connection* connectionOf(const Asked& asked) const;

    ServerOptions m_options;
    uint16_t m_port = 0;
    ObjectPtr<GSocketService> m_service;
    std::map<uint64_t, std::unique_ptr<Connection>> m_connections;
    std::vector<std::unique_ptr<Connection>> m_dead; ///< closed, until nobody is inside them
    uint64_t m_lastConnection = 0;
    std::optional<Session> m_session;
    int64_t m_described = 0; ///< when a session was last opened or used
    Playback m_playback;
    SourcePtr m_ticking;
};

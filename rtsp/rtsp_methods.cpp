// What each method does: the requests of rtsp_server.h.
#include <gst/rtsp/gstrtspurl.h>

#include "rtsp/rtsp_server.h"
#include "tools/common/formatted.h"

namespace {

constexpr guint kWrongCredentialsMs = 1000;
constexpr char kRetryAfter[] = "5";

} // namespace

/// What the URI's path stands for: the one given as an option, /onvif or /live. Nothing: none of them.
std::optional<View> RtspServer::viewOf(const std::string& uri) const {
    GstRTSPUrl* url = nullptr;
    if (gst_rtsp_url_parse(uri.c_str(), &url) != GST_RTSP_OK) return std::nullopt;
    std::string path = url->abspath ? url->abspath : "";
    gst_rtsp_url_free(url);
    const std::string track = std::string("/") + kTrack;
    if (path.ends_with('/')) path.pop_back();
    if (path.ends_with(track)) path.resize(path.size() - track.size());
    if (path.ends_with('/')) path.pop_back();
    if (path == "/" + m_options.path) return View{RangeUnit::npt};
    if (path == "/onvif") return View{RangeUnit::clock};
    if (path == "/live") return View{RangeUnit::npt, true};
    return std::nullopt;
}

bool RtspServer::hasSession(const Connection& connection, const RtspRequest& request) const {
    const std::string_view named = request.header("Session");
    return m_session && m_session->connection == connection.id() &&
           named.substr(0, named.find(';')) == m_session->id;
}

bool RtspServer::authenticated(Connection& connection, const RtspRequest& request, const Asked& asked) {
    if (!m_options.credentials || connection.authenticated) return true;
    if (connection.refusing) { // it does not wait for the answer to its last guess
        connection.close();
        return false;
    }
    const std::string_view given = request.header("Authorization");
    if (!given.empty() &&
        m_options.credentials->allow(given, request.method, request.uri, connection.nonce)) {
        connection.authenticated = true;
        return true;
    }
    if (connection.nonce.empty()) connection.nonce = Credentials::newNonce();
    const Headers challenge{{"WWW-Authenticate", Credentials::challenge(connection.nonce)}};
    if (given.empty()) {
        reply(asked, 401, challenge);
        return false;
    }
    // Guessing takes its time.
    connection.refusing = true;
    later(kWrongCredentialsMs, [this, asked, challenge] {
        if (Connection* waiting = connectionOf(asked)) waiting->refusing = false;
        reply(asked, 401, challenge);
    });
    return false;
}

void RtspServer::request(Connection& connection, const RtspRequest& request) {
    const Asked asked{connection.id(), std::string(request.header("CSeq"))};
    if (asked.cseq.empty() || asked.cseq.find_first_not_of("0123456789") != std::string::npos) {
        connection.send("RTSP/1.0 400 Bad Request\r\n\r\n");
        connection.closeWhenSent();
        return;
    }
    constexpr char kPublic[] =
        "OPTIONS, DESCRIBE, SETUP, PLAY, PAUSE, GET_PARAMETER, SET_PARAMETER, TEARDOWN";
    const std::string& method = request.method;
    const std::string_view required = request.header("Require");
    if (method == "OPTIONS")
        reply(asked, 200, {{"Public", kPublic}});
    else if ((" " + std::string(kPublic) + ",").find(" " + method + ",") == std::string::npos)
        reply(asked, 501, {{"Public", kPublic}});
    else if (!authenticated(connection, request, asked))
        return;
    else if (!required.empty() && required != "onvif-replay")
        reply(asked, 551, {{"Unsupported", std::string(required)}});
    else if (!viewOf(request.uri))
        reply(asked, 404);
    else if (method == "DESCRIBE")
        describe(connection, request, asked);
    else if (method == "SETUP")
        setUp(connection, request, asked);
    else if (method.ends_with("_PARAMETER") && request.header("Session").empty())
        reply(asked, 200);
    else if (!hasSession(connection, request))
        reply(asked, 454);
    else if (method == "PLAY")
        play(request, asked);
    else if (method == "PAUSE")
        pause(asked);
    else {
        const Headers session{{"Session", m_session->id}};
        if (method == "TEARDOWN") endSession();
        reply(asked, 200, session);
    }
}

void RtspServer::endSession() {
    forgetSession();
    m_playback.end();
}

void RtspServer::forgetSession() {
    Connection* connection = m_session ? connectionOf({m_session->connection, {}}) : nullptr;
    if (connection) connection->carriesSession = false;
    m_session.reset();
}

void RtspServer::describe(const Connection& connection, const RtspRequest& request, const Asked& asked) {
    std::string base = request.uri;
    if (!base.ends_with('/')) base += '/';
    const View view = *viewOf(request.uri);
    m_described = g_get_monotonic_time();
    m_playback.describe([this, asked, base, view, address = connection.local()](const Description* known) {
        m_described = g_get_monotonic_time();
        if (!known) {
            reply(asked, 503, {{"Retry-After", kRetryAfter}});
            return;
        }
        const auto now = static_cast<uint64_t>(g_get_real_time());
        reply(asked, 200, {{"Content-Type", "application/sdp"}, {"Content-Base", base}},
              sessionDescription(*known, view, address, now));
    });
}

void RtspServer::setUp(Connection& connection, const RtspRequest& request, const Asked& asked) {
    const auto wish = readTransport(request.header("Transport"), m_options.certificate != nullptr);
    if (m_session && m_session->connection != connection.id()) {
        reply(asked, 453, {{"Retry-After", kRetryAfter}});
    } else if (m_session) {
        reply(asked, 455);
    } else if (!wish) {
        reply(asked, 461);
    } else {
        m_described = g_get_monotonic_time();
        m_playback.describe([this, wish, request, asked](const Description* known) {
            if (!known)
                reply(asked, 503, {{"Retry-After", kRetryAfter}});
            else if (m_session)
                reply(asked, 453, {{"Retry-After", kRetryAfter}});
            else
                finishSetUp(*wish, request, asked, known->span);
        });
    }
}

void RtspServer::finishSetUp(const TransportWish& wish, const RtspRequest& request, const Asked& asked,
                             const RecordingTime::Span& span) {
    Connection* connection = connectionOf(asked);
    if (!connection) return;
    auto transport = wish.tcp ? interleavedTransport(*connection, wish) : udpTransport(*connection, wish);
    if (!transport) {
        reply(asked, 500);
        return;
    }
    const uint32_t ssrc = g_random_int();
    const std::string described = transport->description(ssrc);
    connection->carriesSession = true;
    const View view = *viewOf(request.uri);
    m_session = Session{Credentials::newNonce(),
                        asked.connection,
                        request.uri,
                        view.unit,
                        view.live ? span.newest : span.oldest,
                        view.live};
    m_playback.setUp(std::move(transport), ssrc);
    if (!request.header("Require").empty()) m_playback.setReplayExtension();
    reply(asked, 200,
          {{"Transport", described},
           {"Session", m_session->id + ";timeout=" + std::to_string(kSessionSeconds)}});
}

void RtspServer::play(const RtspRequest& request, const Asked& asked) {
    PlayRequest play;
    RangeUnit unit = m_session->unit;
    const int status = readPlay(request, m_session->zero, play, unit);
    if (status != 200) {
        reply(asked, status, {{"Session", m_session->id}});
        return;
    }
    // Most clients begin with npt=0, whatever the description says.
    if (std::exchange(m_session->live, false) && unit == RangeUnit::npt) play.live = true;
    if (play.replay) m_playback.setReplayExtension();
    m_playback.play(play, [this, asked, unit](const PlayAnswer& answer) { replyPlay(asked, answer, unit); });
}

void RtspServer::replyPlay(const Asked& asked, const PlayAnswer& answer, RangeUnit unit) {
    const PlayReply& played = answer.reply;
    if (answer.status != 200 || !m_session) {
        reply(asked, answer.status);
        return;
    }
    Headers headers{
        {"Session", m_session->id}, {"Scale", formatted("%.1f", played.scale / 10.0)}, {"Speed", "1.0"}};
    if (played.from)
        headers.emplace_back("Range", rangeText(unit, played.from, played.until, m_session->zero));
    std::string info = "url=" + m_session->track;
    if (played.firstFollows)
        info += formatted(";seq=%u;rtptime=%u", unsigned{answer.sequence}, answer.rtpTime);
    headers.emplace_back("RTP-Info", info);
    reply(asked, 200, headers);
}

void RtspServer::pause(const Asked& asked) {
    m_playback.pause([this, asked](const PlayAnswer& answer) {
        reply(asked, answer.status, m_session ? Headers{{"Session", m_session->id}} : Headers{});
    });
}

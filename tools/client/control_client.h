// The viewer's side of the control channel: builds request records and exchanges them with the daemon. What
// each request does stands in docs/control-channel.md. For the RTSP server, the tools and tests. Keeps
// nothing between calls, so any thread may use it; nothing here throws but std::bad_alloc.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "daemon/rtsp_request.h"

/// A record of the given type, one of RTSP_REQ_*; add header lines with `with`.
struct ControlRequest {
    explicit ControlRequest(int32_t type);
    /// Appends a header line: "Session" and its number for every request of a session, and what the request
    /// is about. Text beyond 64 bytes of name or 256 of value is cut, without a NUL then; a 65th line is left
    /// out.
    ControlRequest& with(const std::string& name, const std::string& value);

    rtsp_request record{};
};

/// Connects to `socketPath` (FixedPaths::controlSocket), writes the record, reads until the daemon closes;
/// all of it within `timeoutMs` milliseconds. The answer's bytes, none for most types. Nothing, with errno:
/// ENOENT or ECONNREFUSED while no daemon runs, EACCES for whoever is neither its user nor in its group,
/// ENAMETOOLONG for a path above 107 bytes, EAGAIN or ETIMEDOUT when its turn does not come in time (another
/// client may hold the daemon for 20 seconds), EPROTO when the peer is no such daemon.
std::optional<std::string> exchange(const char* socketPath, const rtsp_request& request,
                                    int timeoutMs = 30000);

/// What an answer to RTSP_REQ_OPEN means.
enum class OpenAnswer {
    opened,       ///< the answer is SPS and PPS with their start codes, at most 96 bytes
    noStream,     ///< nothing is recorded
    alreadyOpen,  ///< there is a session, which goes on undisturbed
    searchFailed, ///< no index, or the card's state is not usable
    setUpFailed,  ///< the stream found could not be opened; asking again tries an older one
    malformed,    ///< none of the above: not from this daemon
};
OpenAnswer readOpenAnswer(const std::string& answer);

/// A time, in seconds since the epoch, as `Range` and `Jump` carry it behind "clock=": local standard time,
/// in summer too.
std::string daemonClock(time_t seconds);

/// The word in an answer to RTSP_REQ_STATUS: play, pause, pause(sof), pause(eof), init or error. Empty when
/// the answer is not 64 bytes with a NUL.
std::string readStatusAnswer(const std::string& answer);

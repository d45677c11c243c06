// tools/ctl/ holds what a person asks of the daemon and of the index, and what the answers mean. It never
// keeps a picture, nor changes anything but by a request.
//
// Here: the daemon as tavirn-ctl sees it: asks, and finds out what the channel does not say of itself:
// whether a session is reached at all, and when the playback thread has acted on a request.
#pragma once

#include <chrono>
#include <string>

#include "tools/client/control_client.h"
#include "tools/common/command_line.h"

inline constexpr int kUnreachable = 3; ///< exit code: no daemon, or no index
inline constexpr int kNotSeen = 4;     ///< exit code: sent, but no effect was seen in time

/// Which session a request with a certain number reaches.
enum class Reach {
    session,    ///< the one that is open
    none,       ///< none is open
    unnumbered, ///< one is open, but no number is registered yet
    unclear,    ///< "error" whatever number asks: another one is registered, or the index or the card failed
};

/// Whether something has come to pass.
enum class Effect {
    seen,
    notSeen, ///< within the time to wait
    ended,   ///< the session has, meanwhile
    hidden,  ///< there is no output memory that could be read
};

class Daemon {
public:
    /// `wait` bounds the wait for the daemon to come up, and the one for each effect.
    explicit Daemon(std::chrono::milliseconds wait);

    /// The bytes of the answer. Throws Failure(kUnreachable).
    std::string ask(const ControlRequest& request) const;
    /// The word that the status request with this number is answered with; 0 = one that names no number.
    /// Throws Failure(kFailed) when the answer is none.
    std::string status(uint32_t session) const;
    Reach reach(uint32_t session) const;

    /// To be called when the request has been sent. The playback thread takes the newest request once per
    /// pass, and a pass writes one block: the second block from now on was written by a pass that began with
    /// the request in its queue.
    Effect requestTaken() const;
    /// Whether the session that has been opened shows its first picture.
    Effect firstPictureShown() const;
    /// Whether the status comes to be one of a session that plays, or that has paused. Says less than the
    /// blocks do: what is asked for may have been so before.
    Effect statusBecomes(uint32_t session, bool paused) const;

private:
    using Clock = std::chrono::steady_clock;

    const std::chrono::milliseconds m_wait;
};

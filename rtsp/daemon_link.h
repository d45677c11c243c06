// The daemon, off the loop that serves clients: a thread for control requests, which may take seconds each,
// and one that waits for blocks while a session is open. What comes of them is told in a turn of the loop's.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "platform/output_reader.h"
#include "tools/client/control_client.h"

/// What came of a control request.
struct ControlDone {
    std::optional<std::string> answer; ///< its bytes; nothing: the daemon cannot be reached
    /// The newest block at this moment: from the second one behind it on, all follow the request.
    uint32_t newest = 0;
};

class DaemonLink {
public:
    /// With SPS and PPS; nothing when no session can be had.
    using OnOpened = std::function<void(const std::optional<std::string>& parameterSets)>;
    /// Ten times a second at least, without a block if none has come.
    using OnBlock = std::function<void(OutputBlock* block)>;
    using OnDone = std::function<void(const ControlDone&)>;

    /// Its thread begins with the first request.
    DaemonLink();
    /// Ends both threads; in no turn, which they may wait for. The session has been closed.
    ~DaemonLink();
    DaemonLink(const DaemonLink&) = delete;
    DaemonLink& operator=(const DaemonLink&) = delete;

    /// Opens a session and has its blocks delivered until it ends, which `ended` tells. A recording that has
    /// just begun is asked for again for a few seconds.
    void open(OnOpened opened, OnBlock block, std::function<void()> ended);
    /// A request of the session that has been opened, with at most one header beside its number.
    void request(int32_t type, const std::string& name, const std::string& value, OnDone done);
    /// Ends the session; nothing that belongs to it comes any more.
    void close();

private:
    struct Session;

    void work();
    bool enqueue(std::function<void()> job);
    std::optional<std::string> openSession();
    bool attach(OutputReader& reader);
    bool pause(int ms);
    ControlRequest inSession(int32_t type) const;

    const std::string m_number; ///< of its sessions: not that of a server before or beside it
    std::mutex m_mutex;
    std::condition_variable_any m_wake;
    std::stop_source m_stop;
    std::deque<std::function<void()>> m_jobs;
    bool m_first = true;                ///< control thread: a session found open is a dead server's
    std::shared_ptr<Session> m_session; ///< in turns: the newest one
    std::jthread m_control;             ///< last: it uses the others
};

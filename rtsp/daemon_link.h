// The daemon, off the loop that serves clients: a thread for control requests, which may take seconds each,
// and one that waits for blocks while a session is open. Results come back through `post`, in their order.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "platform/output_reader.h"
#include "tools/client/control_client.h"

class DaemonLink {
public:
    /// Runs a function in the loop that owns the link; called from both threads.
    using Post = std::function<void(std::function<void()>)>;

    /// What came of a control request.
    struct Done {
        bool reached = false; ///< the daemon has taken it
        std::string answer;   ///< its bytes
        uint32_t newest =
            0; ///< the newest block at this moment: from the second one behind it on, all follow it
    };
    enum class Opening { opened, unreachable, taken, nothing, noMemory };
    using OnOpened = std::function<void(Opening, std::string parameterSets)>;
    using OnBlock = std::function<void(OutputBlock block)>;

    explicit DaemonLink(Post post);
    /// Ends an open session and both threads.
    ~DaemonLink();
    DaemonLink(const DaemonLink&) = delete;
    DaemonLink& operator=(const DaemonLink&) = delete;

    /// Opens a session and has its blocks delivered until it ends, which `ended` tells. A recording that has
    /// just begun is asked for again for a few seconds.
    void open(OnOpened opened, OnBlock block, std::function<void()> ended);
    /// A request of the open session, with at most one header beside its number.
    void request(int32_t type, const std::string& name, const std::string& value,
                 std::function<void(Done)> done);
    /// Ends the session; no block comes any more.
    void close();

private:
    struct Blocks;

    void work(const std::stop_token& stop);
    void enqueue(std::function<void()> job);
    Opening openSession(std::string& parameterSets);
    Done ask(const ControlRequest& request) const;
    bool pause(int ms);
    ControlRequest inSession(int32_t type) const;

    const std::string m_number; ///< of its sessions: not that of a server before or beside it
    const Post m_post;
    std::mutex m_mutex;
    std::condition_variable_any m_wake;
    std::deque<std::function<void()>> m_jobs;
    bool m_stopping = false;
    bool m_first = true;              ///< control thread: a session found open is a dead server's
    std::shared_ptr<Blocks> m_blocks; ///< owning loop: those of the newest session
    std::jthread m_control;           ///< last: it uses the others
};

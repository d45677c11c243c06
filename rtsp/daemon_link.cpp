#include "rtsp/daemon_link.h"

#include <random>
#include <system_error>
#include <utility>

#include "platform/paths.h"
#include "rtsp/loop_turn.h"
#include "rtsp/picture.h"

namespace {

using std::chrono::milliseconds;

/// A new recording is asked for again until it has a whole GOP.
constexpr int kOpenTries = 5;
constexpr int kOpenPauseMs = 1000;
/// And a daemon that has just been started soon listens.
constexpr int kReachTries = 10;
constexpr int kReachPauseMs = 100;
/// The output memory comes with the playback thread, a moment after the answer.
constexpr int kAttachTries = 100;
constexpr int kAttachPauseMs = 10;
/// How long the thread that waits for blocks is silent, and may miss its end.
constexpr milliseconds kPatience{100};

std::optional<std::string> ask(const ControlRequest& request) {
    return exchange(paths().controlSocket, request.record);
}

/// False when the system has no room for a thread.
bool begin(std::jthread& thread, std::function<void()> body) {
    try {
        thread = std::jthread(std::move(body));
    } catch (const std::system_error&) {
        return false;
    }
    return true;
}

} // namespace

/// One session, and its blocks: read by a thread of their own, which outlives nobody.
struct DaemonLink::Session {
    OutputReader reader;
    bool wanted = true; ///< these in turns
    OnBlock onBlock;
    std::function<void()> onEnd;
    std::jthread thread;

    void deliver() {
        for (OutputBlock block;; block = {}) {
            const ReadResult result = reader.next(block, kPatience);
            const LoopTurn turn;
            if (!wanted) return;
            if (result != ReadResult::block && result != ReadResult::timeout) {
                onEnd();
                return;
            }
            onBlock(result == ReadResult::block ? &block : nullptr);
        }
    }
};

DaemonLink::DaemonLink() : m_number(std::to_string(1 + std::random_device()() % INT32_MAX)) {}

DaemonLink::~DaemonLink() {
    m_stop.request_stop();
}

/// False when there is no thread to do it, and none can be made.
bool DaemonLink::enqueue(std::function<void()> job) {
    if (!m_control.joinable() && !begin(m_control, [this] { work(); })) return false;
    {
        const std::lock_guard lock(m_mutex);
        m_jobs.push_back(std::move(job));
    }
    m_wake.notify_all();
    return true;
}

/// What has been asked for before the end is done: a teardown is among it.
void DaemonLink::work() {
    for (;;) {
        std::unique_lock lock(m_mutex);
        m_wake.wait(lock, m_stop.get_token(), [this] { return !m_jobs.empty(); });
        if (m_jobs.empty()) return;
        const auto job = std::move(m_jobs.front());
        m_jobs.pop_front();
        lock.unlock();
        job();
    }
}

/// False when the link is to end.
bool DaemonLink::pause(int ms) {
    std::unique_lock lock(m_mutex);
    m_wake.wait_for(lock, m_stop.get_token(), milliseconds(ms), [] { return false; });
    return !m_stop.stop_requested();
}

ControlRequest DaemonLink::inSession(int32_t type) const {
    return std::move(ControlRequest(type).with("Session", m_number));
}

std::optional<std::string> DaemonLink::openSession() {
    if (std::exchange(m_first, false)) ask(ControlRequest(RTSP_REQ_TEARDOWN));
    for (int tries = kOpenTries, reaching = kReachTries;;) {
        auto answer = ask(ControlRequest(RTSP_REQ_OPEN));
        const OpenAnswer opened = answer ? readOpenAnswer(*answer) : OpenAnswer::malformed;
        if (opened == OpenAnswer::opened) {
            ask(inSession(RTSP_REQ_SESSION));
            ask(inSession(RTSP_REQ_FFTIME).with("FFTime", std::to_string(kSkipMs)));
            return answer;
        }
        const bool last = answer ? opened == OpenAnswer::alreadyOpen || --tries == 0 : --reaching == 0;
        if (last || !pause(answer ? kOpenPauseMs : kReachPauseMs)) return std::nullopt;
    }
}

bool DaemonLink::attach(OutputReader& reader) {
    for (int tries = kAttachTries; tries > 0; --tries) {
        if (reader.attach(paths().ipcKey, kOutputMemoryProject)) {
            reader.rewind();
            return true;
        }
        if (!pause(kAttachPauseMs)) break;
    }
    return false;
}

void DaemonLink::open(OnOpened opened, OnBlock block, std::function<void()> ended) {
    m_session = std::make_shared<Session>();
    m_session->onBlock = std::move(block);
    m_session->onEnd = std::move(ended);
    const bool begun = enqueue([this, session = m_session, opened] {
        auto sets = openSession();
        if (sets && !attach(session->reader)) {
            ask(inSession(RTSP_REQ_TEARDOWN));
            sets.reset();
        }
        const LoopTurn turn;
        if (session->wanted) opened(sets);
        if (sets && !begin(session->thread, [session] { session->deliver(); }) && session->wanted)
            session->onEnd();
    });
    if (!begun) opened(std::nullopt);
}

void DaemonLink::request(int32_t type, const std::string& name, const std::string& value, OnDone done) {
    ControlRequest request = inSession(type);
    if (!name.empty()) request.with(name, value);
    enqueue([request, session = m_session, done = std::move(done)] {
        const ControlDone result{ask(request), session->reader.newest()};
        const LoopTurn turn;
        if (session->wanted) done(result);
    });
}

void DaemonLink::close() {
    if (!m_session) return;
    m_session->wanted = false;
    // The thread ends by itself, within its patience; whoever holds the session last must not be that thread.
    enqueue([this, session = std::move(m_session)] {
        ask(inSession(RTSP_REQ_TEARDOWN));
        if (session->thread.joinable()) session->thread.join();
    });
    m_session.reset();
}

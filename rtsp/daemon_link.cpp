#include "rtsp/daemon_link.h"

#include <atomic>
#include <random>
#include <utility>

#include "platform/paths.h"

namespace {

using std::chrono::milliseconds;

constexpr char kSkipTime[] = "333";
/// A new recording is asked for again until it has a whole GOP.
constexpr int kOpenTries = 5;
constexpr int kOpenPauseMs = 1000;
/// And a daemon that has just been started soon listens.
constexpr int kReachTries = 10;
constexpr int kReachPauseMs = 100;
/// The output memory comes with the playback thread, a moment after the answer.
constexpr int kAttachTries = 100;
constexpr int kAttachPauseMs = 10;
/// How long an end may go unnoticed by the thread that waits for blocks.
constexpr milliseconds kPatience{100};

} // namespace

/// The blocks of one session: read by a thread of their own, which outlives nobody.
struct DaemonLink::Blocks {
    OutputReader reader;
    std::atomic<bool> wanted{true};
    OnBlock onBlock; ///< called in the owning loop
    std::function<void()> onEnd;
    std::jthread thread;

    static void deliver(const std::shared_ptr<Blocks>& self, const Post& post) {
        for (OutputBlock block; self->wanted; block = {}) {
            const ReadResult result = self->reader.next(block, kPatience);
            if (result == ReadResult::timeout) continue;
            if (result != ReadResult::block) {
                post([self] {
                    if (self->wanted.exchange(false)) self->onEnd();
                });
                return;
            }
            post([self, block = std::move(block)]() mutable {
                if (self->wanted) self->onBlock(std::move(block));
            });
        }
    }
};

DaemonLink::DaemonLink(Post post)
    : m_number(std::to_string(1 + std::random_device()() % INT32_MAX)), m_post(std::move(post)),
      m_control([this](const std::stop_token& stop) { work(stop); }) {}

DaemonLink::~DaemonLink() {
    close();
    {
        const std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_control.request_stop();
    m_wake.notify_all();
}

void DaemonLink::enqueue(std::function<void()> job) {
    {
        const std::lock_guard lock(m_mutex);
        m_jobs.push_back(std::move(job));
    }
    m_wake.notify_all();
}

/// What has been asked for before the end is done: a teardown is among it.
void DaemonLink::work(const std::stop_token& stop) {
    for (;;) {
        std::unique_lock lock(m_mutex);
        m_wake.wait(lock, stop, [this] { return !m_jobs.empty(); });
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
    return !m_wake.wait_for(lock, milliseconds(ms), [this] { return m_stopping; });
}

ControlRequest DaemonLink::inSession(int32_t type) const {
    return std::move(ControlRequest(type).with("Session", m_number));
}

DaemonLink::Done DaemonLink::ask(const ControlRequest& request) const {
    auto answer = exchange(paths().controlSocket, request.record);
    return {answer.has_value(), std::move(answer).value_or(""), 0};
}

DaemonLink::Opening DaemonLink::openSession(std::string& parameterSets) {
    if (std::exchange(m_first, false)) ask(ControlRequest(RTSP_REQ_TEARDOWN));
    int reaching = kReachTries;
    for (int tries = kOpenTries; tries > 0; --tries) {
        Done opened = ask(ControlRequest(RTSP_REQ_OPEN));
        while (!opened.reached && --reaching > 0 && pause(kReachPauseMs))
            opened = ask(ControlRequest(RTSP_REQ_OPEN));
        if (!opened.reached) return Opening::unreachable;
        switch (readOpenAnswer(opened.answer)) {
        case OpenAnswer::opened:
            ask(inSession(RTSP_REQ_SESSION));
            ask(inSession(RTSP_REQ_FFTIME).with("FFTime", kSkipTime));
            parameterSets = opened.answer;
            return Opening::opened;
        case OpenAnswer::alreadyOpen:
            return Opening::taken;
        default:
            if (tries > 1 && !pause(kOpenPauseMs)) return Opening::nothing;
        }
    }
    return Opening::nothing;
}

void DaemonLink::open(OnOpened opened, OnBlock block, std::function<void()> ended) {
    m_blocks = std::make_shared<Blocks>();
    m_blocks->onBlock = std::move(block);
    m_blocks->onEnd = std::move(ended);
    enqueue([this, blocks = m_blocks, opened = std::move(opened)] {
        std::string sets;
        Opening result = openSession(sets);
        int tries = result == Opening::opened ? kAttachTries : 0;
        while (tries > 0 && !blocks->reader.attach(paths().ipcKey, kOutputMemoryProject)) {
            --tries;
            if (!pause(kAttachPauseMs)) break;
        }
        if (result == Opening::opened && !blocks->reader.attached()) result = Opening::noMemory;
        if (result == Opening::noMemory) ask(inSession(RTSP_REQ_TEARDOWN));
        m_post([opened, result, sets] { opened(result, sets); });
        if (result != Opening::opened) return;
        blocks->reader.rewind();
        blocks->thread = std::jthread([blocks, post = m_post] { Blocks::deliver(blocks, post); });
    });
}

void DaemonLink::request(int32_t type, const std::string& name, const std::string& value,
                         std::function<void(Done)> done) {
    ControlRequest request = inSession(type);
    if (!name.empty()) request.with(name, value);
    enqueue([this, request, blocks = m_blocks, done = std::move(done)] {
        Done result = ask(request);
        if (blocks) result.newest = blocks->reader.newest();
        m_post([done, result = std::move(result)] { done(result); });
    });
}

void DaemonLink::close() {
    if (!m_blocks) return;
    m_blocks->wanted = false;
    // The thread ends by itself, within its patience; whoever holds the blocks last must not be that thread.
    enqueue([this, blocks = std::move(m_blocks)] {
        ask(inSession(RTSP_REQ_TEARDOWN));
        if (blocks->thread.joinable()) blocks->thread.join();
    });
    m_blocks.reset();
}

#include "tools/ctl/daemon.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>

#include "platform/output_reader.h"
#include "platform/paths.h"

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kLookInterval{20};

milliseconds until(std::chrono::steady_clock::time_point deadline) {
    return std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
}

bool attach(OutputReader& reader) {
    return reader.attach(paths().ipcKey, kOutputMemoryProject);
}

/// So many blocks more.
Effect blocksCome(OutputReader& reader, int blocks, std::chrono::steady_clock::time_point deadline) {
    OutputBlock block;
    while (blocks > 0) {
        switch (reader.next(block, until(deadline))) {
        case ReadResult::block:
            blocks -= 1 + static_cast<int>(std::min<uint32_t>(block.missed, 1));
            break;
        case ReadResult::timeout:
            return Effect::notSeen;
        case ReadResult::ended:
        case ReadResult::abandoned:
            return Effect::ended;
        case ReadResult::damaged:
            return Effect::hidden;
        }
    }
    return Effect::seen;
}

} // namespace

Daemon::Daemon(milliseconds wait) : m_wait(wait) {}

std::string Daemon::ask(const ControlRequest& request) const {
    const auto deadline = Clock::now() + m_wait;
    for (;;) {
        if (std::optional<std::string> answer = exchange(paths().controlSocket, request.record))
            return *answer;
        const bool comesUp = errno == ENOENT || errno == ECONNREFUSED;
        if (!comesUp || Clock::now() >= deadline) break;
        std::this_thread::sleep_for(kLookInterval);
    }
    const std::string daemon = std::string("the daemon at ") + paths().controlSocket;
    if (errno == ETIMEDOUT) throw Failure(kUnreachable, daemon + " does not answer in time");
    throw Failure(kUnreachable, "cannot reach " + daemon + ": " + std::strerror(errno));
}

std::string Daemon::status(uint32_t session) const {
    const std::string word =
        readStatusAnswer(ask(ControlRequest(RTSP_REQ_STATUS).with("Session", std::to_string(session))));
    if (word.empty() || word.find_first_not_of("abcdefghijklmnopqrstuvwxyz()") != std::string::npos)
        throw Failure(kFailed, "the answer is none that the daemon gives");
    return word;
}

Reach Daemon::reach(uint32_t session) const {
    const std::string word = status(session);
    if (word == "init") return Reach::none;
    if (word != "error") return Reach::session;
    // A request that names no number is answered in earnest while none is registered.
    const std::string unnumbered = session == 0 ? word : status(0);
    if (unnumbered == "init") return Reach::none;
    if (unnumbered != "error") return Reach::unnumbered;
    OutputReader reader;
    return !attach(reader) && errno == ENOENT ? Reach::none : Reach::unclear;
}

Effect Daemon::requestTaken() const {
    OutputReader reader; // begins behind the newest block
    if (!attach(reader)) return Effect::hidden;
    return blocksCome(reader, 2, Clock::now() + m_wait);
}

Effect Daemon::firstPictureShown() const {
    const auto deadline = Clock::now() + m_wait;
    OutputReader reader;
    while (!attach(reader)) {
        if (errno != ENOENT) return Effect::hidden;
        if (Clock::now() >= deadline) return Effect::notSeen;
        std::this_thread::sleep_for(kLookInterval);
    }
    reader.rewind();
    return blocksCome(reader, 1, deadline);
}

Effect Daemon::statusBecomes(uint32_t session, bool paused) const {
    const auto deadline = Clock::now() + m_wait;
    do {
        const std::string word = status(session);
        if (word == "init") return Effect::ended;
        if (word.starts_with("pause") ? paused || word != "pause" : !paused && word == "play")
            return Effect::seen;
        std::this_thread::sleep_for(kLookInterval);
    } while (Clock::now() < deadline);
    return Effect::notSeen;
}

#include "tools/tour/session.h"

#include <cerrno>
#include <cstring>

#include "platform/paths.h"
#include "tools/common/command_line.h"
#include "tools/tour/processes.h"

namespace {

using std::chrono::milliseconds;

constexpr std::chrono::seconds kComesUp{5};
constexpr milliseconds kPatience{100}; ///< how long the end of the program may wait
/// A request is taken by the second block from its answer on at the latest; two more show that it rests.
constexpr unsigned kTaken = 2, kResting = 2;

uint64_t nowMs() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::floor<milliseconds>(now).count());
}

std::string answerTo(const ControlRequest& request) {
    const std::optional<std::string> answer = exchange(paths().controlSocket, request.record);
    if (!answer) throw Failure(kFailed, std::string("the daemon does not answer: ") + std::strerror(errno));
    return *answer;
}

} // namespace

bool Session::open() {
    if (readOpenAnswer(answerTo(ControlRequest(RTSP_REQ_OPEN))) != OpenAnswer::opened) return false;
    ask(RTSP_REQ_SESSION);
    // The playback thread makes it, perhaps behind the answer.
    if (!waitUntil(kComesUp, [&] { return m_reader.attach(paths().ipcKey, kOutputMemoryProject); }))
        throw Failure(kFailed, std::string("there is no output memory: ") + std::strerror(errno));
    m_reader.rewind();
    while (m_reader.next(m_block, milliseconds(0)) == ReadResult::block) take(std::nullopt);
    return true;
}

std::string Session::ask(int32_t type, const std::string& header, const std::string& value) {
    ControlRequest request(type);
    request.with("Session", std::to_string(kNumber));
    if (!header.empty()) request.with(header, value);
    m_blocks = 0;
    return answerTo(request);
}

std::string Session::status(unsigned number) {
    return readStatusAnswer(
        answerTo(ControlRequest(RTSP_REQ_STATUS).with("Session", std::to_string(number))));
}

bool Session::isQuiet() const {
    return m_blocks >= kTaken + kResting && m_pausesInARow >= kResting;
}

bool Session::readUntil(milliseconds atMost, const std::function<bool()>& enough) {
    for (const Clock::time_point end = Clock::now() + atMost; !enough();) {
        checkInterrupted();
        const auto left = std::chrono::ceil<milliseconds>(end - Clock::now());
        if (left.count() <= 0) return false;
        switch (m_reader.next(m_block, std::min(left, kPatience))) {
        case ReadResult::block:
            take(Clock::now());
            break;
        case ReadResult::timeout:
            break;
        case ReadResult::ended:
            m_ended = true;
            return enough();
        case ReadResult::abandoned:
            throw Failure(kFailed, "the daemon has died");
        case ReadResult::damaged:
            throw Failure(kFailed, "the output memory is damaged");
        }
    }
    return true;
}

void Session::take(std::optional<Clock::time_point> arrival) {
    m_stats.add(m_block, arrival);
    ++m_blocks;
    m_pausesInARow = isPauseBlock(m_block) ? m_pausesInARow + 1 : 0;
    if (m_pausesInARow == 0)
        m_pictures.push_back({{m_block.data.begin(), m_block.data.end()}, m_block.timestamp, nowMs()});
}

#include "tools/tour/visit.h"

#include <algorithm>

#include "tools/common/command_line.h"
#include "tools/common/formatted.h"
#include "tools/tour/transcript.h"

namespace {

constexpr std::chrono::seconds kActs{5}; ///< until a request has come to rest; the line tells if it has not
constexpr size_t kSlowest = 10;          ///< pictures a second that come at least

} // namespace

Visit::Visit(size_t number, const Recording& recording, TourClock::time_point begin)
    : m_number(number), m_recording(recording), m_begin(begin) {}

double Visit::now() const {
    return std::chrono::duration<double>(TourClock::now() - m_begin).count();
}

size_t Visit::recordedPictures() const {
    return static_cast<size_t>(std::count_if(pictures().begin(), pictures().end(),
                                             [](const ShownPicture& picture) { return picture.place; }));
}

void Visit::readUntilQuiet(size_t count) {
    m_session.readUntil(kActs, [&] { return m_session.isQuiet() && pictures().size() >= count; });
}

void Visit::open(int64_t stream) {
    const double at = now();
    if (!m_session.open()) throw Failure(kFailed, "the daemon does not open a session");
    readUntilQuiet(1);
    m_untold.push_back({at, "open", m_session.status(), "pause", 0, pictures().size(), isFirstOf, stream});
}

void Visit::play(const Step& step) {
    m_session.readUntil(std::chrono::milliseconds(step.restMs), [] { return false; });
    const size_t before = pictures().size();
    const double at = now();
    m_session.ask(RTSP_REQ_PLAY, step.header, step.headerValue());
    if (step.pictures == 0) {
        readUntilQuiet(before + 1);
        m_untold.push_back({at, step.text(), m_session.status(), step.status, before, pictures().size(),
                            step.check, step.expected});
        return;
    }
    m_session.readUntil(std::chrono::seconds(step.pictures / kSlowest + 10),
                        [&] { return pictures().size() >= before + step.pictures; });
    const std::string status = m_session.status();
    const double pausedAt = now();
    m_session.ask(RTSP_REQ_PAUSE);
    readUntilQuiet(0);
    const size_t after = pictures().size();
    m_untold.push_back({at, step.text(), status, step.status, before, after, step.check, step.expected});
    m_untold.push_back({pausedAt, "pause", m_session.status(), "pause", after, after, staysThere, 0});
}

void Visit::tearDown() {
    const double at = now();
    const size_t before = pictures().size();
    m_session.ask(RTSP_REQ_TEARDOWN);
    if (!m_session.readUntil(kActs, [&] { return m_session.hasEnded(); }))
        m_wrong.push_back(formatted("the output memory does not tell the end of session %zu", m_number));
    m_untold.push_back(
        {at, "teardown", m_session.status(0), "init", before, pictures().size(), sessionIsOver, 0});
}

void Visit::tell() {
    std::optional<size_t> before;
    for (ShownPicture& picture : m_session.pictures()) {
        if (!picture.place) picture.place = findPlace(m_recording, picture.data, before);
        before = picture.place;
    }
    for (const Asked& asked : m_untold) tell(asked);
    m_untold.clear();
}

void Visit::tell(const Asked& asked) {
    const std::span<const ShownPicture> all = pictures();
    const Came came{m_recording, all.subspan(asked.first, asked.last - asked.first),
                    asked.first == 0 ? std::nullopt : all[asked.first - 1].place};
    Verdict verdict = asked.check(came, asked.expected);
    if (asked.status != asked.wanted)
        verdict.fault = "the status is '" + asked.status + "', not '" + asked.wanted + "'" +
                        (verdict.fault.empty() ? "" : "; " + verdict.fault);
    const std::string fault = verdict.fault.empty() ? "" : "  <-- " + verdict.fault;
    printLine(asked.at, asked.request, asked.status, timesOf(came), verdict.remark + fault);
    if (!fault.empty())
        m_wrong.push_back(formatted("session %zu, ", m_number) + asked.request + ": " + verdict.fault);
    for (const Caption& caption : captionsOf(came, asked.request))
        m_captions += formatted("%zu %zu ", m_number, asked.first + caption.picture) + caption.text + '\n';
}

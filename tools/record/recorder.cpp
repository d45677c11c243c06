#include "tools/record/recorder.h"

#include <algorithm>
#include <cmath>

#include "platform/clock.h"
#include "stream/records.h"
#include "tools/common/clock_text.h"
#include "tools/record/h264.h"
#include "tools/record/status_publisher.h"

namespace {

/// Room taken for headers where a stream's length is open: one for so many bytes of chunk.
constexpr uint32_t kBytesPerPictureAtLeast = 512;

/// How soon a stop ends a wait for a picture's time.
constexpr uint64_t kStopCheckMs = 50;

/// The code of the table's rate within 1 %, so that 29.97 counts as 30; 0 when there is none.
uint16_t frameSetOf(double framesPerSecond) {
    for (uint16_t code = 1; code <= std::size(kFrameRates); ++code) {
        const double rate = kFrameRates[code - 1].tenthsPerSecond / 10.0;
        if (std::abs(framesPerSecond - rate) <= rate / 100) return code;
    }
    return 0;
}

/// Play waits for a picture as many seconds as the figure says at most, so it has to exceed the time from
/// picture to picture.
uint32_t gopFigure(const MediaInfo& info) {
    const double rate = info.framesPerSecond;
    const uint32_t seconds = rate > 0 && rate <= 1 ? static_cast<uint32_t>(1 / rate) + 1 : 1;
    return std::clamp(info.gop, seconds, kMaxGops);
}

} // namespace

uint64_t nowMs() {
    const timeval now = wallclock::now();
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_usec) / 1000;
}

Recorder::Recorder(MediaSource& source, RecordingWriter& writer, const RecorderSettings& settings,
                   const std::atomic<bool>& stop)
    : m_source(source), m_writer(writer), m_settings(settings), m_stop(stop), m_cursor(settings.timeline) {
    std::sort(m_settings.alarms.begin(), m_settings.alarms.end(),
              [](const Alarm& a, const Alarm& b) { return a.startMs < b.startMs; });
    for (Alarm& alarm : m_settings.alarms) {
        alarm.startMs += settings.timeline.startMs;
        alarm.endMs += settings.timeline.startMs;
    }
}

/// The source's next picture, its time counted from the first I-picture: nobody could decode what is before
/// it. Nothing at the end of what is to be recorded.
std::optional<MediaPicture> Recorder::pull() {
    for (auto picture = m_source.next(); picture; picture = m_source.next()) {
        if (!m_baseMs && !h264::isIPicture(picture->accessUnit)) continue;
        if (!m_baseMs) m_baseMs = picture->sourceMs;
        picture->sourceMs -= *m_baseMs;
        if (m_settings.durationMs != 0 && picture->sourceMs >= m_settings.durationMs) break;
        return picture;
    }
    return std::nullopt;
}

/// Empty at the end.
Recorder::Gop Recorder::nextGop() {
    Gop gop;
    if (!m_next) return gop;
    do {
        gop.bytes += m_next->accessUnit.size();
        gop.pictures.push_back(std::move(*m_next));
        m_next = pull();
    } while (m_next && !h264::isIPicture(m_next->accessUnit));
    gop.last = !m_next;
    return gop;
}

void Recorder::run(const std::function<void(const RecordingProgress&)>& progress) {
    try {
        recordAll(progress);
    } catch (...) {
        dropOrFinishStream();
        endAlarms(m_lastWallMs);
        throw;
    }
    finishStream();
    endAlarms(m_lastWallMs);
    m_report.alarmsMissed = static_cast<uint32_t>(m_settings.alarms.size() - m_nextAlarm);
}

void Recorder::recordAll(const std::function<void(const RecordingProgress&)>& progress) {
    m_done.totalMs = m_settings.durationMs != 0 ? m_settings.durationMs : m_source.info().durationMs;
    m_next = pull();
    for (Gop gop = nextGop(); !gop.pictures.empty(); gop = nextGop()) {
        if (!m_iPictures && gop.last && !m_stop)
            throw RecordingError("a session opens on two I-pictures at least, and there is only one; "
                                 "record more pictures, or with a smaller --gop");
        if (m_launchMs == 0) m_launchMs = nowMs();
        changeStream(gop);
        for (const MediaPicture& picture : gop.pictures) {
            if (m_stop && (!m_iPictures || *m_iPictures >= 2)) return;
            record(picture, &picture == &gop.pictures.front());
            progress(m_done);
        }
    }
    if (m_iPictures && *m_iPictures < 2)
        throw RecordingError("the last " + std::to_string(m_writer.pictures()) +
                             " pictures do not fit behind the others and make no stream of their own; "
                             "choose larger chunks");
}

void Recorder::record(const MediaPicture& picture, bool iPicture) {
    const uint64_t wallMs = m_cursor.wallMs(picture.sourceMs);
    if (m_settings.live) waitUntil(wallMs);

    const std::string data = h264::shaped(picture.accessUnit, clockText(wallMs));
    // The recorder's scale is the clock's: play that goes on by time after playing picture by picture counts
    // on from the time stamp it has reached.
    const CodedPicture coded{data, wallMs, iPicture};
    if (!m_iPictures) beginStream(wallMs);
    if (!m_writer.addPicture(coded)) {
        // A GOP longer than all before: its rest begins the next stream, for playing on loses nothing then.
        if (*m_iPictures < 2)
            throw RecordingError("two GOPs do not fit into a chunk; choose larger chunks or shorter GOPs");
        finishStream();
        beginStream(wallMs);
        if (!m_writer.addPicture(coded))
            throw RecordingError("a picture of " + std::to_string(data.size()) +
                                 " bytes does not fit into an empty chunk; choose larger chunks");
    }
    m_lastWallMs = wallMs;
    *m_iPictures += iPicture;
    m_report.recordedMs = m_done.sourceMs = picture.sourceMs;
    ++m_done.pictures;
    m_done.bytes += data.size();
    RecordedStream& stream = m_report.streams.back();
    stream.endMs = wallMs;
    stream.pictures = m_writer.pictures();
    stream.placement = m_writer.placement();
    if (m_settings.live) m_settings.live->publish(stream.streamId, stream.pictures);
    alarmsUpTo(wallMs);
}

/// Ends the present stream where the next one is to begin with this GOP. Room is kept for the GOP behind it,
/// which may be the last and can't begin a stream then.
void Recorder::changeStream(const Gop& gop) {
    m_largestGopPictures = std::max<uint64_t>(m_largestGopPictures, gop.pictures.size());
    m_largestGopBytes = std::max(m_largestGopBytes, gop.bytes);
    if (!m_iPictures || gop.last || *m_iPictures < 2) return;
    const uint64_t first = gop.pictures.front().sourceMs;
    const bool behind = m_cursor.isBehind(first);
    if (behind) m_cursor.goOn(first);
    const auto pictures = static_cast<uint32_t>(gop.pictures.size() + m_largestGopPictures);
    if (behind || !m_writer.hasRoom(pictures, gop.bytes + m_largestGopBytes * 3 / 2)) finishStream();
}

void Recorder::beginStream(uint64_t wallMs) {
    const MediaInfo& info = m_source.info();
    StreamSettings stream;
    stream.startMs = wallMs;
    stream.frameSet = frameSetOf(info.framesPerSecond);
    stream.gops = gopFigure(info);
    stream.capacity = streamCapacity();
    stream.bitrateSet = info.bitrateKbit;
    const uint32_t id = m_writer.beginStream(stream);
    m_iPictures = 0;
    m_report.streams.push_back({id, wallMs, wallMs, 0, m_writer.placement()});
}

void Recorder::finishStream() {
    if (!m_iPictures) return;
    m_writer.finishStream();
    m_iPictures.reset();
}

/// A stream of a single I-picture goes: it would be the newest, and no session could open.
void Recorder::dropOrFinishStream() {
    if (!m_iPictures || *m_iPictures >= 2) return finishStream();
    m_writer.dropStream();
    m_report.streams.pop_back();
    m_iPictures.reset();
}

/// Three GOPs more than a stream is to have, since it ends with a GOP. A chunk never holds more headers than
/// it could hold pictures.
uint32_t Recorder::streamCapacity() const {
    const uint32_t most = std::max(m_settings.chunkBytes / kBytesPerPictureAtLeast, 2u);
    const uint64_t lengthMs = m_settings.timeline.splitMs != 0 ? m_settings.timeline.splitMs
                              : m_settings.durationMs != 0     ? m_settings.durationMs
                                                               : m_source.info().durationMs;
    const double rate = m_source.info().framesPerSecond;
    if (lengthMs == 0 || rate <= 0) return most;
    const double pictures =
        std::ceil(static_cast<double>(lengthMs) * rate / 1000) + 3.0 * m_source.info().gop;
    return static_cast<uint32_t>(std::min<double>(pictures, most));
}

/// Waits for the time of a picture, or for the stop.
void Recorder::waitUntil(uint64_t wallMs) const {
    const uint64_t due = m_launchMs + wallMs - m_settings.timeline.startMs;
    for (uint64_t now = nowMs(); now < due && !m_stop; now = nowMs()) {
        const uint64_t pause = std::min(due - now, kStopCheckMs);
        wallclock::sleepFor({0, static_cast<suseconds_t>(pause * 1000)});
    }
}

/// Begins and ends the alarms as time passes, as a recorder would see them.
void Recorder::alarmsUpTo(uint64_t wallMs) {
    for (; m_nextAlarm < m_settings.alarms.size(); ++m_nextAlarm) {
        const Alarm& alarm = m_settings.alarms[m_nextAlarm];
        if (alarm.startMs > wallMs) break;
        m_openAlarms[m_writer.addEvent(alarm.startMs, 0, alarm.trigger)] = alarm.endMs;
        ++m_report.alarms;
    }
    std::erase_if(m_openAlarms, [&](const auto& alarm) {
        if (alarm.second > wallMs) return false;
        m_writer.finishEvent(alarm.first, alarm.second);
        return true;
    });
}

void Recorder::endAlarms(uint64_t wallMs) {
    for (const auto& [eventId, endMs] : m_openAlarms) m_writer.finishEvent(eventId, std::min(endMs, wallMs));
    m_openAlarms.clear();
}

#include "tools/record/recorder.h"

#include <algorithm>
#include <cmath>

#include "platform/clock.h"
#include "tools/common/clock_text.h"
#include "tools/record/status_publisher.h"

namespace {

/// A GOP figure above this is replaced on playback.
constexpr uint32_t kMaxGopFigure = 120;

/// Room taken for headers where a stream's length is open: one for so many bytes of chunk.
constexpr uint32_t kBytesPerPictureAtLeast = 512;

/// How soon a stop ends a wait for a picture's time.
constexpr uint64_t kStopCheckMs = 50;

uint64_t realMs() {
    const timeval now = wallclock::now();
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_usec) / 1000;
}

/// The code of the table's rate within 1 %, so that 29.97 counts as 30; 0 when there is none.
uint16_t frameSetOf(double framesPerSecond) {
    for (uint16_t code = 1; code <= std::size(kFrameRates); ++code) {
        const double rate = kFrameRates[code - 1].tenthsPerSecond / 10.0;
        if (std::abs(framesPerSecond - rate) <= rate / 100) return code;
    }
    return 0;
}

} // namespace

Recorder::Recorder(MediaSource& source, RecordingWriter& writer, const RecorderSettings& settings,
                   const std::atomic<bool>& stop)
    : m_source(source), m_writer(writer), m_settings(settings), m_stop(stop), m_cursor(settings.timeline) {
    std::sort(m_settings.alarms.begin(), m_settings.alarms.end(),
              [](const Alarm& a, const Alarm& b) { return a.startMs < b.startMs; });
}

/// A copied file says nowhere how long its GOPs are, and the stream header wants to know before the first
/// picture is written: the pictures up to the second I-picture are looked at first.
bool Recorder::pullAhead() {
    uint32_t iPictures = 0;
    uint32_t pictures = 0;
    while (iPictures < 2 && pictures <= kMaxGopFigure) {
        std::optional<MediaPicture> picture = m_source.next();
        if (!picture) break;
        const bool iPicture = h264::isIPicture(picture->accessUnit);
        iPictures += iPicture;
        if (iPictures == 0) continue; // nobody could decode it
        m_ahead.push_back(std::move(*picture));
        pictures += iPictures < 2;
        if (m_source.info().gop != 0) break;
    }
    m_gop = m_source.info().gop != 0 ? m_source.info().gop : std::clamp(pictures, 1u, kMaxGopFigure);
    return !m_ahead.empty();
}

std::optional<MediaPicture> Recorder::nextPicture() {
    if (m_ahead.empty()) return m_source.next();
    std::optional<MediaPicture> picture(std::move(m_ahead.front()));
    m_ahead.pop_front();
    return picture;
}

RecordingReport Recorder::run(const std::function<void(const RecordingProgress&)>& progress) {
    RecordingProgress done;
    m_launchMs = realMs();
    if (pullAhead()) {
        const uint64_t base = m_ahead.front().sourceMs;
        done.totalMs = m_settings.durationMs != 0 ? m_settings.durationMs : m_source.info().durationMs;
        while (std::optional<MediaPicture> picture = nextPicture()) {
            const uint64_t sourceMs = picture->sourceMs - base;
            if (m_stop || (m_settings.durationMs != 0 && sourceMs >= m_settings.durationMs)) break;
            record(*picture, sourceMs);
            done.sourceMs = sourceMs;
            ++done.pictures;
            done.bytes += picture->accessUnit.size();
            progress(done);
        }
    }
    finishStream();
    endAlarms(m_lastWallMs);
    m_report.alarmsMissed = static_cast<uint32_t>(m_settings.alarms.size() - m_nextAlarm);
    return m_report;
}

void Recorder::record(const MediaPicture& picture, uint64_t sourceMs) {
    const bool iPicture = h264::isIPicture(picture.accessUnit);
    changeStream(sourceMs, iPicture);
    const uint64_t wallMs = m_cursor.wallMs(sourceMs);
    if (m_settings.live && !waitUntil(wallMs)) return;

    const std::string data = m_shaper.shape(picture.accessUnit, clockText(wallMs));
    // The recorder's scale is the clock's: play that goes on by time after playing picture by picture counts
    // on from the time stamp it has reached.
    const CodedPicture coded{data, wallMs, iPicture};
    if (!m_open) beginStream(wallMs);
    if (!m_writer.addPicture(coded)) {
        // A GOP longer than all before: its rest begins the next stream, for playing on loses nothing then.
        finishStream();
        beginStream(wallMs);
        if (!m_writer.addPicture(coded))
            throw RecordingError("a picture of " + std::to_string(data.size()) +
                                 " bytes does not fit into an empty chunk; choose larger chunks");
    }
    m_lastWallMs = wallMs;
    ++m_thisGop.pictures;
    m_thisGop.bytes += data.size();
    RecordedStream& stream = m_report.streams.back();
    stream.endMs = wallMs;
    stream.pictures = m_writer.pictures();
    stream.placement = m_writer.placement();
    if (m_settings.live) m_settings.live->publish(stream.streamId, stream.pictures);
    alarmsUpTo(wallMs);
}

/// Ends the present stream where the next one is to begin with this picture.
void Recorder::changeStream(uint64_t sourceMs, bool iPicture) {
    if (!iPicture) return;
    m_largestGop.pictures = std::max(m_largestGop.pictures, m_thisGop.pictures);
    m_largestGop.bytes = std::max(m_largestGop.bytes, m_thisGop.bytes);
    m_thisGop = {};
    if (m_cursor.isBehind(sourceMs)) {
        m_cursor.goOn(sourceMs);
        finishStream();
    } else if (m_open && !m_writer.hasRoom(m_largestGop.pictures, m_largestGop.bytes * 3 / 2)) {
        finishStream();
    }
}

void Recorder::beginStream(uint64_t wallMs) {
    const MediaInfo& info = m_source.info();
    StreamSettings stream;
    stream.startMs = wallMs;
    stream.frameSet = frameSetOf(info.framesPerSecond);
    stream.gops = std::min(m_gop, kMaxGopFigure);
    stream.capacity = streamCapacity();
    stream.bitrateSet = info.bitrateKbit;
    const uint32_t id = m_writer.beginStream(stream);
    m_open = true;
    m_report.streams.push_back({id, wallMs, wallMs, 0, m_writer.placement()});
}

void Recorder::finishStream() {
    if (!m_open) return;
    m_writer.finishStream();
    m_open = false;
}

/// Two GOPs more than a stream is to have, since it ends with a GOP. A chunk never holds more headers than
/// it could hold pictures.
uint32_t Recorder::streamCapacity() const {
    const uint32_t most = std::max(m_settings.chunkBytes / kBytesPerPictureAtLeast, 2u);
    const uint64_t lengthMs = m_settings.timeline.splitMs != 0 ? m_settings.timeline.splitMs
                              : m_settings.durationMs != 0     ? m_settings.durationMs
                                                               : m_source.info().durationMs;
    const double rate = m_source.info().framesPerSecond;
    if (lengthMs == 0 || rate <= 0) return most;
    const double pictures = std::ceil(static_cast<double>(lengthMs) * rate / 1000) + 2.0 * m_gop;
    return pictures < most ? static_cast<uint32_t>(pictures) : most;
}

/// Waits for the time of a picture; false when stopped meanwhile.
bool Recorder::waitUntil(uint64_t wallMs) const {
    const uint64_t due = m_launchMs + wallMs - m_settings.timeline.startMs;
    for (uint64_t now = realMs(); now < due && !m_stop; now = realMs()) {
        const uint64_t pause = std::min(due - now, kStopCheckMs);
        wallclock::sleepFor({0, static_cast<suseconds_t>(pause * 1000)});
    }
    return !m_stop;
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

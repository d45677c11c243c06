// The recorder's loop: from a media source to streams, rows and alarms.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tools/record/h264.h"
#include "tools/record/media_source.h"
#include "tools/record/timeline.h"
#include "tools/recording/recording_writer.h"

class StatusPublisher;

struct Alarm {
    uint64_t startMs = 0; ///< wall clock
    uint64_t endMs = 0;   ///< ends earlier when the recording does
    uint32_t trigger = 512;
};

struct RecorderSettings {
    Timeline timeline;
    uint64_t durationMs = 0; ///< of the source's time; 0 = to its end
    uint32_t chunkBytes = 0;
    std::vector<Alarm> alarms;
    StatusPublisher* live = nullptr; ///< set: record in real time and publish
};

struct RecordedStream {
    uint32_t streamId = 0;
    uint64_t startMs = 0;
    uint64_t endMs = 0; ///< last picture's time
    uint32_t pictures = 0;
    StreamPlacement placement;
};

struct RecordingReport {
    std::vector<RecordedStream> streams;
    uint32_t alarms = 0;       ///< written
    uint32_t alarmsMissed = 0; ///< beyond the recording's end
};

struct RecordingProgress {
    uint64_t sourceMs = 0;
    uint64_t totalMs = 0; ///< 0 = unknown
    uint32_t pictures = 0;
    uint64_t bytes = 0;
};

/// Records once. A stream changes at the first I-picture behind the split's time, and at an I-picture when
/// the next GOP may not fit any more.
class Recorder {
public:
    Recorder(MediaSource& source, RecordingWriter& writer, const RecorderSettings& settings,
             const std::atomic<bool>& stop);

    /// Records until the source or the duration ends or `stop` is set; the last stream is finished in each
    /// case. `progress` is called after each picture. Throws RecordingError.
    RecordingReport run(const std::function<void(const RecordingProgress&)>& progress);

private:
    struct Gop {
        uint32_t pictures = 0;
        uint64_t bytes = 0;
    };

    bool pullAhead();
    std::optional<MediaPicture> nextPicture();
    void record(const MediaPicture& picture, uint64_t sourceMs);
    void changeStream(uint64_t sourceMs, bool iPicture);
    void beginStream(uint64_t wallMs);
    void finishStream();
    uint32_t streamCapacity() const;
    bool waitUntil(uint64_t wallMs) const;
    void alarmsUpTo(uint64_t wallMs);
    void endAlarms(uint64_t wallMs);

    MediaSource& m_source;
    RecordingWriter& m_writer;
    RecorderSettings m_settings;
    const std::atomic<bool>& m_stop;
    h264::PictureShaper m_shaper;
    RecordingReport m_report;

    std::deque<MediaPicture> m_ahead; ///< pulled to learn the GOP's length, not recorded yet
    uint32_t m_gop = 0;               ///< pictures
    TimelineCursor m_cursor;
    bool m_open = false;
    uint64_t m_lastWallMs = 0;
    uint64_t m_launchMs = 0; ///< real time of the recording's start
    Gop m_thisGop;
    Gop m_largestGop;
    size_t m_nextAlarm = 0;                    ///< index in the settings' alarms, which are in order
    std::map<uint32_t, uint64_t> m_openAlarms; ///< eventID, end
};

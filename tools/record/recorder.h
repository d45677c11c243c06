// tools/record/ holds the recorder's stand-in: from a video to streams, rows and alarms on the card. It knows
// of the daemon nothing but the status segment.
//
// Here: the recorder's loop.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tools/record/media_source.h"
#include "tools/record/timeline.h"
#include "tools/recording/recording_writer.h"

class StatusPublisher;

/// The clock by which a recording is dated and, live, paced; milliseconds since the epoch.
uint64_t nowMs();

struct Alarm {
    uint64_t startMs = 0; ///< by the clock, since the recording's start
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
    uint64_t recordedMs = 0;   ///< of the source's time
};

struct RecordingProgress {
    uint64_t sourceMs = 0;
    uint64_t totalMs = 0; ///< 0 = unknown
    uint32_t pictures = 0;
    uint64_t bytes = 0;
};

/// Records once. A stream changes at the first I-picture behind the split's time, and at an I-picture when
/// the next GOP may not fit any more. What is recorded last always has two I-pictures, for a session opens on
/// the newest stream and on no less: a split whose stream would be shorter is not made.
class Recorder {
public:
    Recorder(MediaSource& source, RecordingWriter& writer, const RecorderSettings& settings,
             const std::atomic<bool>& stop);

    /// Records until the source or the duration ends or `stop` is set, and then as far as the last stream's
    /// second I-picture. `progress` is called after each picture. Throws RecordingError; report() says what
    /// has been recorded even so. No stream is left open.
    void run(const std::function<void(const RecordingProgress&)>& progress);
    const RecordingReport& report() const { return m_report; }

private:
    struct Gop {
        std::vector<MediaPicture> pictures;
        uint64_t bytes = 0;
        bool last = false; ///< none follows
    };

    void recordAll(const std::function<void(const RecordingProgress&)>& progress);
    Gop nextGop();
    std::optional<MediaPicture> pull();
    void changeStream(const Gop& gop);
    void record(const MediaPicture& picture, bool iPicture);
    void beginStream(uint64_t wallMs);
    void finishStream();
    void dropOrFinishStream();
    uint32_t streamCapacity() const;
    void waitUntil(uint64_t wallMs) const;
    void alarmsUpTo(uint64_t wallMs);
    void endAlarms(uint64_t wallMs);

    MediaSource& m_source;
    RecordingWriter& m_writer;
    RecorderSettings m_settings;
    const std::atomic<bool>& m_stop;
    RecordingReport m_report;
    RecordingProgress m_done;

    std::optional<MediaPicture> m_next; ///< I-picture that begins the next GOP
    std::optional<uint64_t> m_baseMs;   ///< source time of the first I-picture
    TimelineCursor m_cursor;
    std::optional<uint32_t> m_iPictures; ///< of the present stream; none while there is none
    uint64_t m_lastWallMs = 0;
    uint64_t m_launchMs = 0; ///< real time of the recording's start
    uint64_t m_largestGopPictures = 0;
    uint64_t m_largestGopBytes = 0;
    size_t m_nextAlarm = 0;                    ///< index in the settings' alarms, which are in order
    std::map<uint32_t, uint64_t> m_openAlarms; ///< eventID, end
};

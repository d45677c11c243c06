// stream/: where am I in the recording? The records of index and card, the chunk reader, and the stream
// access object that finds streams, moves inside one, crosses between them and positions by time. It never
// sleeps and knows neither play modes nor requests.
//
// Below the object: recording_index (every query; its texts in statements), recorder_link (what the recorder
// says about the stream it writes), open_stream (readers, headers, pictures). Above them, by file:
// pb_stream_video.cpp (life, opening by id, moving picture by picture), crossing.cpp, time_positioning.cpp,
// skipping.cpp.
#pragma once

#include "stream/open_stream.h"
#include "stream/recorder_link.h"
#include "stream/recording_index.h"

/// The stream access object. One thread drives it at a time (the main thread during set-up, then the
/// playback thread); only getErrorflag may be called from another thread meanwhile.
class CPbStreamVideo {
public:
    /// `shmServer` is the status segment shared with the recorder; may be null, not owned.
    explicit CPbStreamVideo(CtavirnShmServer* shmServer);
    ~CPbStreamVideo();
    CPbStreamVideo(const CPbStreamVideo&) = delete;
    CPbStreamVideo& operator=(const CPbStreamVideo&) = delete;

    /// A search asks the index several times: it fails once `wanted`, which outlives it, no longer holds.
    void searchWhile(const std::atomic<bool>& wanted) { m_index.askWhile(wanted); }

    /// Closes both readers and forgets the stream; the position and the flags stay.
    void clear() { m_stream.clear(); }

    // ---- positioning: each copies the records of the position reached into the caller's ----

    /// Opens the stream `id` at its first I-picture; the stream's start time, {0, 0} on failure.
    PB_STREAM_TIME getId(unsigned long id, DB_STREAM* db, STREAM_HEADER* stH, PICTURE_HEADER* picH,
                         unsigned long spare);

    /// Goes to the picture recorded at `pbTime`, searching streams in direction `dir` (0 forward, else
    /// backward). Returns pbTime; {0, 0} when it ended on the newest or oldest recording instead, or failed.
    PB_STREAM_TIME getTime(PB_STREAM_TIME pbTime, DB_STREAM* db, STREAM_HEADER* stH, PICTURE_HEADER* picH,
                           unsigned char mode, unsigned char dir, unsigned long spare);

    /// Goes to a skip target: `skipType` kSkipLatest (staying `backSec` seconds short of the end),
    /// kSkipOldest, or kSkipEvent (the alarm after `pbTime`, with `dir` 1 the one before it). Returns the
    /// time reached, {0, 0} when there is none.
    PB_STREAM_TIME getSkip(PB_STREAM_TIME* pbTime, DB_STREAM* db, STREAM_HEADER* stH, PICTURE_HEADER* picH,
                           unsigned char skipType, unsigned char dir, unsigned long count,
                           unsigned long backSec);

    /// Crosses into the neighbouring stream (`dir` 1 backward, else forward), or with `timeSearch` 1 into
    /// the stream that holds `pbTime`. The new offset (>= 0); -1 when nothing was crossed; -2 (forward) or
    /// -3 (backward) when the newest or oldest recording was taken instead.
    int over(unsigned char dir, DB_STREAM* db, STREAM_HEADER* stH, PICTURE_HEADER* picH,
             PB_STREAM_TIME* pbTime, unsigned long timeSearch);

    /// Moves `count` pictures (32 bits) within the stream, then searches for an I-picture as `searchMode`
    /// says. The new offset, or -1, parked on the first or last picture, when the stream ends first.
    long move(unsigned char kind, unsigned long count, PICTURE_HEADER* picH, unsigned char searchMode);

    // ---- the current picture ----

    /// Reads the picture's data into `buffer` (at least picH.size bytes). The offset, or -1.
    long get(unsigned char* buffer) { return m_stream.get(buffer); }

    /// Time stamp of the current picture, on the recorder's scale.
    PB_STREAM_TIME getNowPts() const { return m_stream.getNowPts(); }
    /// Time stamp of the stream's picture 0.
    PB_STREAM_TIME getTopPts() const { return m_stream.getTopPts(); }
    /// Wall-clock time of the current picture.
    PB_STREAM_TIME getTimePts() const { return m_stream.getTimePts(); }
    /// Frames per second times 10; 0 when neither setting nor duration tells.
    unsigned long getFrameRate() const { return m_stream.getFrameRate(); }
    unsigned long getOffset() const { return m_stream.getOffset(); }
    /// 1 after a time search that fell before every recording.
    unsigned long getSOFflag() const { return m_SOFflag; }

    /// Copies of the current records; the first two follow a stream under recording before they copy.
    void getDb(DB_STREAM* db);
    void getStH(STREAM_HEADER* stH);
    void getPicH(PICTURE_HEADER* picH) const { m_stream.getPicH(picH); }

    /// 1 around a crossing made because playing ran past a stream's end: a fallback then shows the newest
    /// recording's last picture.
    void setplaylastframemode(unsigned long mode) { m_playlastframemode = static_cast<uint32_t>(mode); }
    /// Lets the next alarm search go by time alone.
    void clearEventID() { m_eventID = 0; }

    // ---- error flags, any thread ----

    void setErrorflag(unsigned long kind, unsigned long value) { m_errorFlags.setErrorflag(kind, value); }
    unsigned long getErrorflag() { return m_errorFlags.getErrorflag(); }

protected:
    int m_updateRecStream() { return m_recorder.m_updateRecStream(m_stream, m_index); }

    ErrorFlags m_errorFlags;
    OpenStream m_stream{m_errorFlags};

private:
    /// Leaves the stream stood on, whatever the index says, and looks at the first one that fits.
    QueryResult lookFor(const SqlText& sql);

    /// The picture stood on, and how its recorder was followed to it: other streams may be looked at with
    /// the same link, which knows one count.
    struct StoodOn {
        OpenStream::Place place;
        RecorderLink recorder;
    };
    StoodOn stoodOn() const { return {m_stream.place(), m_recorder}; }
    void standAgainOn(const StoodOn& left);

    // crossing.cpp
    int cross(Direction direction, const PlaceRecords& out, const PB_STREAM_TIME* pbTime, bool locate);
    PB_STREAM_TIME referenceTime(const PB_STREAM_TIME* pbTime) const;
    QueryResult lookForNeighbour(Direction direction, PB_STREAM_TIME time, statements::Left left);
    QueryResult lookForRecording(PB_STREAM_TIME time, bool* beyondRecording);
    int stayOn(const DB_STREAM& stoodOn);
    int fallBack(Direction direction, const PlaceRecords& out);
    void showLastFrame(const PlaceRecords& out);
    void checkStartOfFile(PB_STREAM_TIME time);
    int landOn(Direction direction, const PlaceRecords& out);

    // time_positioning.cpp
    enum class TimeSearch { found, tookFallback, failed };
    TimeSearch findTime(PB_STREAM_TIME pbTime, Direction direction);

    // skipping.cpp
    PB_STREAM_TIME m_skipLatest(const PlaceRecords& out, unsigned long backSec);
    PB_STREAM_TIME m_skipOldest(const PlaceRecords& out);
    PB_STREAM_TIME m_skipRecType(PB_STREAM_TIME pbTime, const PlaceRecords& out, Direction direction);
    QueryResult lookForAlarmStream(PB_STREAM_TIME start, const StoodOn& left);
    int openAt(PB_STREAM_TIME time);

    RecorderLink m_recorder;
    RecordingIndex m_index{m_errorFlags};
    uint32_t m_SOFflag = 0;
    uint32_t m_eventID = 0; ///< event the last alarm jump landed on; 0 = none
    uint32_t m_playlastframemode = 0;
};

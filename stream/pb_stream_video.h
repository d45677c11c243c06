// stream/: where am I in the recording? The records of index and card, the chunk reader, and the stream
// access object that finds streams, moves inside one, crosses between them and positions by time. It never
// sleeps and knows neither play modes nor requests.
//
// The object's operations are divided over files by subject: index_queries.cpp (life, queries, following a
// stream under recording), chunk_reading.cpp, picture_movement.cpp, crossing.cpp, time_positioning.cpp,
// skipping.cpp, debug_dump.cpp.
#pragma once

#include <memory>

#include "platform/api_db.h"
#include "platform/mutex.h"
#include "stream/pb_video.h"
#include "stream/stream_time.h"

class CtavirnShmServer;

/// The stream access object. One thread drives it at a time (the main thread during set-up, then the
/// playback thread); only getErrorflag may be called from another thread meanwhile.
class CPbStreamVideo {
public:
    /// `shmServer` is the status segment shared with the recorder; may be null, not owned.
    explicit CPbStreamVideo(CtavirnShmServer* shmServer);
    ~CPbStreamVideo();
    CPbStreamVideo(const CPbStreamVideo&) = delete;
    CPbStreamVideo& operator=(const CPbStreamVideo&) = delete;

    /// Closes both readers and forgets the stream; the position and the flags stay.
    void clear();

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

    /// Moves `count` pictures within the stream, then searches for an I-picture as `searchMode` says. The
    /// new offset, or -1, parked on the first or last picture, when the stream ends first.
    long move(unsigned char kind, unsigned long count, PICTURE_HEADER* picH, unsigned char searchMode);

    // ---- the current picture ----

    /// Reads the picture's data into `buffer` (at least picH.size bytes). The offset, or -1.
    long get(unsigned char* buffer);

    /// Time stamp of the current picture, on the recorder's scale.
    PB_STREAM_TIME getNowPts() const { return {m_video.picH.pts, m_video.picH.msec}; }
    /// Time stamp of the stream's picture 0.
    PB_STREAM_TIME getTopPts() const { return m_topPts; }
    /// Wall-clock time of the current picture.
    PB_STREAM_TIME getTimePts() const;
    /// Frames per second times 10; 0 when neither setting nor duration tells.
    unsigned long getFrameRate() const;
    unsigned long getOffset() const { return m_video.offset; }
    /// 1 after a time search that fell before every recording.
    unsigned long getSOFflag() const { return m_SOFflag; }

    /// Copies of the current records; the first two follow a stream under recording before they copy.
    void getDb(DB_STREAM* db);
    void getStH(STREAM_HEADER* stH);
    void getPicH(PICTURE_HEADER* picH) const;

    /// 1 around a crossing made because playing ran past a stream's end: a fallback then shows the newest
    /// recording's last picture.
    void setplaylastframemode(unsigned long mode);
    /// Lets the next alarm search go by time alone.
    void clearEventID();

    // ---- error flags, any thread ----

    void setErrorflag(unsigned long kind, unsigned long value) EXCLUDES(m_mutex);
    unsigned long getErrorflag() EXCLUDES(m_mutex);

protected:
    // Index (index_queries.cpp)
    int m_setSql(const char* sql);
    int m_setSqlEvent(const char* sql, DB_EVENT* event);
    int m_updateRecStream();

    // Chunk (chunk_reading.cpp)
    int m_openChunk();
    int m_readPic();
    int m_setOffset(unsigned long sec, unsigned long mSec);

    // Pictures (picture_movement.cpp)
    long m_iPicSearch(unsigned long direction, PICTURE_HEADER* picH);

    // Targets without a time (skipping.cpp)
    PB_STREAM_TIME m_skipLatest(DB_STREAM* db, STREAM_HEADER* stH, PICTURE_HEADER* picH,
                                unsigned long backSec);
    PB_STREAM_TIME m_skipOldest(DB_STREAM* db, STREAM_HEADER* stH, PICTURE_HEADER* picH);
    PB_STREAM_TIME m_skipRecType(PB_STREAM_TIME* pbTime, DB_STREAM* db, STREAM_HEADER* stH,
                                 PICTURE_HEADER* picH, unsigned char dir, unsigned long count,
                                 unsigned long backSec);

    // Dumps (debug_dump.cpp)
    void m_showDb() const;
    void m_showStH() const;
    void m_showPicH() const;
    void m_showAll() const;

    PB_VIDEO m_video;

private:
    // Results of m_setSql and m_setSqlEvent.
    static constexpr int kQueryFound = 0;
    static constexpr int kQueryError = 1;
    static constexpr int kQueryNoRow = 2;

    // index_queries.cpp
    void m_closeReaders();
    void m_copyOut(DB_STREAM* db, STREAM_HEADER* stH, PICTURE_HEADER* picH) const;
    int m_query(const char* operation, const char* sql);
    int m_followGrowth(uint32_t pictures);
    int m_reloadFinished(uint32_t recorderStreamId);
    void m_takeEndFromPicture();
    PB_STREAM_TIME m_startTime() const;
    PB_STREAM_TIME m_endTime() const;

    // chunk_reading.cpp
    int m_openHeaderArea(CHUNK_EVENT area);
    int m_openPictureArea(CHUNK_EVENT area);
    int m_checkStreamHeader() const;
    int m_seekHeader(uint32_t picture);
    long m_readHeader(void* header);
    long m_readData(unsigned char* buffer, uint32_t size);
    int m_goTo(uint32_t offset);
    /// For a stream without pictures it wraps to the highest offset: no header read accepts that one, and as
    /// a result it is -1.
    uint32_t m_lastPicture() const { return m_video.stH.pictures - 1; }
    PB_STREAM_TIME m_pictureTime() const;
    uint32_t m_estimateOffset(PB_STREAM_TIME target) const;
    uint32_t m_pictureIntervalMs() const;
    uint32_t m_offsetAhead(uint32_t step) const;
    uint32_t m_offsetBack(uint32_t step) const;

    // picture_movement.cpp
    void m_park(uint32_t offset, PICTURE_HEADER* picH);
    long m_arrive(PICTURE_HEADER* picH);
    long m_arriveOnIPicture(unsigned char searchMode, PICTURE_HEADER* picH);

    // crossing.cpp
    PB_STREAM_TIME m_referenceTime(const PB_STREAM_TIME* pbTime) const;
    int m_findRecordingStream(PB_STREAM_TIME time, bool* beyondRecording);
    int m_stayOn(const DB_STREAM& row);
    int m_fallBack(bool backward, DB_STREAM* db, STREAM_HEADER* stH, PICTURE_HEADER* picH);
    void m_showLastFrame(STREAM_HEADER* stH, PICTURE_HEADER* picH);
    void m_checkStartOfFile(PB_STREAM_TIME time);
    int m_landOn(bool backward, DB_STREAM* db, STREAM_HEADER* stH, PICTURE_HEADER* picH);

    // time_positioning.cpp
    enum class TimeSearch { found, tookFallback, failed };
    TimeSearch m_findTime(PB_STREAM_TIME pbTime, unsigned char dir);

    // skipping.cpp
    int m_findEventStream(PB_STREAM_TIME start, const DB_STREAM& left);
    void m_standAgainOn(const DB_STREAM& row, uint32_t offset);
    int m_openAt(PB_STREAM_TIME time);

    std::unique_ptr<CApiDb> m_apiDb;
    PB_STREAM_TIME m_topPts;
    uint32_t m_recPictures = 0; ///< pictures of the stream under recording, as last taken from the segment
    CtavirnShmServer* m_shmserver;
    uint32_t m_recFirstFlag = 1; ///< 1 = the next refresh of a stream under recording goes to picture 0
    uint32_t m_SOFflag = 0;
    uint32_t m_eventID = 0; ///< event the last alarm jump landed on; 0 = none
    uint32_t m_playlastframemode = 0;

    Mutex m_mutex;
    unsigned long m_dbErrorflag GUARDED_BY(m_mutex) = 0;
    unsigned long m_chunkErrorflag GUARDED_BY(m_mutex) = 0;
};

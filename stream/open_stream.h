// The one stream that is stood on or looked at: its row, its two readers, its headers, the current picture.
// Knows neither the index nor the recorder.
#pragma once

#include <optional>

#include "stream/direction.h"
#include "stream/error_flags.h"
#include "stream/pb_video.h"
#include "stream/stream_time.h"

/// Where a caller wants the records of the place reached: all three, or none.
struct PlaceRecords {
    DB_STREAM* db = nullptr;
    STREAM_HEADER* stH = nullptr;
    PICTURE_HEADER* picH = nullptr;
};

/// Looked at, a stream is a row with nothing open (clear, replaceRow); opened (m_openChunk), it is stood on.
/// A search that looks at other streams leaves the one stood on first: whoever wants to come back keeps its
/// place, and returns (standAgainOn). Results are 0 or more, or -1 for failure, which is logged here
/// but for a search in a stream that is not open.
class OpenStream {
public:
    /// `errorFlags` outlives it; only the chunk's own kind is set there.
    explicit OpenStream(ErrorFlags& errorFlags) : m_errorFlags(errorFlags) {}
    ~OpenStream() { clear(); }
    OpenStream(const OpenStream&) = delete;
    OpenStream& operator=(const OpenStream&) = delete;

    // ---- which stream ----

    /// What it takes to come back: looking at another stream may change each of them.
    struct Place {
        DB_STREAM row;
        uint32_t offset;
        uint32_t pictures; ///< of a stream under recording, as it was followed
        bool isOpen;       ///< false: only looked at
        uint32_t openings; ///< until then
    };
    Place place() const {
        return {m_video.db, m_video.offset, m_video.stH.pictures, m_video.readSt != nullptr, m_openings};
    }
    /// Whether any stream has been opened since, also in vain.
    bool hasOpenedSince(const Place& place) const { return m_openings != place.openings; }
    /// Back on a stream left for a search, at the picture it was left at, if both are still there.
    void standAgainOn(const Place& place);

    const DB_STREAM& row() const { return m_video.db; }
    PB_STREAM_TIME startTime() const { return {m_video.db.startDate, m_video.db.startMSec}; }
    PB_STREAM_TIME endTime() const { return {m_video.db.endDate, m_video.db.endMSec}; }

    /// Closes both readers and forgets the stream; the offset and the first time stamp stay.
    void clear();
    /// Puts another row in place and nothing else; readers, headers and offset stay for what comes next.
    void replaceRow(const DB_STREAM& row) { m_video.db = row; }

    /// Opens the row's areas, verifies its headers and stands on picture 0.
    int m_openChunk();
    /// The row of a stream under recording has `pictures` pictures now: opens it anew. The offset stays, also
    /// when it fails; `picH` may be any picture's, so it is to be read again.
    int openGrown(uint32_t pictures);
    /// The row ends at the current picture.
    void takeEndFromPicture();

    // ---- which picture ----

    uint32_t getOffset() const { return m_video.offset; }
    const STREAM_HEADER& header() const { return m_video.stH; }
    uint32_t pictures() const { return m_video.stH.pictures; }
    /// For a stream without pictures it wraps to the highest offset: no header read accepts that one, and as
    /// a result it is -1.
    uint32_t lastPicture() const { return m_video.stH.pictures - 1; }
    /// The offset `count` pictures on, inside the stream; none past its start or end, however far.
    std::optional<uint32_t> offsetAt(Direction direction, uint32_t count) const;
    void getPicH(PICTURE_HEADER* picH) const { *picH = m_video.picH; }
    void copyTo(const PlaceRecords& out) const;

    /// Reads and verifies the current picture's header; a failure leaves in `picH` what was read.
    int m_readPic();
    int goTo(uint32_t offset);
    /// To the nearest I-picture from `offset` on. Without one it stands on `offset`.
    int goToIPicture(uint32_t offset, Direction direction);
    /// To the picture recorded at a clock time, near enough; reads at most six headers.
    int m_setOffset(unsigned long sec, unsigned long mSec);
    /// Distance to the nearest I-picture from the current picture on, its header in `picH`. The current
    /// picture stays.
    long m_iPicSearch(Direction direction, PICTURE_HEADER* picH);

    /// Reads the picture's data into `buffer` (at least picH.size bytes). The offset, or -1.
    long get(unsigned char* buffer);

    // ---- times and rates ----

    PB_STREAM_TIME getNowPts() const { return {m_video.picH.pts, m_video.picH.msec}; }
    PB_STREAM_TIME getTopPts() const { return m_topPts; }
    PB_STREAM_TIME getTimePts() const;
    unsigned long getFrameRate() const;

    // ---- dumps (debug_dump.cpp) ----

    void m_showDb() const;
    void m_showStH() const;
    void m_showPicH() const;

private:
    void closeReaders();
    int createReaders();
    int openHeaderArea();
    int openPictureArea(CHUNK_EVENT area);
    int checkStreamHeader() const;
    int seekHeader(uint32_t picture);
    long readHeader(void* header);
    long readData(unsigned char* buffer, uint32_t size);
    PB_STREAM_TIME pictureTime() const { return startTime() + getNowPts() - m_topPts; }
    void showAll() const;

    PB_VIDEO m_video;
    PB_STREAM_TIME m_topPts;
    uint32_t m_openings = 0; ///< wraps
    ErrorFlags& m_errorFlags;
};

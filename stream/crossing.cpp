// From one stream into its neighbour, or into the stream that holds a clock time.
#include <cstdio>

#include "platform/log.h"
#include "stream/pb_stream_video.h"
#include "stream/sql_text.h"

namespace {

/// Results when no neighbour was usable and the newest or oldest recording was taken instead.
constexpr int kTookNewest = -2;
constexpr int kTookOldest = -3;

// The statements spell "earlier" out as a < b OR a = b AND ..., relying on AND binding tighter than OR. They
// are sent to the letter, blanks included; the brackets missing in one of them are meant.

/// One question to the index: the time streams are compared with, and the stream that is no answer.
struct Crossing {
    char sec[12];
    unsigned mSec;
    bool locate; ///< a time is looked for: the stream stood on may be the answer
    char exclusion[40];

    Crossing(PB_STREAM_TIME time, bool locating, uint32_t leftStreamId)
        : sec{}, mSec(time.mSec), locate(locating), exclusion{} {
        std::snprintf(sec, sizeof sec, "%lu", asLu(time.seconds()));
        if (!locate) std::snprintf(exclusion, sizeof exclusion, "AND streamID<>%lu", asLu(leftStreamId));
    }

    /// The stream whose span holds the time, start included and end excluded.
    SqlText forwardHolding() const {
        return sqlText("SELECT * FROM STREAM WHERE (startDate < %s OR startDate = %s AND startMSec <= %u) "
                       "AND  (%s < endDate OR %s = endDate AND %u < endMSec) %s "
                       "ORDER BY streamID ASC LIMIT 1",
                       sec, sec, mSec, sec, sec, mSec, exclusion);
    }

    /// The first stream that starts at the time or after it. The exclusion binds to the equal second only.
    SqlText forwardAfter() const {
        return sqlText("SELECT * FROM STREAM WHERE %s < startDate OR %s = startDate AND %u <= startMSec "
                       "%s%sORDER BY streamID ASC LIMIT 1",
                       sec, sec, mSec, exclusion, locate ? "" : " ");
    }

    /// The stream whose span holds the time, start excluded and end included.
    SqlText backwardHolding() const {
        return sqlText("SELECT * FROM STREAM WHERE (startDate < %s OR startDate = %s AND startMSec < %u) "
                       "AND  (%s < endDate OR %s = endDate AND %u <= endMSec) %s "
                       "ORDER BY streamID DESC LIMIT 1",
                       sec, sec, mSec, sec, sec, mSec, exclusion);
    }

    /// The last stream with data that ended at the time or before it.
    SqlText backwardBefore() const {
        return sqlText("SELECT * FROM STREAM WHERE (endDate < %s OR endDate = %s AND endMSec <= %u) "
                       "AND recSize<>0 %s%sORDER BY streamID DESC LIMIT 1",
                       sec, sec, mSec, exclusion, locate ? "" : " ");
    }
};

/// The stream under recording, when it started at the time or before it.
SqlText recordingStream(PB_STREAM_TIME time) {
    const unsigned long sec = asLu(time.seconds());
    return sqlText("SELECT * FROM STREAM WHERE (%lu > startDate OR (%lu = startDate AND %u >= startMSec)) "
                   "AND status=1 ORDER BY streamID ASC LIMIT 1",
                   sec, sec, unsigned{time.mSec});
}

/// Any stream that started at the time or before it: none means that the time lies before every recording.
SqlText startedBefore(PB_STREAM_TIME time) {
    const unsigned long sec = asLu(time.seconds());
    return sqlText("SELECT * FROM STREAM WHERE %lu > startDate OR %lu = startDate AND %u >= startMSec "
                   "ORDER BY streamID ASC LIMIT 1",
                   sec, sec, unsigned{time.mSec});
}

} // namespace

int CPbStreamVideo::over(unsigned char dir, DB_STREAM* db, STREAM_HEADER* stH, PICTURE_HEADER* picH,
                         PB_STREAM_TIME* pbTime, unsigned long timeSearch) {
    logPlain(LOG_INFO, "CPbStreamVideo::over");
    const bool backward = dir == 1;
    const bool locate = timeSearch == 1;
    const DB_STREAM left = m_video.db;
    const Crossing crossing(m_referenceTime(pbTime), locate, left.streamID);

    int found = m_setSql((backward ? crossing.backwardHolding() : crossing.forwardHolding()).text);
    if (found == kQueryNoRow)
        found = m_setSql((backward ? crossing.backwardBefore() : crossing.forwardAfter()).text);
    if (found == kQueryNoRow) {
        logAt(LOG_ERR, "CPbStreamVideo::over() not found stream. timeStr=%s", crossing.sec);
        bool beyondRecording = false;
        if (locate) found = m_findRecordingStream(*pbTime, &beyondRecording);
        if (found == kQueryNoRow) {
            if (left.status == DB_STATUS_RECORDING || beyondRecording) return m_stayOn(left);
            const int taken = m_fallBack(backward, db, stH, picH);
            if (!backward && m_playlastframemode != 0) m_showLastFrame(stH, picH);
            return taken;
        }
    }
    if (found == kQueryError) return -1;

    if (m_updateRecStream() == -1) {
        logAt(LOG_ERR, "m_checkRecDB() return REC");
        return m_fallBack(backward, db, stH, picH);
    }
    if (locate) m_checkStartOfFile(m_referenceTime(pbTime));
    return m_landOn(backward, db, stH, picH);
}

PB_STREAM_TIME CPbStreamVideo::m_referenceTime(const PB_STREAM_TIME* pbTime) const {
    return pbTime != nullptr && pbTime->sec != 0 ? *pbTime : getTimePts();
}

int CPbStreamVideo::m_findRecordingStream(PB_STREAM_TIME time, bool* beyondRecording) {
    const int found = m_setSql(recordingStream(time).text);
    if (found != kQueryFound) return found;
    if (m_updateRecStream() == 0 && !(time > m_endTime())) return kQueryFound;

    clear();
    *beyondRecording = true;
    return kQueryNoRow;
}

int CPbStreamVideo::m_stayOn(const DB_STREAM& row) {
    // The row alone: the queries have closed the readers, and the next refresh, finding picture counts that
    // differ, opens them again where the position was.
    logNamed(LOG_ERR, "over", "status : DB_STATUS_RECORDING");
    m_video.db = row;
    return -1;
}

int CPbStreamVideo::m_fallBack(bool backward, DB_STREAM* db, STREAM_HEADER* stH, PICTURE_HEADER* picH) {
    if (backward) {
        m_skipOldest(db, stH, picH);
        return kTookOldest;
    }
    m_skipLatest(db, stH, picH, 0);
    return kTookNewest;
}

void CPbStreamVideo::m_showLastFrame(STREAM_HEADER* stH, PICTURE_HEADER* picH) {
    if (m_goTo(m_lastPicture()) == -1) return;
    *picH = m_video.picH;
    *stH = m_video.stH;
}

void CPbStreamVideo::m_checkStartOfFile(PB_STREAM_TIME time) {
    const DB_STREAM found = m_video.db;
    if (m_setSql(startedBefore(time).text) == kQueryNoRow) {
        std::puts("#1542 found");
        m_SOFflag = 1;
    }
    m_video.db = found;
}

int CPbStreamVideo::m_landOn(bool backward, DB_STREAM* db, STREAM_HEADER* stH, PICTURE_HEADER* picH) {
    if (m_openChunk() == -1 || m_goTo(backward ? m_lastPicture() : 0) == -1) {
        clear();
        return -1;
    }
    m_copyOut(db, stH, picH);
    return static_cast<int>(m_video.offset);
}

// Targets that are not given as a time: the newest recording's end, the oldest one's start, and the next or
// previous recorded alarm.
#include "platform/log.h"
#include "stream/pb_stream_video.h"
#include "stream/sql_text.h"

namespace {

/// External triggers of the events that count as alarms: from the first up to, not including, the second.
constexpr int kFirstAlarmTrigger = 512;
constexpr int kEndAlarmTrigger = 2048;

constexpr const char* kNewestStream = "SELECT * FROM STREAM ORDER BY streamID DESC LIMIT 1";
constexpr const char* kNewestStreamWithData =
    "SELECT * FROM STREAM WHERE recSize<>0 ORDER BY streamID DESC LIMIT 1";

/// The ended alarm next to `time` on that side of it, and beyond the event landed on last (0 = none).
SqlText alarmEvent(PB_STREAM_TIME time, bool backward, uint32_t lastEventId) {
    SqlText beyondLast{};
    if (lastEventId != 0)
        beyondLast = sqlText("AND ( eventID %s %lu ) ", backward ? "<" : ">", asLu(lastEventId));
    const unsigned long sec = asLu(time.seconds());
    const unsigned mSec = time.mSec;
    if (backward)
        return sqlText("SELECT * FROM EVENT  WHERE (startDate < %lu OR startDate = %lu AND startMSec < %u) "
                       "AND ( endDate <> 0 ) AND ( %d <= extTrg AND extTrg < %d ) %s"
                       "ORDER BY eventID DESC, startDate DESC LIMIT 1",
                       sec, sec, mSec, kFirstAlarmTrigger, kEndAlarmTrigger, beyondLast.text);
    return sqlText("SELECT * FROM EVENT  WHERE (%lu < startDate OR %lu = startDate AND %u < startMSec) "
                   "AND ( endDate <> 0 ) AND ( %d <= extTrg AND extTrg < %d ) %s"
                   "ORDER BY eventID ASC, startDate ASC LIMIT 1",
                   sec, sec, mSec, kFirstAlarmTrigger, kEndAlarmTrigger, beyondLast.text);
}

/// The stream whose span holds the time, start included and end excluded.
SqlText streamHolding(PB_STREAM_TIME time) {
    const unsigned long sec = asLu(time.seconds());
    const unsigned mSec = time.mSec;
    return sqlText("SELECT * FROM STREAM WHERE (startDate < %lu OR startDate = %lu AND startMSec <= %u) "
                   "AND  (%lu < endDate OR %lu = endDate AND %u < endMSec)  "
                   "ORDER BY startDate DESC LIMIT 1",
                   sec, sec, mSec, sec, sec, mSec);
}

/// The stream under recording, when it started at the time or before it.
SqlText recordingStreamFor(PB_STREAM_TIME time) {
    const unsigned long sec = asLu(time.seconds());
    return sqlText("SELECT * FROM STREAM WHERE (startDate < %lu OR startDate = %lu AND startMSec <= %u) "
                   "AND (status = 1)  ORDER BY startDate DESC LIMIT 1",
                   sec, sec, unsigned{time.mSec});
}

} // namespace

PB_STREAM_TIME CPbStreamVideo::m_skipLatest(DB_STREAM* db, STREAM_HEADER* stH, PICTURE_HEADER* picH,
                                            unsigned long backSec) {
    logAt(LOG_INFO, "enter");
    if (m_setSql(kNewestStream) != kQueryFound) return {};
    // Marked as under recording but not followed by the recorder: the newest one with data is taken.
    if (m_updateRecStream() == -1 && m_setSql(kNewestStreamWithData) != kQueryFound) return {};

    const uint32_t sec = m_video.db.endDate - static_cast<uint32_t>(backSec);
    const PB_STREAM_TIME target =
        sec < m_video.db.startDate ? m_startTime() : PB_STREAM_TIME(sec, m_video.db.endMSec);
    if (m_openAt(target) == -1) {
        clear();
        return {};
    }
    logAt(LOG_INFO, "skip success. ID=%lu offset=%lu", asLu(m_video.db.streamID), asLu(m_video.offset));
    m_copyOut(db, stH, picH);
    return target;
}

PB_STREAM_TIME CPbStreamVideo::m_skipOldest(DB_STREAM* db, STREAM_HEADER* stH, PICTURE_HEADER* picH) {
    const DB_STREAM left = m_video.db;
    logAt(LOG_INFO, "enter");
    if (m_apiDb->selectStreamOldestTime(&m_video.db) != 1) {
        logAt(LOG_ERR, "Error: selectStreamOldestTime is failed");
        clear();
        return {};
    }
    if (m_updateRecStream() == -1) {
        m_video.db = left;
        return {};
    }
    if (m_openChunk() == -1 || m_goTo(0) == -1) {
        logAt(LOG_ERR, "Error: zuvo access failed");
        clear();
        return {};
    }
    m_copyOut(db, stH, picH);
    return m_startTime();
}

PB_STREAM_TIME CPbStreamVideo::m_skipRecType(PB_STREAM_TIME* pbTime, DB_STREAM* db, STREAM_HEADER* stH,
                                             PICTURE_HEADER* picH, unsigned char dir, unsigned long,
                                             unsigned long) {
    const DB_STREAM left = m_video.db;
    DB_EVENT event{};
    if (m_setSqlEvent(alarmEvent(*pbTime, dir == 1, m_eventID).text, &event) != kQueryFound) return {};

    const PB_STREAM_TIME start(event.startDate, event.startMSec);
    if (m_findEventStream(start, left) != kQueryFound) return {};
    if (m_updateRecStream() == -1) {
        m_standAgainOn(left, m_video.offset);
        return {};
    }
    if (m_openAt(start) == -1) {
        clear();
        return {};
    }
    logAt(LOG_INFO, "skip success. ID=%lu offset=%lu", asLu(m_video.db.streamID), asLu(m_video.offset));
    m_copyOut(db, stH, picH);
    m_eventID = event.eventID;
    return start;
}

int CPbStreamVideo::m_findEventStream(PB_STREAM_TIME start, const DB_STREAM& left) {
    int found = m_setSql(streamHolding(start).text);
    if (found != kQueryNoRow) return found;

    found = m_setSql(recordingStreamFor(start).text);
    // Looking at the stream under recording may move the position, which belongs to the stream left.
    const uint32_t position = m_video.offset;
    if (found == kQueryFound && (m_updateRecStream() != 0 || start > m_endTime())) found = kQueryNoRow;
    if (found == kQueryNoRow) m_standAgainOn(left, position);
    return found;
}

void CPbStreamVideo::m_standAgainOn(const DB_STREAM& row, uint32_t offset) {
    m_video.db = row;
    m_openChunk();
    m_goTo(offset);
}

int CPbStreamVideo::m_openAt(PB_STREAM_TIME time) {
    if (m_openChunk() == -1) return -1;
    m_updateRecStream();
    return m_setOffset(time.seconds(), time.mSec);
}

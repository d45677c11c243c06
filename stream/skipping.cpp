// Targets that are not given as a time: the newest recording's end, the oldest one's start, and the next or
// previous recorded alarm.
#include "platform/log.h"
#include "stream/pb_stream_video.h"

PB_STREAM_TIME CPbStreamVideo::m_skipLatest(const PlaceRecords& out, unsigned long backSec) {
    logAt(LOG_INFO, "enter");
    if (lookFor(statements::newestStream()) != QueryResult::found) return {};
    // Marked as under recording but not followed by the recorder: the newest one with data is taken.
    if (m_updateRecStream() == -1 && lookFor(statements::newestStreamWithData()) != QueryResult::found)
        return {};

    const DB_STREAM& row = m_stream.row();
    const uint32_t sec = row.endDate - static_cast<uint32_t>(backSec);
    const PB_STREAM_TIME target =
        sec < row.startDate ? m_stream.startTime() : PB_STREAM_TIME(sec, row.endMSec);
    if (openAt(target) == -1) {
        clear();
        return {};
    }
    logAt(LOG_INFO, "skip success. ID=%lu offset=%lu", asLu(row.streamID), asLu(m_stream.getOffset()));
    m_stream.copyTo(out);
    return target;
}

PB_STREAM_TIME CPbStreamVideo::m_skipOldest(const PlaceRecords& out) {
    const StoodOn left = stoodOn();
    DB_STREAM oldest = left.place.row;
    logAt(LOG_INFO, "enter");
    if (!m_index.selectOldestStream(&oldest)) {
        logAt(LOG_ERR, "Error: selectStreamOldestTime is failed");
        clear();
        return {};
    }
    m_stream.replaceRow(oldest);
    if (m_updateRecStream() == -1) {
        // A refresh that fails late has opened the oldest stream's areas by then.
        if (left.place.isOpen && m_stream.hasOpenedSince(left.place)) {
            standAgainOn(left);
        } else {
            if (!left.place.isOpen) m_stream.clear();
            m_stream.replaceRow(left.place.row);
        }
        return {};
    }
    if (m_stream.m_openChunk() == -1 || m_stream.goTo(0) == -1) {
        logAt(LOG_ERR, "Error: zuvo access failed");
        clear();
        return {};
    }
    m_stream.copyTo(out);
    return m_stream.startTime();
}

PB_STREAM_TIME CPbStreamVideo::m_skipRecType(PB_STREAM_TIME pbTime, const PlaceRecords& out,
                                             Direction direction) {
    const StoodOn left = stoodOn();
    DB_EVENT event{};
    const QueryResult found =
        m_index.m_setSqlEvent(direction == Direction::backward ? statements::previousAlarm(pbTime, m_eventID)
                                                               : statements::nextAlarm(pbTime, m_eventID),
                              &event);
    // Without an index there is no recording to stand on; a refused text alone says nothing about it.
    if (found == QueryResult::noIndex) clear();
    if (found != QueryResult::found) return {};

    const PB_STREAM_TIME start(event.startDate, event.startMSec);
    if (lookForAlarmStream(start, left) != QueryResult::found) return {};
    if (m_updateRecStream() == -1) {
        standAgainOn(left);
        return {};
    }
    if (openAt(start) == -1) {
        clear();
        return {};
    }
    logAt(LOG_INFO, "skip success. ID=%lu offset=%lu", asLu(m_stream.row().streamID),
          asLu(m_stream.getOffset()));
    m_stream.copyTo(out);
    m_eventID = event.eventID;
    return start;
}

QueryResult CPbStreamVideo::lookForAlarmStream(PB_STREAM_TIME start, const StoodOn& left) {
    QueryResult found = lookFor(statements::alarmHolding(start));
    if (found != QueryResult::noRow) return found;

    found = lookFor(statements::alarmRecording(start));
    if (found == QueryResult::found && (m_updateRecStream() != 0 || start > m_stream.endTime()))
        found = QueryResult::noRow;
    if (found == QueryResult::noRow) standAgainOn(left);
    return found;
}

int CPbStreamVideo::openAt(PB_STREAM_TIME time) {
    if (m_stream.m_openChunk() == -1) return -1;
    m_updateRecStream();
    return m_stream.m_setOffset(time.seconds(), time.mSec);
}

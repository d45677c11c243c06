// To the picture recorded at a clock time, and the one entry to the targets without a time.
#include "platform/log.h"
#include "stream/pb_stream_video.h"

PB_STREAM_TIME CPbStreamVideo::getTime(PB_STREAM_TIME pbTime, DB_STREAM* db, STREAM_HEADER* stH,
                                       PICTURE_HEADER* picH, unsigned char, unsigned char dir,
                                       unsigned long) {
    m_SOFflag = 0;
    // Up to date before the first look at its end, and again before each use: the recorder goes on meanwhile.
    m_updateRecStream();
    switch (m_findTime(pbTime, dir)) {
    case TimeSearch::found:
        m_updateRecStream();
        if (m_setOffset(pbTime.seconds(), pbTime.mSec) == 0) {
            m_copyOut(db, stH, picH);
            return pbTime;
        }
        logAt(LOG_ERR, "m_setOffset error");
        break;
    case TimeSearch::tookFallback:
        m_copyOut(db, stH, picH);
        return {};
    case TimeSearch::failed:
        logAt(LOG_INFO, "Not found stream");
        break;
    }
    logAt(LOG_INFO, "getTime error");
    clear();
    return {};
}

CPbStreamVideo::TimeSearch CPbStreamVideo::m_findTime(PB_STREAM_TIME pbTime, unsigned char dir) {
    if (!(pbTime < m_startTime()) && !(pbTime > m_endTime())) {
        m_updateRecStream();
        return pbTime.sec != 0 ? TimeSearch::found : TimeSearch::failed;
    }
    if (m_updateRecStream() != 0) return TimeSearch::failed;

    const bool forward = dir == 0;
    if (over(forward ? 0 : 1, &m_video.db, &m_video.stH, &m_video.picH, &pbTime, 1) >= 0) {
        logPlain(LOG_WARNING, "pbTime.sec = %ld, pbTime.mSec = %d", asLd(pbTime.sec), int{pbTime.mSec});
        return pbTime.sec != 0 ? TimeSearch::found : TimeSearch::failed;
    }
    const PB_STREAM_TIME taken = forward ? m_skipLatest(&m_video.db, &m_video.stH, &m_video.picH, 0)
                                         : m_skipOldest(&m_video.db, &m_video.stH, &m_video.picH);
    return taken.sec != 0 ? TimeSearch::tookFallback : TimeSearch::failed;
}

PB_STREAM_TIME CPbStreamVideo::getSkip(PB_STREAM_TIME* pbTime, DB_STREAM* db, STREAM_HEADER* stH,
                                       PICTURE_HEADER* picH, unsigned char skipType, unsigned char dir,
                                       unsigned long count, unsigned long backSec) {
    switch (skipType) {
    case kSkipLatest:
        return m_skipLatest(db, stH, picH, backSec);
    case kSkipOldest:
        return m_skipOldest(db, stH, picH);
    case kSkipEvent:
        return m_skipRecType(pbTime, db, stH, picH, dir, count, backSec);
    default:
        logAt(LOG_ERR, "skip type not defined");
        clear();
        return {};
    }
}

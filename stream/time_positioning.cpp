// To the picture recorded at a clock time, and the one entry to the targets without a time.
#include "platform/log.h"
#include "stream/pb_stream_video.h"

PB_STREAM_TIME CPbStreamVideo::getTime(PB_STREAM_TIME pbTime, DB_STREAM* db, STREAM_HEADER* stH,
                                       PICTURE_HEADER* picH, unsigned char, unsigned char dir,
                                       unsigned long) {
    m_SOFflag = 0;
    // Up to date before the first look at its end, and again before each use: the recorder goes on meanwhile.
    m_updateRecStream();
    switch (findTime(pbTime, dir == 0 ? Direction::forward : Direction::backward)) {
    case TimeSearch::found:
        m_updateRecStream();
        if (m_stream.m_setOffset(pbTime.seconds(), pbTime.mSec) == 0) {
            m_stream.copyTo({db, stH, picH});
            return pbTime;
        }
        logAt(LOG_ERR, "m_setOffset error");
        break;
    case TimeSearch::tookFallback:
        m_stream.copyTo({db, stH, picH});
        return {};
    case TimeSearch::failed:
        logAt(LOG_INFO, "Not found stream");
        break;
    }
    logAt(LOG_INFO, "getTime error");
    clear();
    return {};
}

CPbStreamVideo::TimeSearch CPbStreamVideo::findTime(PB_STREAM_TIME pbTime, Direction direction) {
    if (!(pbTime < m_stream.startTime()) && !(pbTime > m_stream.endTime())) {
        m_updateRecStream();
        return pbTime.isNone() ? TimeSearch::failed : TimeSearch::found;
    }
    if (m_updateRecStream() != 0) return TimeSearch::failed;

    const PlaceRecords none; // getTime copies, once it is known what the search came to
    if (cross(direction, none, &pbTime, true) >= 0) {
        logPlain(LOG_WARNING, "pbTime.sec = %ld, pbTime.mSec = %d", asLd(pbTime.sec), int{pbTime.mSec});
        return pbTime.isNone() ? TimeSearch::failed : TimeSearch::found;
    }
    const PB_STREAM_TIME taken = direction == Direction::forward ? m_skipLatest(none, 0) : m_skipOldest(none);
    return taken.isNone() ? TimeSearch::failed : TimeSearch::tookFallback;
}

PB_STREAM_TIME CPbStreamVideo::getSkip(PB_STREAM_TIME* pbTime, DB_STREAM* db, STREAM_HEADER* stH,
                                       PICTURE_HEADER* picH, unsigned char skipType, unsigned char dir,
                                       unsigned long, unsigned long backSec) {
    const PlaceRecords out{db, stH, picH};
    switch (skipType) {
    case kSkipLatest:
        return m_skipLatest(out, backSec);
    case kSkipOldest:
        return m_skipOldest(out);
    case kSkipEvent:
        return m_skipRecType(*pbTime, out, dir == 1 ? Direction::backward : Direction::forward);
    default:
        logAt(LOG_ERR, "skip type not defined");
        clear();
        return {};
    }
}

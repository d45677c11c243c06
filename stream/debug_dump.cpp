// The records as the log shows them after every failed read of the recording.
#include <ctime>

#include "platform/log.h"
#include "stream/open_stream.h"

namespace {

struct DateText {
    char text[80];
};

DateText localDate(uint32_t secondsSinceEpoch) {
    DateText date{};
    const auto seconds = static_cast<time_t>(secondsSinceEpoch);
    tm local{};
    if (localtime_r(&seconds, &local) != nullptr)
        strftime(date.text, sizeof date.text, "%Y-%m-%d %H:%M:%S", &local);
    return date;
}

} // namespace

void OpenStream::m_showDb() const {
    const DB_STREAM& db = m_video.db;
    logPlain(LOG_INFO, "database info ----------------------");
    logPlain(LOG_INFO, "m_video.db.streamID    = %lu", asLu(db.streamID));
    logPlain(LOG_INFO, "m_video.db.inTrg       = 0x%X", unsigned{db.inTrg});
    logPlain(LOG_INFO, "m_video.db.frameSet    = 0x%X", unsigned{db.frameSet});
    logPlain(LOG_INFO, "m_video.db.bitrateSet  = 0x%X", db.bitrateSet);
    logPlain(LOG_INFO, "m_video.db.recSize     = %lu", asLu(db.recSize));
    logPlain(LOG_INFO, "m_video.db.chunkID     = %lu", asLu(db.chunkID));
    logPlain(LOG_INFO, "m_video.db.chunkOffset = %lu", asLu(db.chunkOffset));
    logPlain(LOG_INFO, "m_video.db.chunkSize   = %lu", asLu(db.chunkSize));
    logPlain(LOG_INFO, "m_video.db.status      = %lu", asLu(db.status));
    logPlain(LOG_INFO, "m_video.db.startDate   = %s(%lu)", localDate(db.startDate).text, asLu(db.startDate));
    logPlain(LOG_INFO, "m_video.db.endDate     = %s(%lu)", localDate(db.endDate).text, asLu(db.endDate));
    logPlain(LOG_INFO, "m_video.db.startMSec   = %u", unsigned{db.startMSec});
    logPlain(LOG_INFO, "m_video.db.endMSec     = %u", unsigned{db.endMSec});
    logPlain(LOG_INFO, "m_video.db.backOffset  = %lu", asLu(db.backOffset));
}

void OpenStream::m_showStH() const {
    const STREAM_HEADER& stH = m_video.stH;
    logPlain(LOG_INFO, "stream header info ----------------------");
    logPlain(LOG_INFO, "m_video.stH.marker   = 0x%X", stH.marker);
    logPlain(LOG_INFO, "m_video.stH.id       = %lu", asLu(stH.id));
    logPlain(LOG_INFO, "m_video.stH.offset   = %lu", asLu(stH.offset));
    logPlain(LOG_INFO, "m_video.stH.size     = %lu", asLu(stH.size));
    logPlain(LOG_INFO, "m_video.stH.pts      = %lu", asLu(stH.pts));
    logPlain(LOG_INFO, "m_video.stH.pictures = %lu", asLu(stH.pictures));
    logPlain(LOG_INFO, "m_video.stH.gops     = %lu", asLu(stH.gops));
    logPlain(LOG_INFO, "m_video.stH.cs       = %u", unsigned{stH.cs});
}

void OpenStream::m_showPicH() const {
    const PICTURE_HEADER& picH = m_video.picH;
    logPlain(LOG_INFO, "picture header info ----------------------");
    logPlain(LOG_INFO, "m_video.picH.marker   = 0x%X", picH.marker);
    logPlain(LOG_INFO, "m_video.picH.id       = %lu", asLu(picH.id));
    logPlain(LOG_INFO, "m_video.picH.offset   = %lu", asLu(picH.offset));
    logPlain(LOG_INFO, "m_video.picH.size     = %lu", asLu(picH.size));
    logPlain(LOG_INFO, "m_video.picH.pts      = %lu", asLu(picH.pts));
    logPlain(LOG_INFO, "m_video.picH.pictures = %lu", asLu(picH.pictures));
    logPlain(LOG_INFO, "m_video.picH.msec     = %u", unsigned{picH.msec});
    logPlain(LOG_INFO, "m_video.picH.reserved = %lu", asLu(picH.reserved));
    logPlain(LOG_INFO, "m_video.picH.cs       = %u", unsigned{picH.cs});
}

void OpenStream::showAll() const {
    m_showDb();
    m_showStH();
    m_showPicH();
}

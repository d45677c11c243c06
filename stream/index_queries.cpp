// The object's life, its queries on the index, and following a stream that the recorder is still writing.
#include <sys/stat.h>

#include "platform/log.h"
#include "platform/paths.h"
#include "shm/shm_server.h"
#include "stream/pb_stream_video.h"

namespace {

bool indexFileExists() {
    struct stat status;
    return stat(paths().index, &status) == 0;
}

/// What the recorder says about its work, both words of one moment.
struct RecorderState {
    uint32_t streamId;
    uint32_t pictures;
};

RecorderState askRecorder(CtavirnShmServer& segment) {
    segment.lockShm();
    const RecorderState state{segment.m_status->recStreamID, segment.m_status->recPictures};
    segment.unlockShm();
    return state;
}

} // namespace

// ---- life ----

CPbStreamVideo::CPbStreamVideo(CtavirnShmServer* shmServer)
    : m_apiDb(std::make_unique<CApiDb>()), m_shmserver(shmServer) {
    logAt(LOG_INFO, "m_shmserver = %p", static_cast<void*>(m_shmserver));
}

CPbStreamVideo::~CPbStreamVideo() {
    // A getErrorflag under way on another thread ends first.
    m_mutex.drain();
    m_apiDb.reset();
    clear();
}

void CPbStreamVideo::clear() {
    m_closeReaders();
    m_video.db = {};
    m_video.stH = {};
    m_video.picH = {};
}

void CPbStreamVideo::m_closeReaders() {
    for (std::unique_ptr<CStreamRead>* reader : {&m_video.readPic, &m_video.readSt}) {
        if (*reader == nullptr) continue;
        (*reader)->close();
        reader->reset();
    }
}

void CPbStreamVideo::m_copyOut(DB_STREAM* db, STREAM_HEADER* stH, PICTURE_HEADER* picH) const {
    *db = m_video.db;
    *stH = m_video.stH;
    *picH = m_video.picH;
}

// ---- queries ----

PB_STREAM_TIME CPbStreamVideo::getId(unsigned long id, DB_STREAM* db, STREAM_HEADER* stH,
                                     PICTURE_HEADER* picH, unsigned long) {
    m_video.db = {};
    if (m_apiDb->selectStream(id, &m_video.db) == 0) {
        logPlain(LOG_ERR, "CPbStreamVideo::getId() id = %lu error", id);
        return {};
    }
    if (m_updateRecStream() == -1) {
        m_video.db = {};
        return {};
    }
    if (m_openChunk() == -1) {
        clear();
        return {};
    }

    m_video.offset = 0;
    const long distance = m_iPicSearch(kSearchForward, picH);
    if (distance > 0)
        m_video.offset = static_cast<uint32_t>(distance);
    else
        *picH = m_video.picH;

    if (m_readPic() == -1) {
        clear();
        return {};
    }
    m_copyOut(db, stH, picH);
    return m_startTime();
}

int CPbStreamVideo::m_setSql(const char* sql) {
    const int result = m_query(__func__, sql);
    // Whatever the index said, the stream stood on so far is left.
    clear();
    if (result != kQueryFound) return result;

    m_apiDb->getStreamValue(0, &m_video.db);
    logAt(LOG_INFO, "apiDB setSql found stream ID = %lu", asLu(m_video.db.streamID));
    return kQueryFound;
}

int CPbStreamVideo::m_setSqlEvent(const char* sql, DB_EVENT* event) {
    const int result = m_query(__func__, sql);
    if (result != kQueryFound) return result;

    m_apiDb->getEventValue(0, event);
    logAt(LOG_INFO, "apiDB setSql found eventID = %lu", asLu(event->eventID));
    return kQueryFound;
}

int CPbStreamVideo::m_query(const char* operation, const char* sql) {
    logNamed(LOG_INFO, operation, "%s", sql);
    setErrorflag(kErrorKindIndex, 0);

    const bool indexMissing = !indexFileExists();
    if (indexMissing || m_apiDb->setSql(sql) != 0) {
        setErrorflag(kErrorKindIndex, 1);
        logNamed(LOG_ERR, operation, "apiDB setSql error");
        // Without an index there is no recording to stand on; a refused text alone says nothing about it.
        if (indexMissing) clear();
        return kQueryError;
    }
    if (m_apiDb->getNTuple() == 0) {
        logNamed(LOG_INFO, operation, "apiDB setSql not found record");
        return kQueryNoRow;
    }
    return kQueryFound;
}

// ---- following the recorder ----

int CPbStreamVideo::m_updateRecStream() {
    if (m_video.db.status != DB_STATUS_RECORDING) {
        m_recFirstFlag = 1;
        return 0;
    }
    if (m_shmserver == nullptr || m_shmserver->m_status == nullptr) {
        logAt(LOG_ERR, "shared memory error");
        return -1;
    }

    const RecorderState recorder = askRecorder(*m_shmserver);
    if (recorder.streamId == 0) {
        logAt(LOG_ERR, "pelsod's streamID = 0");
        m_recFirstFlag = 1;
        return -1;
    }
    return recorder.streamId == m_video.db.streamID ? m_followGrowth(recorder.pictures)
                                                    : m_reloadFinished(recorder.streamId);
}

int CPbStreamVideo::m_followGrowth(uint32_t pictures) {
    static constexpr const char* kName = "m_updateRecStream";
    if (pictures == 0) {
        m_recFirstFlag = 1;
        return -1;
    }
    if (pictures == m_recPictures && pictures == m_video.stH.pictures) return 0;

    m_recPictures = pictures;
    m_video.db.chunkSize = (pictures + 1) * kHeaderBytes;
    const uint32_t position = m_video.offset;
    if (m_openChunk() == -1) {
        // Not yet readable is not damaged: the recorder may still be writing what it has announced. The open
        // has logged what it found, and the recorder's next count is the next occasion to try.
        m_video.stH.pictures = pictures;
        m_video.offset = position;
        return 0;
    }

    // While recording, the header on the card may still hold an old count; the recorder's own is the truth.
    m_video.stH.pictures = pictures;
    m_video.offset = pictures - 1;
    if (m_readPic() == -1) {
        logNamed(LOG_ERR, kName, "m_readPic() error");
        return -1;
    }
    m_takeEndFromPicture();

    m_video.offset = m_recFirstFlag == 1 ? 0 : position;
    m_recFirstFlag = 0;
    if (m_readPic() == -1) {
        logNamed(LOG_ERR, kName, "m_readPic() error");
        return -1;
    }
    return 0;
}

void CPbStreamVideo::m_takeEndFromPicture() {
    const PB_STREAM_TIME span = getNowPts() - m_topPts;
    DB_STREAM& db = m_video.db;
    const uint32_t endMs = uint32_t{db.startMSec} + span.mSec;
    db.endDate = db.startDate + span.seconds() + (endMs > 999 ? 1 : 0);
    db.endMSec = static_cast<uint16_t>(endMs % 1000);
}

int CPbStreamVideo::m_reloadFinished(uint32_t recorderStreamId) {
    m_recFirstFlag = 1;
    if (m_apiDb->selectStream(m_video.db.streamID, &m_video.db) == 0) {
        logPlain(LOG_ERR, "CPbStreamVideo::m_updateRecStream() id = %lu error", asLu(recorderStreamId));
        return -1;
    }
    // The recorder moves on before it closes the row; until then this stream is neither growing nor finished.
    if (m_video.db.status == DB_STATUS_RECORDING) return 0;

    const uint32_t position = m_video.offset;
    m_openChunk();
    m_video.offset = position;
    m_readPic();
    return 0;
}

void CPbStreamVideo::getDb(DB_STREAM* db) {
    m_updateRecStream();
    *db = m_video.db;
}

void CPbStreamVideo::getStH(STREAM_HEADER* stH) {
    m_updateRecStream();
    *stH = m_video.stH;
}

void CPbStreamVideo::getPicH(PICTURE_HEADER* picH) const {
    *picH = m_video.picH;
}

void CPbStreamVideo::clearEventID() {
    m_eventID = 0;
}

PB_STREAM_TIME CPbStreamVideo::m_startTime() const {
    return {m_video.db.startDate, m_video.db.startMSec};
}

PB_STREAM_TIME CPbStreamVideo::m_endTime() const {
    return {m_video.db.endDate, m_video.db.endMSec};
}

// ---- error flags ----

void CPbStreamVideo::setErrorflag(unsigned long kind, unsigned long value) {
    const MutexLock lock(m_mutex);
    if (kind == kErrorKindIndex) m_dbErrorflag = value;
    if (kind == kErrorKindChunk) m_chunkErrorflag = value;
}

unsigned long CPbStreamVideo::getErrorflag() {
    const MutexLock lock(m_mutex);
    return (m_dbErrorflag != 0 ? kIndexErrorBit : 0) | (m_chunkErrorflag != 0 ? kChunkErrorBit : 0);
}

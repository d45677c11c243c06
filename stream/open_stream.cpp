// From a row to readable pictures: the two readers, the headers and their checks, the picture data. Finding a
// picture inside the stream is picture_search.cpp.
#include "stream/open_stream.h"

#include <cstring>
#include <new>

#include "platform/log.h"
#include "stream/stream_read_zuvo.h"

namespace {

constexpr unsigned char kHeaderAreaMode = 0;
constexpr unsigned char kPictureAreaMode = 1;

constexpr uint32_t kDefaultGops = 5;

CHUNK_EVENT areaOf(const DB_STREAM& row, uint32_t offset, uint32_t size) {
    return {static_cast<uint16_t>(row.chunkID), CHUNK_KIND_STREAM, offset, size};
}

/// Every word of a header that failed its check.
template <class Header> void logHeaderWords(const Header& header) {
    for (const uint16_t word : headerWords(header).word) logPlain(LOG_ERR, " %08x", unsigned{word});
}

} // namespace

// ---- which stream ----

void OpenStream::clear() {
    closeReaders();
    m_video.db = {};
    m_video.stH = {};
    m_video.picH = {};
}

void OpenStream::closeReaders() {
    for (std::unique_ptr<CStreamRead>* reader : {&m_video.readPic, &m_video.readSt}) {
        if (*reader == nullptr) continue;
        (*reader)->close();
        reader->reset();
    }
}

void OpenStream::standAgainOn(const Place& place) {
    m_video.db = place.row;
    const int opened = m_openChunk();
    if (opened == 0 && place.row.status == DB_STATUS_RECORDING) m_video.stH.pictures = place.pictures;
    goTo(place.offset);
}

int OpenStream::openGrown(uint32_t pictures) {
    m_video.db.chunkSize = (pictures + 1) * kHeaderBytes;
    const uint32_t offset = m_video.offset;
    const int opened = m_openChunk();
    // While recording, the header on the card may still hold an old count; the recorder's own is the truth.
    m_video.stH.pictures = pictures;
    m_video.offset = offset;
    return opened;
}

void OpenStream::takeEndFromPicture() {
    const PB_STREAM_TIME span = getNowPts() - m_topPts;
    DB_STREAM& db = m_video.db;
    const uint32_t endMs = uint32_t{db.startMSec} + span.mSec;
    db.endDate = db.startDate + span.seconds() + (endMs >= 1000 ? 1 : 0);
    db.endMSec = static_cast<uint16_t>(endMs % 1000);
}

void OpenStream::copyTo(const PlaceRecords& out) const {
    if (out.db == nullptr) return;
    *out.db = m_video.db;
    *out.stH = m_video.stH;
    *out.picH = m_video.picH;
}

// ---- opening ----

int OpenStream::m_openChunk() {
    ++m_openings;
    closeReaders();
    if (createReaders() != 0 || openHeaderArea() != 0 || checkStreamHeader() != 0 ||
        openPictureArea(areaOf(m_video.db, m_video.stH.offset, m_video.stH.size)) != 0)
        return -1;

    if (goTo(0) == -1) {
        logAt(LOG_ERR, "m_readPic error");
        return -1;
    }
    m_topPts = getNowPts();
    if (m_video.stH.gops == 0 || m_video.stH.gops > kMaxGops) {
        logAt(LOG_ERR, "m_video.stH.gops=0, set gops=5.");
        m_video.stH.gops = kDefaultGops;
    }
    return 0;
}

int OpenStream::createReaders() {
    try {
        m_video.readPic = std::make_unique<CStreamReadZuvo>(kHeaderAreaMode);
        m_video.readSt = std::make_unique<CStreamReadZuvo>(kPictureAreaMode);
    } catch (const std::bad_alloc&) { // the card is not to blame: no error flag
        logNamed(LOG_ERR, "m_openChunk", "malloc error");
        closeReaders();
        return -1;
    }
    return 0;
}

int OpenStream::openHeaderArea() {
    const DB_STREAM& db = m_video.db;
    const bool growing = db.status == DB_STATUS_RECORDING;
    // The row of a growing stream tells no size that would still be true: the reader takes the chunk's.
    CHUNK_EVENT area = areaOf(db, db.chunkOffset, growing ? 0 : db.chunkSize);
    const char* failure = nullptr;
    if (!growing && area.size == 0) {
        failure = "CPbStreamVideo::m_openChunk() error chunkSize = 0";
    } else if (m_video.readPic->open(&area) == -1) {
        m_errorFlags.setErrorflag(kErrorKindChunk, 1);
        failure = "CPbStreamVideo::m_openChunk() m_video.readPic->open() open error";
    } else {
        m_errorFlags.setErrorflag(kErrorKindChunk, 0);
        if (m_video.readPic->seekEvent(0, 0) == -1)
            failure = "CPbStreamVideo::m_openChunk() m_video.readPic->seek error";
        else if (readHeader(&m_video.stH) != kHeaderBytes)
            failure = "CPbStreamVideo::m_openChunk() m_video.readPic->read error";
    }
    if (failure == nullptr) return 0;

    logPlain(LOG_ERR, "%s", failure);
    m_showDb();
    return -1;
}

int OpenStream::checkStreamHeader() const {
    const STREAM_HEADER& stH = m_video.stH;
    // The recorder seals the header when it closes the stream; until then its checksum says nothing.
    const bool isSealed = m_video.db.status != DB_STATUS_RECORDING;
    const uint16_t sum = headerChecksum(stH);
    if (stH.marker == kStreamMarker && (!isSealed || sum == stH.cs)) return 0;

    if (stH.marker == kStreamMarker) {
        logNamed(LOG_ERR, "m_openChunk", "m_video.stH.checksum error");
        logPlain(LOG_ERR, "CPbStreamVideo::m_openChunk() id = %lu m_video.stH.checksum error",
                 asLu(m_video.db.streamID));
        logPlain(LOG_ERR, "checkSum=%08x , but stH.cs=%08x", unsigned{sum}, unsigned{stH.cs});
        logHeaderWords(stH);
    }
    m_showDb();
    m_showStH();
    return -1;
}

int OpenStream::openPictureArea(CHUNK_EVENT area) {
    if (m_video.readSt->open(&area) != -1) {
        m_errorFlags.setErrorflag(kErrorKindChunk, 0);
        return 0;
    }
    m_errorFlags.setErrorflag(kErrorKindChunk, 1);
    logPlain(LOG_ERR, "CPbStreamVideo::m_openChunk() m_video.readSt->openChunkFile() open error");
    m_showDb();
    m_showStH();
    return -1;
}

// ---- picture headers ----

int OpenStream::m_readPic() {
    if (m_video.readPic == nullptr) {
        logAt(LOG_ERR, "Error: m_video.readPic is NULL error");
        return -1;
    }
    const PICTURE_HEADER& picH = m_video.picH;
    const unsigned long id = m_video.db.streamID;
    const unsigned long offset = m_video.offset;
    if (seekHeader(m_video.offset) == -1) {
        logAt(LOG_ERR, "Error: readPic->seekEvent error");
        logPlain(LOG_ERR, "CPbStreamVideo::m_readPic() m_video.readPic->seek() error offset = %lu", offset);
    } else if (readHeader(&m_video.picH) == -1) {
        logAt(LOG_ERR, "Error: readPic->read error");
        logPlain(LOG_ERR, "CPbStreamVideo::m_readPic() m_video.readPic->read() error offset = %lu", offset);
    } else if (picH.marker != kPictureMarker) {
        logAt(LOG_ERR, "Error: pictureHeader marker not correct");
        logPlain(LOG_ERR,
                 "CPbStreamVideo::m_readPic() id = %lu offset = %lu m_video.picH.marker = 0x%X error", id,
                 offset, picH.marker);
    } else if (const uint16_t sum = headerChecksum(picH); sum != picH.cs) {
        logPlain(LOG_ERR, "CPbStreamVideo::m_readPic() id = %lu offset = %lu m_video.picH.checksum error", id,
                 offset);
        logPlain(LOG_ERR, "checkSum=%08x , but picH.cs=%08x", unsigned{sum}, unsigned{picH.cs});
        logHeaderWords(picH);
    } else {
        return 0;
    }
    showAll();
    return -1;
}

int OpenStream::goTo(uint32_t offset) {
    m_video.offset = offset;
    return m_readPic();
}

int OpenStream::seekHeader(uint32_t picture) {
    // Record 0 is the stream's own header.
    return m_video.readPic->seekEvent(static_cast<long>((picture + 1) * kHeaderBytes), 0);
}

long OpenStream::readHeader(void* header) {
    // What a short read does not bring is 0 and fails marker or checksum; a header read earlier never stands
    // in for it.
    unsigned char fresh[kHeaderBytes] = {};
    const long bytes = m_video.readPic->read(fresh, kHeaderBytes);
    if (bytes != -1) std::memcpy(header, fresh, kHeaderBytes);
    return bytes;
}

// ---- picture data, times and rates ----

long OpenStream::get(unsigned char* buffer) {
    if (m_video.db.streamID == 0) {
        logPlain(LOG_ERR, "CPbStreamVideo::get() stream not exist!!");
        return -1;
    }
    if (m_video.readSt == nullptr) {
        logAt(LOG_ERR, "m_video.readSt is NULL");
        return -1;
    }

    const uint32_t size = m_video.picH.size;
    if (m_video.readSt->seek(static_cast<long>(m_video.picH.offset), 0) == -1) {
        logPlain(LOG_ERR, "CPbStreamVideo::get() m_video.readSt->seek() error");
    } else if (size < kMinPictureBytes || size > kMaxPictureBytes) {
        logAt(LOG_ERR, "invalid m_video.picH.size = %lu", asLu(size));
    } else if (readData(buffer, size) == -1) {
        logPlain(LOG_ERR, "Pb::get() m_video.readSt->read() error");
    } else {
        return asLd(m_video.offset);
    }
    showAll();
    return -1;
}

long OpenStream::readData(unsigned char* buffer, uint32_t size) {
    const long bytes = m_video.readSt->read(buffer, static_cast<long>(size));
    // A picture that claims more than the chunk holds comes short; the buffer's earlier picture must not fill
    // it.
    if (bytes >= 0) std::memset(buffer + bytes, 0, size - static_cast<uint32_t>(bytes));
    return bytes;
}

PB_STREAM_TIME OpenStream::getTimePts() const {
    return m_video.picH.pts == 0 ? startTime() : pictureTime();
}

unsigned long OpenStream::getFrameRate() const {
    const DB_STREAM& db = m_video.db;
    if (const FrameRateRow* row = frameRateRow(db.frameSet)) return row->tenthsPerSecond;
    const uint32_t seconds = db.endDate - db.startDate;
    return seconds == 0 ? 0 : db.recSize / seconds * 10;
}

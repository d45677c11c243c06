// From an index row to readable pictures: the two readers, the headers and their checks, the picture data,
// and the position of a clock time within the stream.
#include <algorithm>
#include <cstring>
#include <new>

#include "platform/log.h"
#include "stream/pb_stream_video.h"
#include "stream/stream_read_zuvo.h"

namespace {

constexpr unsigned char kHeaderAreaMode = 0;
constexpr unsigned char kPictureAreaMode = 1;

constexpr uint32_t kMaxGops = 120;
constexpr uint32_t kDefaultGops = 5;

/// How near m_setOffset comes to a time, and how many corrections it makes for it: five after the first
/// estimate, so that it reads at most six headers however long the stream is.
constexpr uint32_t kMaxToleranceMs = 500;
constexpr uint32_t kMaxCorrections = 5;

/// Every word of a header that failed its check.
template <class Header> void logHeaderWords(const Header& header) {
    for (const uint16_t word : headerWords(header).word) logPlain(LOG_ERR, " %08x", unsigned{word});
}

} // namespace

// ---- headers ----

long CPbStreamVideo::m_readHeader(void* header) {
    // What a short read does not bring is 0 and fails marker or checksum; a header read earlier never stands
    // in for it.
    unsigned char fresh[kHeaderBytes] = {};
    const long bytes = m_video.readPic->read(fresh, kHeaderBytes);
    if (bytes != -1) std::memcpy(header, fresh, kHeaderBytes);
    return bytes;
}

int CPbStreamVideo::m_openChunk() {
    m_closeReaders();
    try {
        m_video.readPic = std::make_unique<CStreamReadZuvo>(kHeaderAreaMode);
        m_video.readSt = std::make_unique<CStreamReadZuvo>(kPictureAreaMode);
    } catch (const std::bad_alloc&) { // the card is not to blame: no error flag
        logAt(LOG_ERR, "malloc error");
        m_closeReaders();
        return -1;
    }

    const DB_STREAM& db = m_video.db;
    const bool growing = db.status == DB_STATUS_RECORDING;
    if (!growing && db.chunkSize == 0) {
        logPlain(LOG_ERR, "CPbStreamVideo::m_openChunk() error chunkSize = 0");
        m_showDb();
        return -1;
    }
    // The row of a growing stream tells no size that would still be true: the reader takes the chunk's.
    if (m_openHeaderArea({static_cast<uint16_t>(db.chunkID), CHUNK_KIND_STREAM, db.chunkOffset,
                          growing ? 0 : db.chunkSize}) == -1)
        return -1;
    if (m_checkStreamHeader() == -1) return -1;
    if (m_openPictureArea({static_cast<uint16_t>(db.chunkID), CHUNK_KIND_STREAM, m_video.stH.offset,
                           m_video.stH.size}) == -1)
        return -1;

    if (m_goTo(0) == -1) {
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

int CPbStreamVideo::m_openHeaderArea(CHUNK_EVENT area) {
    const char* failure = nullptr;
    if (m_video.readPic->open(&area) == -1) {
        setErrorflag(kErrorKindChunk, 1);
        failure = "CPbStreamVideo::m_openChunk() m_video.readPic->open() open error";
    } else {
        setErrorflag(kErrorKindChunk, 0);
        if (m_video.readPic->seekEvent(0, 0) == -1)
            failure = "CPbStreamVideo::m_openChunk() m_video.readPic->seek error";
        else if (m_readHeader(&m_video.stH) != kHeaderBytes)
            failure = "CPbStreamVideo::m_openChunk() m_video.readPic->read error";
    }
    if (failure == nullptr) return 0;

    logPlain(LOG_ERR, "%s", failure);
    m_showDb();
    return -1;
}

int CPbStreamVideo::m_checkStreamHeader() const {
    const STREAM_HEADER& stH = m_video.stH;
    // The recorder seals the header when it closes the stream; until then its checksum says nothing.
    const bool sealed = m_video.db.status != DB_STATUS_RECORDING;
    const uint16_t sum = headerChecksum(stH);
    if (stH.marker == kStreamMarker && (!sealed || sum == stH.cs)) return 0;

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

int CPbStreamVideo::m_openPictureArea(CHUNK_EVENT area) {
    if (m_video.readSt->open(&area) != -1) {
        setErrorflag(kErrorKindChunk, 0);
        return 0;
    }
    setErrorflag(kErrorKindChunk, 1);
    logPlain(LOG_ERR, "CPbStreamVideo::m_openChunk() m_video.readSt->openChunkFile() open error");
    m_showDb();
    m_showStH();
    return -1;
}

int CPbStreamVideo::m_readPic() {
    if (m_video.readPic == nullptr) {
        logAt(LOG_ERR, "Error: m_video.readPic is NULL error");
        return -1;
    }
    const PICTURE_HEADER& picH = m_video.picH;
    const unsigned long id = m_video.db.streamID;
    const unsigned long offset = m_video.offset;
    if (m_seekHeader(m_video.offset) == -1) {
        logAt(LOG_ERR, "Error: readPic->seekEvent error");
        logPlain(LOG_ERR, "CPbStreamVideo::m_readPic() m_video.readPic->seek() error offset = %lu", offset);
    } else if (m_readHeader(&m_video.picH) == -1) {
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
    m_showAll();
    return -1;
}

int CPbStreamVideo::m_seekHeader(uint32_t picture) {
    // Record 0 is the stream's own header.
    return m_video.readPic->seekEvent(static_cast<long>((picture + 1) * kHeaderBytes), 0);
}

int CPbStreamVideo::m_goTo(uint32_t offset) {
    m_video.offset = offset;
    return m_readPic();
}

// ---- picture data ----

long CPbStreamVideo::get(unsigned char* buffer) {
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
    } else if (m_readData(buffer, size) == -1) {
        logPlain(LOG_ERR, "Pb::get() m_video.readSt->read() error");
    } else {
        return asLd(m_video.offset);
    }
    m_showAll();
    return -1;
}

long CPbStreamVideo::m_readData(unsigned char* buffer, uint32_t size) {
    const long bytes = m_video.readSt->read(buffer, static_cast<long>(size));
    // A picture that claims more than the chunk holds comes short; the buffer's earlier picture must not fill
    // it.
    if (bytes >= 0 && bytes < static_cast<long>(size))
        std::memset(buffer + bytes, 0, size - static_cast<uint32_t>(bytes));
    return bytes;
}

// ---- times and rates ----

PB_STREAM_TIME CPbStreamVideo::m_pictureTime() const {
    return m_startTime() + getNowPts() - m_topPts;
}

PB_STREAM_TIME CPbStreamVideo::getTimePts() const {
    return m_video.picH.pts == 0 ? m_startTime() : m_pictureTime();
}

unsigned long CPbStreamVideo::getFrameRate() const {
    const DB_STREAM& db = m_video.db;
    if (const FrameRateRow* row = frameRateRow(db.frameSet)) return row->tenthsPerSecond;
    const uint32_t seconds = db.endDate - db.startDate;
    return seconds == 0 ? 0 : db.recSize / seconds * 10;
}

int CPbStreamVideo::m_setOffset(unsigned long sec, unsigned long mSec) {
    const PB_STREAM_TIME target(static_cast<uint32_t>(sec), static_cast<uint32_t>(mSec));
    const bool afterEnd = target.seconds() > m_video.db.endDate;
    if (afterEnd || target < m_startTime()) {
        logPlain(LOG_INFO, "CPbStreamVideo::m_setOffset() offset = %ld", asLd(m_video.offset));
        return m_goTo(afterEnd ? m_lastPicture() : 0);
    }

    const uint32_t estimate = m_estimateOffset(target);
    const uint32_t intervalMs = m_pictureIntervalMs();
    const PB_STREAM_TIME tolerance(0, intervalMs <= kMaxToleranceMs / 3 ? 3 * intervalMs : kMaxToleranceMs);
    if (m_goTo(estimate) == -1) return -1;

    uint32_t step = 0;
    for (uint32_t pass = 0; pass < kMaxCorrections; ++pass) {
        const PB_STREAM_TIME here = m_pictureTime();
        const bool ahead = target < here;
        const PB_STREAM_TIME difference = ahead ? here - target : target - here;
        if (!(difference > tolerance)) return 0;

        step = (difference.seconds() * 1000 + difference.mSec) / intervalMs;
        if (m_goTo(ahead ? m_offsetBack(step) : m_offsetAhead(step)) == -1) return -1;
    }
    logAt(LOG_ERR, "offset position is not fixed in 500mS accuracy.");
    logAt(LOG_ERR,
          "CPbStreamVideo::m_setOffset() id = %lu n = %lu offset %lu -> %lu diff = %lu pts = %lu "
          "rate = %lu(%lu)",
          asLu(m_video.db.streamID), asLu(kMaxCorrections), asLu(estimate), asLu(m_video.offset), asLu(step),
          asLu(m_video.picH.pts), asLu(100000 / intervalMs), asLu(intervalMs));
    return 0;
}

uint32_t CPbStreamVideo::m_offsetAhead(uint32_t step) const {
    const uint32_t offset = m_video.offset + step;
    return offset < m_video.stH.pictures ? offset : m_lastPicture();
}

uint32_t CPbStreamVideo::m_offsetBack(uint32_t step) const {
    return step <= m_video.offset ? m_video.offset - step : 0;
}

uint32_t CPbStreamVideo::m_estimateOffset(PB_STREAM_TIME target) const {
    const DB_STREAM& db = m_video.db;
    uint32_t offset = m_video.offset;
    if (const FrameRateRow* row = frameRateRow(db.frameSet)) {
        const uint32_t rate = row->tenthsPerSecond;
        // Signed: a target earlier within its second than the start is in its own takes pictures away.
        const int32_t differenceMs = int32_t{target.mSec} - int32_t{db.startMSec};
        const int32_t withinSecond = static_cast<int32_t>(rate) * differenceMs / 1000;
        offset = ((target.seconds() - db.startDate) * rate + static_cast<uint32_t>(withinSecond)) / 10;
    }
    // A nominal 30 pictures per second are 30000/1001; rounded up. Wraps at 32 bits after some 39 hours.
    const uint32_t scaled = offset * 1000;
    offset = scaled / 1001 + (scaled % 1001 != 0 ? 1 : 0);
    return std::min(offset, m_lastPicture());
}

uint32_t CPbStreamVideo::m_pictureIntervalMs() const {
    const DB_STREAM& db = m_video.db;
    if (db.endDate == db.startDate || m_video.stH.pictures == 0) {
        // The table's unit is a hundred times finer and is taken as it stands: the corrections then move in
        // small steps within the widest tolerance.
        const FrameRateRow* row = frameRateRow(db.frameSet);
        return (row != nullptr ? *row : kFrameRates[0]).defaultInterval;
    }
    // At least 1: rows with a false duration may claim more than a thousand pictures per second.
    return std::max((db.endDate - db.startDate) * 1000 / m_video.stH.pictures, 1u);
}

// The object's life, opening a stream by its id, and moving picture by picture inside it.
#include "stream/pb_stream_video.h"

#include "platform/log.h"

CPbStreamVideo::CPbStreamVideo(CtavirnShmServer* shmServer) : m_recorder(shmServer) {
    logAt(LOG_INFO, "m_shmserver = %p", static_cast<void*>(shmServer));
}

CPbStreamVideo::~CPbStreamVideo() {
    // A getErrorflag under way on another thread ends first.
    m_errorFlags.drain();
}

QueryResult CPbStreamVideo::lookFor(const SqlText& sql) {
    const QueryResult result = m_index.m_setSql(sql);
    m_stream.clear();
    if (result == QueryResult::found) m_stream.replaceRow(m_index.foundStream());
    return result;
}

void CPbStreamVideo::standAgainOn(const StoodOn& left) {
    m_stream.standAgainOn(left.place);
    m_recorder = left.recorder;
}

PB_STREAM_TIME CPbStreamVideo::getId(unsigned long id, DB_STREAM* db, STREAM_HEADER* stH,
                                     PICTURE_HEADER* picH, unsigned long) {
    DB_STREAM row{};
    const bool isKnown = m_index.selectStream(id, &row);
    m_stream.replaceRow(row);
    if (!isKnown) {
        logPlain(LOG_ERR, "CPbStreamVideo::getId() id = %lu error", id);
        return {};
    }
    if (m_updateRecStream() == -1) {
        m_stream.replaceRow({});
        return {};
    }
    if (m_stream.m_openChunk() == -1) {
        clear();
        return {};
    }

    const long distance = m_stream.m_iPicSearch(Direction::forward, picH);
    if (distance <= 0) getPicH(picH);
    if (m_stream.goTo(distance > 0 ? static_cast<uint32_t>(distance) : 0) == -1) {
        clear();
        return {};
    }
    m_stream.copyTo({db, stH, picH});
    return m_stream.startTime();
}

long CPbStreamVideo::move(unsigned char kind, unsigned long count, PICTURE_HEADER* picH,
                          unsigned char searchMode) {
    if (m_stream.row().streamID == 0) {
        logPlain(LOG_ERR, "CPbStreamVideo::move() stream not exist!!");
        return -1;
    }
    m_updateRecStream();
    if (kind != PBST_FORWARD && kind != PBST_BACKWARD) {
        logAt(LOG_ERR, "PBST_OFFSET/TOP/END not supported.");
        return -1;
    }

    const bool forward = kind == PBST_FORWARD;
    const auto offset =
        m_stream.offsetAt(forward ? Direction::forward : Direction::backward, static_cast<uint32_t>(count));
    if (!offset) {
        m_stream.goTo(forward ? m_stream.lastPicture() : 0);
        getPicH(picH);
        logAt(LOG_INFO, "%s", forward ? "offset >= pictures" : "(offset - move) < 0");
        return -1;
    }

    if (searchMode == kSearchNone) {
        if (m_stream.goTo(*offset) == -1) {
            logAt(LOG_ERR, "m_readPic() error");
            return -1;
        }
    } else {
        const auto direction = searchMode == kSearchBackward ? Direction::backward : Direction::forward;
        if (m_stream.goToIPicture(*offset, direction) == -1) {
            getPicH(picH);
            logAt(LOG_INFO, "m_iPicSearch() error");
            return -1;
        }
    }
    getPicH(picH);
    return asLd(m_stream.getOffset());
}

void CPbStreamVideo::getDb(DB_STREAM* db) {
    m_updateRecStream();
    *db = m_stream.row();
}

void CPbStreamVideo::getStH(STREAM_HEADER* stH) {
    m_updateRecStream();
    *stH = m_stream.header();
}

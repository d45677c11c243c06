// Moving picture by picture inside the stream, and finding the pictures that decoding can start at.
#include "platform/log.h"
#include "stream/pb_stream_video.h"

namespace {

/// Pictures a search looks at, the first one included.
constexpr uint32_t kSearchLimit = 240;

} // namespace

long CPbStreamVideo::move(unsigned char kind, unsigned long count, PICTURE_HEADER* picH,
                          unsigned char searchMode) {
    if (m_video.db.streamID == 0) {
        logPlain(LOG_ERR, "CPbStreamVideo::move() stream not exist!!");
        return -1;
    }
    m_updateRecStream();

    const auto step = static_cast<uint32_t>(count);
    switch (kind) {
    case PBST_BACKWARD:
        if (static_cast<int32_t>(m_video.offset - step) < 0) {
            m_park(0, picH);
            logAt(LOG_INFO, "(offset - move) < 0");
            return -1;
        }
        m_video.offset -= step;
        break;
    case PBST_FORWARD:
        if (m_video.offset + step >= m_video.stH.pictures) {
            m_park(m_lastPicture(), picH);
            logAt(LOG_INFO, "offset >= pictures");
            return -1;
        }
        m_video.offset += step;
        break;
    default:
        logAt(LOG_ERR, "PBST_OFFSET/TOP/END not supported.");
        return -1;
    }
    return searchMode == kSearchNone ? m_arrive(picH) : m_arriveOnIPicture(searchMode, picH);
}

void CPbStreamVideo::m_park(uint32_t offset, PICTURE_HEADER* picH) {
    m_goTo(offset);
    *picH = m_video.picH;
}

long CPbStreamVideo::m_arrive(PICTURE_HEADER* picH) {
    if (m_readPic() == -1) {
        logNamed(LOG_ERR, "move", "m_readPic() error");
        return -1;
    }
    *picH = m_video.picH;
    return asLd(m_video.offset);
}

long CPbStreamVideo::m_arriveOnIPicture(unsigned char searchMode, PICTURE_HEADER* picH) {
    const long distance = m_iPicSearch(searchMode, &m_video.picH);
    if (distance == -1) {
        // The search has read over the current picture's header.
        m_park(m_video.offset, picH);
        logNamed(LOG_INFO, "move", "m_iPicSearch() error");
        return -1;
    }
    *picH = m_video.picH;
    const auto pictures = static_cast<uint32_t>(distance);
    m_video.offset += searchMode == kSearchBackward ? 0 - pictures : pictures;
    return asLd(m_video.offset);
}

long CPbStreamVideo::m_iPicSearch(unsigned long direction, PICTURE_HEADER* picH) {
    if (m_video.readPic == nullptr) return -1;

    const uint32_t from = m_video.offset;
    const bool backward = direction == kSearchBackward;
    for (uint32_t distance = 0; distance < kSearchLimit; ++distance) {
        if (backward && from < distance) {
            logPlain(LOG_ERR, "CPbStreamVideo::m_iPicSearch() I frame not found offset = %lu", asLu(from));
            return -1;
        }
        if (!backward && m_lastPicture() < from + distance) {
            logPlain(LOG_WARNING,
                     "CPbStreamVideo::m_iPicSearch() I frame not found offset = %lu maxOffset = %lu",
                     asLu(from), asLu(m_lastPicture()));
            return -1;
        }
        if (m_seekHeader(backward ? from - distance : from + distance) == -1) {
            logPlain(LOG_ERR, "CPbStreamVideo::m_iPicSearch() m_video.readPic->seekEvent() error");
            m_showDb();
            return -1;
        }
        if (m_readHeader(picH) == -1) {
            logPlain(LOG_ERR, "CPbStreamVideo::m_iPicSearch() m_video.readPic->read() error");
            m_showDb();
            return -1;
        }
        if (isIPicture(*picH)) return static_cast<long>(distance);
    }
    logPlain(LOG_WARNING, "CPbStreamVideo::m_iPicSearch() I-Picture don't find id = %lu m_video.offset = %lu",
             asLu(m_video.db.streamID), asLu(from));
    return -1;
}

void CPbStreamVideo::setplaylastframemode(unsigned long mode) {
    m_playlastframemode = static_cast<uint32_t>(mode);
}

// From one stream into its neighbour, or into the stream that holds a clock time.
#include <cstdio>

#include "platform/log.h"
#include "stream/pb_stream_video.h"

namespace {

/// Results when no neighbour was usable and the newest or oldest recording was taken instead.
constexpr int kTookNewest = -2;
constexpr int kTookOldest = -3;

} // namespace

int CPbStreamVideo::over(unsigned char dir, DB_STREAM* db, STREAM_HEADER* stH, PICTURE_HEADER* picH,
                         PB_STREAM_TIME* pbTime, unsigned long timeSearch) {
    return cross(dir == 1 ? Direction::backward : Direction::forward, {db, stH, picH}, pbTime,
                 timeSearch == 1);
}

int CPbStreamVideo::cross(Direction direction, const PlaceRecords& out, const PB_STREAM_TIME* pbTime,
                          bool locate) {
    logPlain(LOG_INFO, "CPbStreamVideo::over");
    const DB_STREAM stoodOn = m_stream.row();
    const PB_STREAM_TIME time = referenceTime(pbTime);
    // A time may lie in the stream stood on; crossing means leaving it.
    const auto left = locate ? statements::Left() : statements::Left(stoodOn.streamID);

    QueryResult found = lookForNeighbour(direction, time, left);
    if (found == QueryResult::noRow) {
        logNamed(LOG_ERR, "over", "CPbStreamVideo::over() not found stream. timeStr=%lu",
                 asLu(time.seconds()));
        bool beyondRecording = false;
        if (locate) found = lookForRecording(*pbTime, &beyondRecording);
        if (found == QueryResult::noRow) {
            if (stoodOn.status == DB_STATUS_RECORDING || beyondRecording) return stayOn(stoodOn);
            const int taken = fallBack(direction, out);
            if (direction == Direction::forward && m_playlastframemode != 0) showLastFrame(out);
            return taken;
        }
    }
    if (found != QueryResult::found) return -1;

    if (m_updateRecStream() == -1) {
        logNamed(LOG_ERR, "over", "m_checkRecDB() return REC");
        return fallBack(direction, out);
    }
    if (locate) checkStartOfFile(referenceTime(pbTime));
    return landOn(direction, out);
}

PB_STREAM_TIME CPbStreamVideo::referenceTime(const PB_STREAM_TIME* pbTime) const {
    return pbTime != nullptr && !pbTime->isNone() ? *pbTime : getTimePts();
}

QueryResult CPbStreamVideo::lookForNeighbour(Direction direction, PB_STREAM_TIME time,
                                             statements::Left left) {
    const bool backward = direction == Direction::backward;
    const QueryResult holding =
        lookFor(backward ? statements::backwardHolding(time, left) : statements::forwardHolding(time, left));
    if (holding != QueryResult::noRow) return holding;
    return lookFor(backward ? statements::backwardBefore(time, left) : statements::forwardAfter(time, left));
}

QueryResult CPbStreamVideo::lookForRecording(PB_STREAM_TIME time, bool* beyondRecording) {
    const QueryResult found = lookFor(statements::recordingSince(time));
    if (found != QueryResult::found) return found;
    if (m_updateRecStream() == 0 && !(time > m_stream.endTime())) return found;

    clear();
    *beyondRecording = true;
    return QueryResult::noRow;
}

int CPbStreamVideo::stayOn(const DB_STREAM& stoodOn) {
    // The row alone: the search has closed the readers, and the next refresh, finding picture counts that
    // differ, opens them again where the position was.
    logNamed(LOG_ERR, "over", "status : DB_STATUS_RECORDING");
    m_stream.replaceRow(stoodOn);
    return -1;
}

int CPbStreamVideo::fallBack(Direction direction, const PlaceRecords& out) {
    if (direction == Direction::backward) {
        m_skipOldest(out);
        return kTookOldest;
    }
    m_skipLatest(out, 0);
    return kTookNewest;
}

void CPbStreamVideo::showLastFrame(const PlaceRecords& out) {
    if (m_stream.goTo(m_stream.lastPicture()) == 0) m_stream.copyTo(out);
}

void CPbStreamVideo::checkStartOfFile(PB_STREAM_TIME time) {
    const DB_STREAM lookedAt = m_stream.row();
    if (lookFor(statements::startedBefore(time)) == QueryResult::noRow) {
        std::puts("#1542 found");
        m_SOFflag = 1;
    }
    m_stream.replaceRow(lookedAt);
}

int CPbStreamVideo::landOn(Direction direction, const PlaceRecords& out) {
    if (m_stream.m_openChunk() == -1 ||
        m_stream.goTo(direction == Direction::backward ? m_stream.lastPicture() : 0) == -1) {
        clear();
        return -1;
    }
    m_stream.copyTo(out);
    return static_cast<int>(m_stream.getOffset());
}

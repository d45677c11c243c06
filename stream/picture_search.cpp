// Finding a picture inside the open stream: so many pictures on, the nearest one that decoding can start at,
// and the one recorded at a clock time.
#include <algorithm>

#include "platform/log.h"
#include "stream/open_stream.h"

namespace {

/// Pictures that a search for an I-picture looks at, the first one included.
constexpr uint32_t kSearchLimit = 240;

/// How near m_setOffset comes to a time, and how many corrections it makes for it: five after the first
/// estimate, so that it reads at most six headers however long the stream is.
constexpr uint32_t kMaxToleranceMs = 500;
constexpr uint32_t kMaxCorrections = 5;

/// Where the time should be by the row's frame rate; without one, the offset stood on is scaled.
uint32_t estimatedOffset(const PB_VIDEO& video, PB_STREAM_TIME target) {
    const DB_STREAM& db = video.db;
    uint32_t offset = video.offset;
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
    return std::min(offset, video.stH.pictures - 1);
}

uint32_t pictureIntervalMs(const PB_VIDEO& video) {
    const DB_STREAM& db = video.db;
    if (db.endDate == db.startDate || video.stH.pictures == 0) {
        // The table's unit is a hundred times finer and is taken as it stands: the corrections then move in
        // small steps within the widest tolerance.
        const FrameRateRow* row = frameRateRow(db.frameSet);
        return (row != nullptr ? *row : kFrameRates[0]).defaultInterval;
    }
    // At least 1: rows with a false duration may claim more than a thousand pictures per second.
    return std::max((db.endDate - db.startDate) * 1000 / video.stH.pictures, 1u);
}

uint32_t offsetAhead(const PB_VIDEO& video, uint32_t step) {
    const uint32_t offset = video.offset + step;
    return offset < video.stH.pictures ? offset : video.stH.pictures - 1;
}

uint32_t offsetBack(const PB_VIDEO& video, uint32_t step) {
    return step <= video.offset ? video.offset - step : 0;
}

} // namespace

// ---- by count ----

std::optional<uint32_t> OpenStream::offsetAt(Direction direction, uint32_t count) const {
    const uint32_t from = m_video.offset;
    // Compared before anything is added or taken away: a sum that wraps would come out on the other side.
    if (direction == Direction::forward) {
        if (from >= pictures() || count >= pictures() - from) return {};
        return from + count;
    }
    if (count > from || static_cast<int32_t>(from - count) < 0) return {};
    // A finished stream may turn out shorter than its recorder had said.
    return std::min(from - count, lastPicture());
}

// ---- I-pictures ----

int OpenStream::goToIPicture(uint32_t offset, Direction direction) {
    m_video.offset = offset;
    const long distance = m_iPicSearch(direction, &m_video.picH);
    if (distance == -1) {
        m_readPic(); // the search has read over the current picture's header
        return -1;
    }
    const auto pictures = static_cast<uint32_t>(distance);
    m_video.offset += direction == Direction::backward ? 0 - pictures : pictures;
    return 0;
}

long OpenStream::m_iPicSearch(Direction direction, PICTURE_HEADER* picH) {
    if (m_video.readPic == nullptr) return -1;

    const uint32_t from = m_video.offset;
    const bool backward = direction == Direction::backward;
    for (uint32_t distance = 0; distance < kSearchLimit; ++distance) {
        if (backward && from < distance) {
            logPlain(LOG_ERR, "CPbStreamVideo::m_iPicSearch() I frame not found offset = %lu", asLu(from));
            return -1;
        }
        if (!backward && lastPicture() < from + distance) {
            logPlain(LOG_WARNING,
                     "CPbStreamVideo::m_iPicSearch() I frame not found offset = %lu maxOffset = %lu",
                     asLu(from), asLu(lastPicture()));
            return -1;
        }
        if (seekHeader(backward ? from - distance : from + distance) == -1) {
            logPlain(LOG_ERR, "CPbStreamVideo::m_iPicSearch() m_video.readPic->seekEvent() error");
            m_showDb();
            return -1;
        }
        if (readHeader(picH) == -1) {
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

// ---- the picture of a clock time ----

int OpenStream::m_setOffset(unsigned long sec, unsigned long mSec) {
    const PB_STREAM_TIME target(static_cast<uint32_t>(sec), static_cast<uint32_t>(mSec));
    const bool afterEnd = target.seconds() > m_video.db.endDate;
    if (afterEnd || target < startTime()) {
        logPlain(LOG_INFO, "CPbStreamVideo::m_setOffset() offset = %ld", asLd(m_video.offset));
        return goTo(afterEnd ? lastPicture() : 0);
    }

    const uint32_t estimate = estimatedOffset(m_video, target);
    const uint32_t intervalMs = pictureIntervalMs(m_video);
    const PB_STREAM_TIME tolerance(0, intervalMs <= kMaxToleranceMs / 3 ? 3 * intervalMs : kMaxToleranceMs);
    if (goTo(estimate) == -1) return -1;

    uint32_t step = 0;
    for (uint32_t pass = 0; pass < kMaxCorrections; ++pass) {
        const PB_STREAM_TIME here = pictureTime();
        const bool ahead = target < here;
        const PB_STREAM_TIME difference = ahead ? here - target : target - here;
        if (!(difference > tolerance)) return 0;

        step = (difference.seconds() * 1000 + difference.mSec) / intervalMs;
        if (goTo(ahead ? offsetBack(m_video, step) : offsetAhead(m_video, step)) == -1) return -1;
    }
    logAt(LOG_ERR, "offset position is not fixed in 500mS accuracy.");
    logAt(LOG_ERR,
          "CPbStreamVideo::m_setOffset() id = %lu n = %lu offset %lu -> %lu diff = %lu pts = %lu "
          "rate = %lu(%lu)",
          asLu(m_video.db.streamID), asLu(kMaxCorrections), asLu(estimate), asLu(m_video.offset), asLu(step),
          asLu(m_video.picH.pts), asLu(100000 / intervalMs), asLu(intervalMs));
    return 0;
}

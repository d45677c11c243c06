// A world with a card, the recorder's segment, and a stream object whose inner operations are open.
#pragma once

#include <gtest/gtest.h>

#include "platform/log.h"
#include "shm/shm_server.h"
#include "stream/pb_stream_video.h"
#include "tests/support/card.h"
#include "tests/support/log_recorder.h"

struct Records {
    DB_STREAM db;
    STREAM_HEADER stH;
    PICTURE_HEADER picH;
};

/// With the records that its operations fill.
class Stream : public CPbStreamVideo {
public:
    using CPbStreamVideo::CPbStreamVideo, CPbStreamVideo::m_stream, CPbStreamVideo::m_updateRecStream;

    PB_STREAM_TIME open(uint32_t id) { return getId(id, &out.db, &out.stH, &out.picH, 0); }
    PB_STREAM_TIME toTime(PB_STREAM_TIME time, bool backward = false) {
        return getTime(time, &out.db, &out.stH, &out.picH, 1, backward, 0);
    }
    /// `from`: to an event only.
    PB_STREAM_TIME skip(unsigned char kind, unsigned long backSec = 0, PB_STREAM_TIME from = {}) {
        return getSkip(&from, &out.db, &out.stH, &out.picH, kind, 0, 0, backSec);
    }
    /// A time of 0 is the present picture's.
    int cross(PB_STREAM_TIME time, bool backward = false) {
        return over(backward, &out.db, &out.stH, &out.picH, &time, 0);
    }
    long move(unsigned char kind, unsigned long count, unsigned char search = kSearchNone) {
        return CPbStreamVideo::move(kind, count, &out.picH, search);
    }
    /// Those of the place stood on, without a look at its recorder.
    Records shown() const {
        Records here{m_stream.row(), m_stream.header(), {}};
        getPicH(&here.picH);
        return here;
    }

    Records out{};
};

inline const PB_STREAM_TIME kNowhere{0, 0};

#include "engine/movement.h"

#include <cstdio>

#include "platform/log.h"

namespace {

/// Where an operation takes a play type that decides nothing.
constexpr PBTYPE kNotLookedAt = PB_INIT;

/// The records that a move hands back.
struct Landing {
    DB_STREAM db;
    STREAM_HEADER stream;
    PICTURE_HEADER picture;
};

/// Those of the picture stood on. Asking for the first two follows a stream under recording, as the move does
/// itself; of all three only the picture's id is ever read.
Landing recordsOf(CPbStreamVideo& video) {
    Landing records;
    video.getDb(&records.db);
    video.getStH(&records.stream);
    video.getPicH(&records.picture);
    return records;
}

uint8_t endOf(Direction direction) {
    return direction == Direction::forward ? kPauseEnd : kPauseStart;
}

/// Crosses into the neighbouring stream because play ran past the end of this one; false where there is none.
bool crossOver(CPbStreamVideo& video, Direction direction, Landing& landing, PB_STREAM_TIME* reference) {
    video.setplaylastframemode(1);
    const int result =
        video.over(number(direction), &landing.db, &landing.stream, &landing.picture, reference, 0);
    video.setplaylastframemode(0);
    return result >= 0;
}

} // namespace

bool Movement::toStart(const T_PB_INFO& info) {
    CPbStreamVideo& video = m_position.m_pbStream;
    logPlain(LOG_INFO, "preGetData()");
    video.clear();
    Landing landing{};
    PB_STREAM_TIME found;
    const char* fault = "video stream error";
    switch (info.searchMode) {
    case kStartAtStream:
        logPlain(LOG_INFO, "searchid[%ld]", asLd(info.searchValue));
        found = video.getId(info.searchValue, &landing.db, &landing.stream, &landing.picture, 0);
        break;
    case kStartAtTime:
        logPlain(LOG_INFO, "search startdate[%ld]", asLd(info.searchValue));
        found = video.getTime({info.searchValue, info.searchMSec}, &landing.db, &landing.stream,
                              &landing.picture, kSearchForward, number(Direction::forward), 2);
        break;
    default:
        fault = "pb mode error";
    }
    if (found.isNone()) {
        logPlain(LOG_INFO, "sendThread will return.[%s]", fault);
        return false;
    }
    m_position.m_pictureReady = 1;
    return true;
}

bool Movement::toNext(unsigned long stepCount) {
    const PlayState play = m_playMode.state();
    switch (play.m_pbType) {
    case PB_NORMAL:
        // The picture found by positioning goes out before the first move.
        if (m_position.m_pictureReady != 1) return playNext();
        m_position.m_pictureReady = 0;
        m_position.m_pbStreamTime = m_position.m_pbStream.getNowPts();
        return true;
    case PB_SLOW:
        return playNext();
    case PB_FF:
        return playFast(Direction::forward, play.playSpeed);
    case PB_REW:
        return playFast(Direction::backward, play.playSpeed);
    case PB_SLOW_REW:
        return playFast(Direction::backward, kSlowSpeed);
    case PB_STEP_FWD:
        return playStep(Direction::forward, stepCount);
    case PB_STEP_BACK:
        return playStep(Direction::backward, stepCount);
    default:
        return true;
    }
}

bool Movement::playNext() {
    if (m_moveStreamNormal(&m_position.m_pbStream, 0, kNotLookedAt) == 0) {
        logPlain(LOG_INFO, "m_moveStream error!");
        return false;
    }
    m_position.m_pbStreamTime = m_position.m_pbStream.getNowPts();
    return true;
}

/// Fast play reads nothing in between: it goes on by a span of playback time, and ends on the last picture,
/// or backward the first, when that leaves the recording.
bool Movement::playFast(Direction direction, uint32_t speed) {
    CPbStreamVideo& video = m_position.m_pbStream;
    if (m_position.m_pbRealRate == 0) {
        logNamed(LOG_INFO, "movePictureData", "m_pbRealRate is 0");
        m_position.m_pbRealRate = static_cast<uint32_t>(video.getFrameRate());
    }
    PB_STREAM_TIME& aim = m_position.m_pbStreamTime;
    aim = m_calcSpeedFrameTime(&video, kNotLookedAt, kNotLookedAt, aim, m_position.m_pbRealRate, speed,
                               number(direction));
    if (m_moveStreamTime(&video, number(direction), aim) != 0) return true;
    logPlain(LOG_INFO, direction == Direction::forward ? "m_moveStreamTime rearch end"
                                                       : "m_moveStreamTime rearch start");
    toEnd(direction);
    return false;
}

bool Movement::playStep(Direction direction, unsigned long count) {
    if (m_moveStreamStep(&m_position.m_pbStream, number(direction), count) == 0) {
        logPlain(LOG_INFO, "m_moveStreamStep error!");
        return false;
    }
    m_position.m_pbStreamTime = m_position.m_pbStream.getNowPts();
    return true;
}

bool Movement::toTime(PB_STREAM_TIME time, Direction direction) {
    if (m_moveStreamTime(&m_position.m_pbStream, number(direction), time) != 0) return true;
    logPlain(LOG_INFO, "m_moveStreamTime error!");
    return false;
}

void Movement::toEnd(Direction direction) {
    aimAt(direction == Direction::forward ? kSkipLatest : kSkipOldest);
    toTime(m_position.m_pbStreamTime, direction);
    m_position.m_pauseMode = endOf(direction);
}

PB_STREAM_TIME Movement::aimAt(unsigned char kind, Direction direction, PB_STREAM_TIME* from) {
    Landing landing{};
    m_position.m_pbStreamTime = m_position.m_pbStream.getSkip(
        from, &landing.db, &landing.stream, &landing.picture, kind, number(direction), 0, 0);
    return m_position.m_pbStreamTime;
}

int Movement::m_moveStreamNormal(CPbStreamVideo* video, unsigned long count, PBTYPE) {
    m_position.m_pauseMode = kPauseNone;
    if (count == 0) count = 1;
    Landing landing = recordsOf(*video);
    for (; count > 0; --count) {
        if (video->move(PBST_FORWARD, 1, &landing.picture, kSearchNone) >= 0) continue;
        if (!crossOver(*video, Direction::forward, landing, nullptr)) {
            m_position.m_pauseMode = kPauseEnd;
            logAt(LOG_INFO, "over() PB_NOT_EXIST_NEXT_STREAM");
            return 0;
        }
    }
    return 1;
}

int Movement::m_moveStreamStep(CPbStreamVideo* video, unsigned char dir, unsigned long count) {
    logPlain(LOG_INFO, "step num[%lu]!", count);
    m_position.m_pauseMode = kPauseNone;
    const auto direction = static_cast<Direction>(dir);
    const unsigned char search = direction == Direction::forward ? kSearchNone : kSearchBackward;
    Landing landing = recordsOf(*video);
    if (video->move(dir, count, &landing.picture, search) < 0) {
        if (!crossOver(*video, direction, landing, &m_position.m_pbStreamTime)) {
            m_position.m_pauseMode = endOf(direction);
            return 0;
        }
        if (direction == Direction::backward &&
            video->move(PBST_BACKWARD, 0, &landing.picture, kSearchBackward) < 0) {
            return 0;
        }
    }
    logPlain(LOG_INFO, "pic id[%lu]", asLu(landing.picture.id));
    return 1;
}

int Movement::m_moveStreamTime(CPbStreamVideo* video, unsigned char dir, PB_STREAM_TIME time) {
    uint8_t& pauseMode = m_position.m_pauseMode;
    pauseMode = kPauseNone;
    const auto direction = static_cast<Direction>(dir);
    const bool forward = direction == Direction::forward;
    if (!forward && direction != Direction::backward) {
        logPlain(LOG_INFO, "invalid path!");
        return 0;
    }
    const unsigned char onward = forward ? kSearchForward : kSearchBackward;
    const unsigned char back = forward ? kSearchBackward : kSearchForward;
    Landing landing = recordsOf(*video);
    if (video->getTime(time, &landing.db, &landing.stream, &landing.picture, onward, dir, 0).isNone()) {
        pauseMode = endOf(direction);
        logAt(LOG_ERR, "retTime.sec=0");
        return 0;
    }
    if (video->getSOFflag() != 0) {
        pauseMode = kPauseStart;
        std::fputs("getSOF", stdout);
    }
    // Decoding can only begin at an I-picture; at an end of the stream there may be none further on.
    if (video->move(dir, 0, &landing.picture, onward) < 0) {
        pauseMode = endOf(direction);
        if (video->move(dir, 0, &landing.picture, back) < 0) return 0;
    }
    logAt(LOG_INFO, "m_video.offset=%lu", video->getOffset());
    return 1;
}

PB_STREAM_TIME Movement::m_calcSpeedFrameTime(CPbStreamVideo* video, PBTYPE, PBTYPE, PB_STREAM_TIME time,
                                              unsigned long, unsigned long speed, unsigned char dir) {
    DB_STREAM db;
    video->getDb(&db);
    // What was aimed at counts within the stream it was found in.
    if (m_lastStreamID != db.streamID) time = video->getTimePts();
    m_lastStreamID = db.streamID;
    const uint32_t stepMs = m_playMode.ffSkipTime() * static_cast<uint32_t>(speed) / 10;
    return m_calcDiffTime(time, {stepMs / 1000, stepMs % 1000}, dir);
}

PB_STREAM_TIME Movement::m_calcDiffTime(PB_STREAM_TIME time, PB_STREAM_TIME step, unsigned char dir) {
    return static_cast<Direction>(dir) == Direction::backward ? time - step : time + step;
}

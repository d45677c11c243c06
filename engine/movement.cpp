// Moving to the picture that the play type calls for, once per pass. Playback thread.
#include <cstdio>

#include "engine/pb_picker_thread.h"
#include "platform/log.h"

namespace {

/// The records that a move starts from and that it hands back. Taking them brings a stream under recording up
/// to date first, so that the move sees its newest pictures.
struct Landing {
    DB_STREAM db;
    STREAM_HEADER stream;
    PICTURE_HEADER picture;

    explicit Landing(CPbStreamVideo* video) {
        video->getDb(&db);
        video->getStH(&stream);
        video->getPicH(&picture);
    }
};

uint8_t endCode(uint32_t dir) {
    return dir == kForward ? kPauseEnd : kPauseStart;
}

/// Crosses into the neighbouring stream because play ran past the end of this one.
int crossOver(CPbStreamVideo* video, unsigned char dir, Landing& landing, PB_STREAM_TIME* reference) {
    video->setplaylastframemode(1);
    const int result = video->over(dir, &landing.db, &landing.stream, &landing.picture, reference, 0);
    video->setplaylastframemode(0);
    return result;
}

} // namespace

int CpbPickerThread::movePictureData() {
    unsigned long stepCount = 0;
    m_eventHandler(stepCount);
    switch (m_pbType) {
    case PB_NORMAL: {
        // The picture found by positioning goes out before the first move.
        const bool move = m_pictureReady != 1;
        if (!move) m_pictureReady = 0;
        playNext(move);
        break;
    }
    case PB_SLOW:
        playNext(true);
        break;
    case PB_FF:
        playFast(kForward, playSpeed);
        break;
    case PB_REW:
        playFast(kBackward, playSpeed);
        break;
    case PB_SLOW_REW:
        playFast(kBackward, kSlowSpeed);
        break;
    case PB_STEP_FWD:
        playStep(kForward, stepCount);
        break;
    case PB_STEP_BACK:
        playStep(kBackward, stepCount);
        break;
    case PB_PAUSE:
        break;
    default:
        return -3;
    }
    return 0;
}

void CpbPickerThread::playNext(bool move) {
    if (move && m_moveStreamNormal(&m_pbStream, 0, m_prevPbType) == 0) {
        logPlain(LOG_INFO, "m_moveStream error!");
        pausePlay();
        return;
    }
    m_pbStreamTime = m_pbStream.getNowPts();
}

/// Fast play reads nothing in between: it goes on by a span of playback time, and pauses on the last picture
/// there is when that leaves the recording.
void CpbPickerThread::playFast(unsigned char dir, uint32_t speed) {
    if (m_pbRealRate == 0) {
        logNamed(LOG_INFO, "movePictureData", "m_pbRealRate is 0");
        m_pbRealRate = static_cast<uint32_t>(m_pbStream.getFrameRate());
    }
    m_pbStreamTime =
        m_calcSpeedFrameTime(&m_pbStream, m_pbType, m_prevPbType, m_pbStreamTime, m_pbRealRate, speed, dir);
    if (m_moveStreamTime(&m_pbStream, dir, m_pbStreamTime) != 0) return;
    if (dir == kForward) {
        logPlain(LOG_INFO, "m_moveStreamTime rearch end");
        skipTo(kSkipLatest);
    } else {
        logPlain(LOG_INFO, "m_moveStreamTime rearch start");
        skipTo(kSkipOldest);
    }
    moveToTime(m_pbStreamTime, dir);
    m_pauseMode = endCode(dir);
    pausePlay();
}

void CpbPickerThread::playStep(unsigned char dir, unsigned long count) {
    if (m_moveStreamStep(&m_pbStream, dir, count) == 0) {
        logPlain(LOG_INFO, "m_moveStreamStep error!");
        pausePlay();
        return;
    }
    m_pbStreamTime = m_pbStream.getNowPts();
}

int CpbPickerThread::m_moveStreamNormal(CPbStreamVideo* video, unsigned long count, PBTYPE) {
    m_pauseMode = kPauseNone;
    if (count == 0) count = 1;
    Landing landing(video);
    for (; count > 0; --count) {
        if (video->move(PBST_FORWARD, 1, &landing.picture, kSearchNone) >= 0) continue;
        if (crossOver(video, kForward, landing, nullptr) < 0) {
            m_pauseMode = kPauseEnd;
            logAt(LOG_INFO, "over() PB_NOT_EXIST_NEXT_STREAM");
            return 0;
        }
    }
    return 1;
}

int CpbPickerThread::m_moveStreamStep(CPbStreamVideo* video, unsigned char dir, unsigned long count) {
    logPlain(LOG_INFO, "step num[%lu]!", count);
    m_pauseMode = kPauseNone;
    const unsigned char search = dir == kForward ? kSearchNone : kSearchBackward;
    Landing landing(video);
    if (video->move(dir, count, &landing.picture, search) < 0) {
        if (crossOver(video, dir, landing, &m_pbStreamTime) < 0) {
            m_pauseMode = endCode(dir);
            return 0;
        }
        if (dir == kBackward && video->move(PBST_BACKWARD, 0, &landing.picture, kSearchBackward) < 0) {
            return 0;
        }
    }
    logPlain(LOG_INFO, "pic id[%lu]", asLu(landing.picture.id));
    return 1;
}

int CpbPickerThread::m_moveStreamTime(CPbStreamVideo* video, unsigned char dir, PB_STREAM_TIME time) {
    m_pauseMode = kPauseNone;
    if (dir != kForward && dir != kBackward) {
        logPlain(LOG_INFO, "invalid path!");
        return 0;
    }
    const unsigned char onward = dir == kForward ? kSearchForward : kSearchBackward;
    const unsigned char back = dir == kForward ? kSearchBackward : kSearchForward;
    Landing landing(video);
    const PB_STREAM_TIME found =
        video->getTime(time, &landing.db, &landing.stream, &landing.picture, onward, dir, 0);
    if (found.sec == 0) {
        m_pauseMode = endCode(dir);
        logAt(LOG_ERR, "retTime.sec=0");
        return 0;
    }
    if (video->getSOFflag() != 0) {
        m_pauseMode = kPauseStart;
        std::fputs("getSOF", stdout);
    }
    // Decoding can only begin at an I-picture; at an end of the stream there may be none further on.
    if (video->move(dir, 0, &landing.picture, onward) < 0) {
        m_pauseMode = endCode(dir);
        if (video->move(dir, 0, &landing.picture, back) < 0) return 0;
    }
    logAt(LOG_INFO, "m_video.offset=%lu", video->getOffset());
    return 1;
}

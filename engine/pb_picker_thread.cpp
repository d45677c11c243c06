#include "engine/pb_picker_thread.h"

#include <cstring>
#include <new>

#include "platform/clock.h"
#include "platform/log.h"

namespace {

/// Time stamp units times 10 in a second: divided by a frame rate in tenths, the step of one frame.
constexpr uint32_t kPtsTenths = kPtsPerMs * 1000 * 10;
/// Rest while nothing new is shown, on top of the pacing pause.
constexpr timeval kStillRest{.tv_sec = 0, .tv_usec = 20000};

/// a - b in milliseconds, for a after b; wraps at 32 bits on purpose.
uint32_t spanMs(PB_STREAM_TIME a, PB_STREAM_TIME b) {
    const PB_STREAM_TIME span = a - b;
    return span.seconds() * 1000u + span.mSec;
}

/// Time stamp step of a span shown at `speed` tenths; the order of the divisions decides the rounding.
uint32_t playedStep(uint32_t units, uint32_t speed) {
    return speed == 0 ? units : units / speed * 10;
}

int pauseBlock(char* buffer) {
    std::memcpy(buffer, kPauseBlock, kPauseBlockBytes);
    return kPauseBlockBytes;
}

} // namespace

CpickerThread* CpbPickerThread::Instance(T_PB_INFO info) {
    if (m_Instance != nullptr) return m_Instance;
    try {
        m_Instance = new CpbPickerThread(info);
    } catch (const std::bad_alloc&) { // its members' memory too; the caller answers the set-up as failed
    }
    return m_Instance;
}

CpbPickerThread::CpbPickerThread(T_PB_INFO info)
    : CpickerThread(info), m_pbStream(info.shmServer), m_pbInfo(info) {}

CpbPickerThread::~CpbPickerThread() {
    m_dataMutex.drain();
    m_modeMutex.drain();
    m_keepAliveMutex.drain();
}

void CpbPickerThread::startThread() {
    launch();
}

unsigned long CpbPickerThread::getFatalError() {
    return m_pbStream.getErrorflag();
}

int CpbPickerThread::preGetData() {
    logPlain(LOG_INFO, "preGetData()");
    m_pbStream.clear();
    PB_STREAM_TIME found;
    switch (m_pbInfo.searchMode) {
    case kSearchModeId:
        logPlain(LOG_INFO, "searchid[%ld]", asLd(m_pbInfo.searchValue));
        found = m_pbStream.getId(m_pbInfo.searchValue, &m_db, &m_stH, &m_picH, 0);
        break;
    case kSearchModeTime:
        logPlain(LOG_INFO, "search startdate[%ld]", asLd(m_pbInfo.searchValue));
        found = m_pbStream.getTime({m_pbInfo.searchValue, m_pbInfo.searchMSec}, &m_db, &m_stH, &m_picH, 1,
                                   kForward, 2);
        break;
    default:
        logPlain(LOG_INFO, "sendThread will return.[pb mode error]");
        return 0;
    }
    if (found.sec == 0) {
        logPlain(LOG_INFO, "sendThread will return.[video stream error]");
        return 0;
    }
    m_pictureReady = 1;
    return 1;
}

int CpbPickerThread::endGetData() {
    return 1;
}

void CpbPickerThread::freeSrcData() {}

int CpbPickerThread::getPictureData(char* buffer) {
    const PB_STREAM_TIME pts = m_pbStream.getNowPts();
    int length = 0;
    switch (m_pbType) {
    case PB_NORMAL:
    case PB_SLOW:
        length = playedBlock(buffer, pts);
        break;
    case PB_FF:
        length = fastBlock(buffer, pts > m_prevPts, pts, m_prevPts);
        break;
    case PB_REW:
    case PB_SLOW_REW:
        length = fastBlock(buffer, pts < m_prevPts, m_prevPts, pts);
        break;
    case PB_STEP_FWD:
    case PB_STEP_BACK:
        length = readPicture(buffer);
        m_timestamp += frameStep();
        break;
    case PB_PAUSE:
        if (m_pbRefresh == 0 && (pts == m_prevPts || pts.sec == 0)) {
            wallclock::sleepFor(kStillRest);
            return pauseBlock(buffer);
        }
        length = readPicture(buffer);
        if (length > 0) m_pbRefresh = 0;
        m_timestamp += frameStep();
        break;
    default:
        return -3;
    }
    m_prevPts = pts;

    if (m_pbType != m_prevPbType) {
        DB_STREAM db;
        m_pbStream.getDb(&db);
        logAt(LOG_INFO, "m_pbType changed. streamID=%ld pbTime=%ld", asLd(db.streamID),
              asLd(m_pbStream.getTimePts().sec));
    }
    m_prevPbType = m_pbType;
    if (m_pbType == PB_STEP_FWD || m_pbType == PB_STEP_BACK) pausePlay();
    return length;
}

/// The current picture; 0 when it can't be read.
int CpbPickerThread::readPicture(char* buffer) {
    STREAM_HEADER stream; // asking for it follows a stream under recording
    m_pbStream.getStH(&stream);
    PICTURE_HEADER picture;
    m_pbStream.getPicH(&picture);
    const bool read = m_pbStream.get(reinterpret_cast<unsigned char*>(buffer)) >= 0;
    m_pbRealRate = static_cast<uint32_t>(m_pbStream.getFrameRate());
    return read ? static_cast<int>(picture.size) : 0;
}

/// Normal and slow play: every picture, stamped by its own time.
int CpbPickerThread::playedBlock(char* buffer, PB_STREAM_TIME pts) {
    const int length = readPicture(buffer);
    m_timestamp += pts > m_prevPts ? playedStep(spanMs(pts, m_prevPts) * kPtsPerMs, playSpeed)
                                   : playedStep(frameStep(), playSpeed);
    return length;
}

/// Fast and reverse play: a picture only when it lies `further` on in the direction of play. The pictures
/// are far apart, so a step of two frames or more is cut to one.
int CpbPickerThread::fastBlock(char* buffer, bool further, PB_STREAM_TIME later, PB_STREAM_TIME earlier) {
    if (!further) return pauseBlock(buffer);
    const int length = readPicture(buffer);
    const uint32_t step = playedStep(spanMs(later, earlier) * kPtsPerMs, playSpeed);
    m_timestamp += step < 2 * frameStep() ? step : frameStep();
    return length;
}

/// Time stamp step of one frame of the current stream.
uint32_t CpbPickerThread::frameStep() const {
    return kPtsTenths / (m_pbRealRate != 0 ? m_pbRealRate : kAssumedFrameRate);
}

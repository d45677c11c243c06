#include "engine/pb_picker_thread.h"

#include <new>
#include <utility>

#include "engine/parameter_sets.h"
#include "engine/request_analysis.h"
#include "platform/clock.h"
#include "platform/log.h"

namespace {

/// Rest while nothing new is shown, on top of the pacing pause.
constexpr timeval kStillRest{.tv_sec = 0, .tv_usec = 20000};

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
    : CpickerThread(info), m_position(info.shmServer), m_pbInfo(info) {
    m_position.m_pbStream.searchWhile(m_loopFlag);
}

CpbPickerThread::~CpbPickerThread() {
    m_dataMutex.drain();
    m_playMode.drain();
    m_keepAlive.drain();
}

// ---- main thread ----

int CpbPickerThread::preGetData() {
    return m_movement.toStart(m_pbInfo) ? 1 : 0;
}

int CpbPickerThread::get_sps_pps(char* buffer, int attempts) {
    for (; attempts > 0; --attempts) {
        const int length = m_get_sps_pps(m_position.m_pbStream, buffer);
        if (length > 0) {
            logAt(LOG_INFO, "SPS/PPS found");
            return length;
        }
    }
    return -1;
}

void CpbPickerThread::startThread() {
    launch();
}

int CpbPickerThread::analyzeEventData(const rtsp_request* request) {
    const std::optional<PBDATA> wanted = analyzeRequest(*request);
    if (!wanted) return -1;
    m_requests.push(*wanted);
    return 0;
}

PBTYPE CpbPickerThread::getCurrentPlayMode() {
    return m_playMode.getCurrentPlayMode();
}

unsigned char CpbPickerThread::getCurrentPauseMode() {
    return m_playMode.getCurrentPauseMode();
}

void CpbPickerThread::setFFSkipTime(unsigned long ms) {
    m_playMode.setFFSkipTime(ms);
}

unsigned long CpbPickerThread::getFatalError() {
    return m_position.m_pbStream.getErrorflag();
}

// ---- playback thread: the steps of a pass ----

timeval CpbPickerThread::m_sleepTimer(timeval, timeval) {
    const timeval now = wallclock::now();
    CPbStreamVideo& video = m_position.m_pbStream;
    STREAM_HEADER stream; // first of all, so that pause and base speak of the picture a refresh leaves
    video.getStH(&stream);
    const PB_STREAM_TIME pts = video.getNowPts();
    const Pacing::Pause pause = m_pacing.pauseAt({.now = now,
                                                  .play = m_playMode.state(),
                                                  .pts = pts,
                                                  .streamId = stream.id,
                                                  .gops = stream.gops,
                                                  .frameRate = static_cast<uint32_t>(video.getFrameRate()),
                                                  .skipMs = m_playMode.ffSkipTime()});
    if (pause.rebased) m_output.countFrom(pts);
    rest(pause.span);
    return pause.span;
}

int CpbPickerThread::movePictureData() {
    unsigned long stepCount = 0;
    m_eventHandler(stepCount);
    if (!isPlayed(m_playMode.state().m_pbType)) return -3;
    if (!m_movement.toNext(stepCount)) pausePlay();
    return 0;
}

int CpbPickerThread::getPictureData(char* buffer) {
    const PlayState state = m_playMode.state();
    const BlockKind kind =
        m_output.kindAt(state.m_pbType, m_position.m_pbStream.getNowPts(), m_position.m_pbRefresh != 0);
    if (kind == BlockKind::none) return -3;
    if (kind == BlockKind::rest) {
        rest(kStillRest);
        return fillPauseBlock(buffer);
    }
    const BlockMaker::Block block = m_output.fill(buffer, kind, state, m_position);
    m_timestamp += block.stampStep;
    if (isStep(state.m_pbType)) pausePlay();
    return block.length;
}

void CpbPickerThread::freeSrcData() {}

int CpbPickerThread::endGetData() {
    return 1;
}

// ---- requests ----

int CpbPickerThread::m_eventHandler(unsigned long& stepCount) {
    if (!m_requests.takeNewest(m_curEvent)) {
        stepCount = m_curEvent.reqSpeed;
        return 1;
    }
    const int32_t readyBefore = std::exchange(m_position.m_pictureReady, 0);
    m_jumps.leaveAlarm();
    switch (m_curEvent.reqType) {
    case kReqPlay:
        playOrJump(readyBefore);
        logAt(LOG_INFO, "m_pbStreamTime = %lu", asLu(m_position.m_pbStreamTime.seconds()));
        break;
    case kReqScaleForward:
        play(Direction::forward, m_curEvent.reqSpeed);
        break;
    case kReqScaleReverse:
        play(Direction::backward, m_curEvent.reqSpeed);
        break;
    case kReqStepForward:
        stepCount = m_curEvent.reqSpeed;
        play(Direction::forward, kStepSpeed);
        break;
    case kReqStepBackward:
        stepCount = m_curEvent.reqSpeed;
        play(Direction::backward, kStepSpeed);
        break;
    case kReqPause:
        m_position.m_pictureReady = readyBefore;
        pausePlay();
        break;
    default:
        break;
    }
    return 1;
}

void CpbPickerThread::playOrJump(int32_t readyBefore) {
    switch (m_jumps.jump(m_curEvent)) {
    case AfterJump::none:
        m_position.m_pictureReady = readyBefore;
        play(Direction::forward, kNormalSpeed);
        break;
    case AfterJump::playAfresh:
        m_pacing.resync();
        play(Direction::forward, kNormalSpeed);
        break;
    case AfterJump::pause:
        pausePlay();
        break;
    }
}

void CpbPickerThread::play(Direction direction, uint32_t speed) {
    m_changePlayMode(number(direction), speed);
}

void CpbPickerThread::pausePlay() {
    play(Direction::forward, 0);
}

unsigned long CpbPickerThread::m_changePlayMode(unsigned long direction, unsigned long speed) {
    return m_playMode.m_changePlayMode(direction, speed, m_position.m_pauseMode);
}

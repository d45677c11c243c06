#include "daemon/request_loop.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "daemon/default_stream.h"
#include "daemon/signals.h"
#include "engine/pb_picker_thread.h"
#include "platform/clock.h"
#include "platform/log.h"

namespace {

constexpr timeval kPauseAfterFailedAccept{1, 0};
constexpr int kWatchMs = 100;
constexpr int kForEver = -1; ///< to poll
constexpr int kParameterSetAttempts = 10;
constexpr time_t kHintSeconds = 300;
constexpr uint32_t kErrorNoEngine = 4; ///< in lastError

} // namespace

RequestLoop::RequestLoop(int listeningSocket, CtavirnShmServer& status)
    : m_listeningSocket(listeningSocket), m_status(status), streamHint(kNoStreamHint),
      hintTime(wallclock::now()) {
    fcntl(listeningSocket, F_SETFL, O_NONBLOCK); // it is waitForClient that waits
}

void RequestLoop::run() {
    rtsp_request request{};
    while (g_loopFlag == kLoopRun) {
        logCaughtSignals(); // those of the last turn: the next connection may be hours away
        waitForClient();
        const int connection = recv_rtsp_request(m_listeningSocket, &request);
        logCaughtSignals();
        if (connection < 0) {
            wallclock::sleepFor(kPauseAfterFailedAccept);
            continue;
        }
        handle(request, connection);
        close(connection);
    }
    logCaughtSignals();
}

// Also returns when a signal has been caught, wherever the loop stood then; the accept fails in that case. A
// session whose playback thread could not start, or gave up, has nobody else to notice that it is left.
void RequestLoop::waitForClient() {
    pollfd awaited[] = {{.fd = m_listeningSocket, .events = POLLIN, .revents = 0},
                        {.fd = caughtSignalEvent(), .events = POLLIN, .revents = 0}};
    for (;;) {
        const bool isUnwatched = m_picker && !m_picker->isWatched();
        if (isUnwatched && m_picker->lapses())
            tearDown({}); // as the thread's own notice would
        else if (poll(awaited, 2, isUnwatched ? kWatchMs : kForEver) != 0)
            return;
    }
}

void RequestLoop::handle(const rtsp_request& request, int connection) {
    if (g_formatFlag == 1) endFormattedSession();
    if (g_formatFlag != 0) return; // set again meanwhile: the next request finds it
    switch (request.type) {
    case RTSP_REQ_OPEN:
        open(connection);
        break;
    case RTSP_REQ_SESSION:
        registerSession(request);
        break;
    case RTSP_REQ_PLAY:
    case RTSP_REQ_PAUSE:
        playOrPause(request);
        break;
    case RTSP_REQ_TEARDOWN:
        tearDown(request);
        break;
    case RTSP_REQ_STATUS:
        answerStatus(request, connection);
        break;
    case RTSP_REQ_FFTIME:
        setSkipTime(request);
        break;
    default:
        break;
    }
}

void RequestLoop::shutDown() {
    if (!m_picker) return;
    logNamed(LOG_INFO, "main", "loop out");
    endEngine();
}

void RequestLoop::endFormattedSession() {
    if (m_picker) {
        logNamed(LOG_ERR, "main", "format: destroy pickerThread");
        endEngine();
    }
    sessionNo = 0;
    g_formatFlag = 0;
}

void RequestLoop::endEngine() {
    m_picker->end();
    m_picker = nullptr;
}

bool RequestLoop::isOfSession(const rtsp_request& request) const {
    return m_picker && rtsp_session_id(&request) == sessionNo;
}

void RequestLoop::open(int connection) {
    const int length = setUp();
    if (send_sps_pps(connection, parameterSets.data(), length) < 0)
        logNamed(LOG_ERR, "main", "sps/pps send error");
}

int RequestLoop::setUp() {
    if (m_picker) {
        logNamed(LOG_ERR, "main", "picker already existed");
        return fillFailure(parameterSets, OpenFailure::alreadyOpen);
    }
    const timeval now = wallclock::now();
    forgetOldHint(now);
    unsigned long errorNo = 0;
    const auto id = static_cast<uint32_t>(searchDefaultStream(streamHint, &errorNo, &m_status));
    return id == 0 ? searchGaveNothing(errorNo) : startEngine(id, now);
}

// Repeated set-ups walk down past streams that cannot be played, but a stream may become playable again:
// after a while the search starts from the newest one. So it does once the clock was set back behind the
// hint, since nobody knows then how long the while is.
void RequestLoop::forgetOldHint(timeval now) {
    timeval elapsed{};
    timersub(&now, &hintTime, &elapsed);
    if (elapsed.tv_sec < 0 || elapsed.tv_sec >= kHintSeconds) streamHint = kNoStreamHint;
}

int RequestLoop::searchGaveNothing(unsigned long errorNo) {
    logPlain(LOG_INFO, "error No = %d", static_cast<int>(errorNo));
    lastError |= static_cast<uint32_t>(errorNo);
    streamHint = kNoStreamHint;
    if (errorNo != kDefaultStreamNoError) return fillFailure(parameterSets, OpenFailure::searchFailed);
    logNamed(LOG_ERR, "main", "stream not found");
    return fillFailure(parameterSets, OpenFailure::noStream);
}

int RequestLoop::startEngine(uint32_t id, timeval now) {
    lastError = 0;
    T_PB_INFO info;
    info.searchMode = kStartAtStream;
    info.searchValue = id;
    info.shmServer = &m_status;
    m_picker = static_cast<CpbPickerThread*>(CpbPickerThread::Instance(info));
    if (!m_picker) {
        logNamed(LOG_ERR, "main", "picker not created");
        lastError |= kErrorNoEngine;
        return fillFailure(parameterSets, OpenFailure::setUpFailed);
    }
    const int length =
        m_picker->preGetData() == 1 ? m_picker->get_sps_pps(parameterSets.data(), kParameterSetAttempts) : 0;
    if (length > 0) {
        logNamed(LOG_INFO, "main", "SPS/PPS found");
        m_picker->startThread();
        streamHint = kNoStreamHint;
    }
    logNamed(LOG_INFO, "main", "DB_STREAM streamID=%lu\n", asLu(id));
    if (length > 0) return length;
    giveUp(id, now);
    return fillFailure(parameterSets, OpenFailure::setUpFailed);
}

void RequestLoop::giveUp(uint32_t id, timeval now) {
    logNamed(LOG_ERR, "main", "m_picker->get_sps_pps() error");
    lastError = static_cast<uint32_t>(m_picker->getFatalError());
    logNamed(LOG_ERR, "main", "fatalerror=%lu", asLu(lastError));
    endEngine();
    sessionNo = 0;
    streamHint = id == 1 ? kNoStreamHint : id - 1;
    hintTime = now;
}

void RequestLoop::registerSession(const rtsp_request& request) {
    if (sessionNo == 0) sessionNo = static_cast<uint32_t>(rtsp_session_id(&request));
}

void RequestLoop::playOrPause(const rtsp_request& request) {
    if (!isOfSession(request)) return;
    m_picker->setKeepAlive(sessionNo);
    m_picker->analyzeEventData(&request);
}

void RequestLoop::setSkipTime(const rtsp_request& request) {
    if (!isOfSession(request)) return;
    m_picker->setKeepAlive(sessionNo);
    if (const unsigned long skipMs = rtsp_ff_skiptime(&request)) m_picker->setFFSkipTime(skipMs);
}

void RequestLoop::tearDown(const rtsp_request& request) {
    if (!m_picker) return;
    if (const unsigned long id = rtsp_session_id(&request); id != 0 && id != sessionNo) return;
    logNamed(LOG_INFO, "main", "TEARDOWN");
    endEngine();
    sessionNo = 0;
}

void RequestLoop::answerStatus(const rtsp_request& request, int connection) {
    fillStatus(statusAnswer, statusWord(request));
    if (send_status(connection, statusAnswer.data(), kStatusAnswerBytes) < 0)
        logNamed(LOG_ERR, "main", "status send error");
}

const char* RequestLoop::statusWord(const rtsp_request& request) {
    if (rtsp_session_id(&request) != sessionNo) return "error";
    if (!m_picker) return lastError == 0 ? "init" : "error";
    m_picker->setKeepAlive(sessionNo);
    if (m_picker->getFatalError() != 0) return "error";
    const PBTYPE mode = m_picker->getCurrentPlayMode();
    if (mode < PB_PAUSE) return "play";
    if (mode == PB_INIT) return "init";
    if (mode != PB_PAUSE) return "error";
    switch (m_picker->getCurrentPauseMode()) {
    case kPauseStart:
        return "pause(sof)";
    case kPauseEnd:
        return "pause(eof)";
    default:
        return "pause";
    }
}

#include "engine/picker_thread.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "daemon/rtsp_request.h"
#include "platform/clock.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "shm/shm_server.h"

namespace {

/// Plenty for SQLite and a request's record. The usual eight megabytes do not fit where a process may have
/// little more than that of address space.
constexpr size_t kStackBytes = 512 * 1024;

rtsp_request teardownRequest(uint32_t sessionId) {
    rtsp_request request{};
    request.type = RTSP_REQ_TEARDOWN;
    request.headerNum = 1;
    std::strncpy(request.header[0].name, "Session", sizeof request.header[0].name);
    std::snprintf(request.header[0].value, sizeof request.header[0].value, "%ld", asLd(sessionId));
    return request;
}

} // namespace

CpickerThread* CpickerThread::m_Instance = nullptr;

CpickerThread* CpickerThread::Instance(T_PB_INFO) {
    return m_Instance;
}

CpickerThread::CpickerThread(T_PB_INFO info) : m_shmserver(info.shmServer) {
    sem_init(&m_running, 0, 0);
    setActive(1);
}

CpickerThread::~CpickerThread() {
    setActive(0);
}

/// Tells the recorder whether an engine exists.
void CpickerThread::setActive(uint32_t active) {
    if (m_shmserver == nullptr || m_shmserver->m_status == nullptr) return;
    m_shmserver->lockShm();
    m_shmserver->m_status->pbActive = active;
    m_shmserver->unlockShm();
}

void CpickerThread::startThread() {
    logPlain(LOG_INFO, "enter");
    launch();
}

void CpickerThread::launch() {
    m_wakeTime = m_writeTime = wallclock::now();
    m_keepAlive.begin(m_wakeTime);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, kStackBytes);
    pthread_t thread;
    const int result = pthread_create(&thread, &attributes, runPickerThread, this);
    pthread_attr_destroy(&attributes);
    if (result != 0) {
        // The session goes on without output, and without this thread's watch, until its owner ends it.
        logNamed(LOG_ERR, "startThread", "pthread_create error(%s)", std::strerror(result));
        return;
    }
    // From here on, end() finds m_threadMutex taken and waits for the run that has begun.
    while (sem_wait(&m_running) != 0) { // cut short by a signal
    }
}

void* CpickerThread::runPickerThread(void* self) {
    static_cast<CpickerThread*>(self)->pickerThread();
    return nullptr;
}

void CpickerThread::end() {
    m_loopFlag = false;
    wallclock::wakeSleeper();
    m_threadMutex.drain();
    delete this;
    m_Instance = nullptr;
}

void CpickerThread::setKeepAlive(unsigned long sessionId) {
    m_keepAlive.renew(sessionId);
}

bool CpickerThread::lapses() {
    return m_keepAlive.lapses(wallclock::now());
}

void CpickerThread::rest(timeval span) {
    wallclock::sleepWhile(m_loopFlag, span);
}

void CpickerThread::pickerThread() {
    pthread_detach(pthread_self());
    MutexLock alive(m_threadMutex); // the engine may be gone as soon as this is released
    sem_post(&m_running);

    char* const buffer = openOutput();
    if (buffer == nullptr) return;

    m_watched = true;
    // The search for parameter sets has moved the position since the main thread's call.
    preGetData();
    while (m_loopFlag) pass(buffer);

    logAt(LOG_INFO, "m_loopFlag off");
    logAt(LOG_ERR, "--->shm_destroy");
    shm_destroy(&m_shm);
    logAt(LOG_ERR, "<---shm_destroy");
    std::free(buffer);
    endGetData();
    logAt(LOG_INFO, "endGetData");
}

char* CpickerThread::openOutput() {
    m_shm = {};
    if (shm_create(paths().ipcKey, static_cast<char>(kOutputMemoryProject), &m_shm, 1, kPictureBufferBytes,
                   kPictureBufferBytes, kOutputBlocks, 0) < 0) {
        logPlain(LOG_ERR, "shm_create error");
        return nullptr;
    }
    logNamed(LOG_INFO, "pickerThread", "%s: shm_id=%u sem_id=%u", "void CpickerThread::pickerThread()",
             m_shm.shmId, m_shm.semId);
    char* const buffer = static_cast<char*>(std::malloc(kPictureBufferBytes));
    if (buffer == nullptr) {
        logPlain(LOG_ERR, "shm data malloc error");
        shm_destroy(&m_shm);
    }
    return buffer;
}

void CpickerThread::pass(char* buffer) {
    pthread_testcancel();
    m_sleepTimer(m_wakeTime, m_writeTime);
    m_wakeTime = wallclock::now();
    // A notice that failed is sent again by the next pass.
    if (m_keepAlive.lapses(m_wakeTime) && m_sendTeardown() == 0) m_keepAlive.told();

    m_dataMutex.lock();
    if (movePictureData() == 0) {
        const int length = getPictureData(buffer);
        if (length != 0 &&
            shm_write_data(&m_shm, buffer, static_cast<unsigned long>(length), 0, 0, 0, m_timestamp, 0) < 0) {
            logNamed(LOG_ERR, "pickerThread", "shm_write_data error");
        }
        freeSrcData();
        m_dataMutex.unlock();
        m_writeTime = wallclock::now();
    } else {
        freeSrcData();
        m_writeTime = wallclock::now();
        m_dataMutex.unlock();
    }
}

int CpickerThread::m_sendTeardown() {
    const rtsp_request request = teardownRequest(m_keepAlive.sessionId());
    const int socket = s_create_client_socket();
    if (socket < 0) {
        logAt(LOG_ERR, "s_create_client_socket error");
        return -1;
    }
    int result = -1;
    if (s_connect_serv(socket, paths().controlSocket) < 0) {
        logAt(LOG_ERR, "s_connect_serv error");
    } else if (s_write_data(socket, &request, sizeof request) < 0) {
        logAt(LOG_ERR, "s_write_data error");
    } else {
        result = 0;
    }
    close(socket);
    return result;
}

#include "daemon/daemon.h"

#include <new>
#include <sys/ipc.h>
#include <unistd.h>

#include "daemon/pid_file.h"
#include "daemon/request_loop.h"
#include "daemon/signals.h"
#include "platform/kw_com.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "shm/shm_server.h"

namespace {

/// A missing key file gives the key -1, for the recorder too; it serves like any other.
bool createStatusSegment(CtavirnShmServer& status) {
    const key_t key = ftok(paths().ipcKey, kStatusSegmentProject);
    logNamed(LOG_INFO, "main", "shmkey = %u", static_cast<unsigned>(key));
    if (!status.openStatus(key)) return false;
    status.lockShm();
    *status.m_status = REC_STATUS{};
    status.unlockShm();
    logNamed(LOG_INFO, "main", "shmserver=%p", static_cast<void*>(&status));
    return true;
}

/// 0, or the exit code of the first step that failed.
int startUp(Detach detach, int& listeningSocket, CtavirnShmServer& status) {
    if (detach == Detach::yes && daemon(0, 0) < 0) {
        logNamed(LOG_ERR, "main", "daemon error");
        return kExitDetach;
    }
    if (setSignal() < 0) {
        logNamed(LOG_ERR, "main", "setSignal error");
        return kExitSignals;
    }
    if (createPidFile() < 0) { // after detaching, which changes the pid
        logNamed(LOG_ERR, "main", "createPidFile error");
        return kExitPidFile;
    }
    listeningSocket = s_create_serv_socket(paths().controlSocket);
    if (listeningSocket < 0) {
        logNamed(LOG_ERR, "main", "create server socket error");
        return kExitSocket;
    }
    setStopSocket(listeningSocket);
    if (!createStatusSegment(status)) {
        logNamed(LOG_ERR, "main", "create shared memory error");
        return kExitStatusSegment;
    }
    return 0;
}

} // namespace

int runDaemon(Detach detach) {
    // Destroyed by an orderly end and by nothing else: that removes segment and semaphore set for the
    // recorder too. Static, so that what a failed start-up leaves stays in sight.
    static CtavirnShmServer* status;
    status = new (std::nothrow) CtavirnShmServer;
    if (status == nullptr) {
        logNamed(LOG_ERR, "main", "create shared memory error");
        return kExitStatusSegment;
    }
    int listeningSocket = -1;
    if (const int code = startUp(detach, listeningSocket, *status); code != 0) {
        logCaughtSignals();
        return code;
    }

    int expected = kLoopNotBegun; // a stop caught during start-up holds
    g_loopFlag.compare_exchange_strong(expected, kLoopRun);
    {
        RequestLoop loop(listeningSocket, *status);
        loop.run();
        loop.shutDown();
    }

    setStopSocket(-1); // the number may be another file's from here on
    close(listeningSocket);
    unlink(paths().controlSocket);
    unlink(paths().pidFile);
    delete status;
    logCaughtSignals(); // those caught since the loop ended
    return 0;
}

#include "daemon/daemon.h"

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

constexpr char kMain[] = "main";

/// The status segment's object. Its destructor, which removes segment and semaphore set for the recorder
/// too, is run by an orderly end and by nothing else.
union StatusSegment {
    StatusSegment() : server() {}
    ~StatusSegment() {}
    CtavirnShmServer server;
};

/// A missing key file gives the key -1, for the recorder too; it serves like any other.
bool createStatusSegment(CtavirnShmServer& status) {
    const key_t key = ftok(paths().ipcKey, kStatusSegmentProject);
    logNamed(LOG_INFO, kMain, "shmkey = %u", static_cast<unsigned>(key));
    status.m_status = static_cast<REC_STATUS*>(status.creat(key));
    if (!status.m_status) return false;
    status.lockShm();
    *status.m_status = REC_STATUS{};
    status.unlockShm();
    logNamed(LOG_INFO, kMain, "shmserver=%p", static_cast<void*>(&status));
    return true;
}

/// 0, or the exit code of the first step that failed.
int startUp(Detach detach, int& listeningSocket, CtavirnShmServer& status) {
    if (detach == Detach::yes && daemon(0, 0) < 0) {
        logNamed(LOG_ERR, kMain, "daemon error");
        return kExitDetach;
    }
    if (setSignal() < 0) {
        logNamed(LOG_ERR, kMain, "setSignal error");
        return kExitSignals;
    }
    if (createPidFile() < 0) { // after detaching, which changes the pid
        logNamed(LOG_ERR, kMain, "createPidFile error");
        return kExitPidFile;
    }
    listeningSocket = s_create_serv_socket(paths().controlSocket);
    if (listeningSocket < 0) {
        logNamed(LOG_ERR, kMain, "create server socket error");
        return kExitSocket;
    }
    setStopSocket(listeningSocket);
    if (!createStatusSegment(status)) {
        logNamed(LOG_ERR, kMain, "create shared memory error");
        return kExitStatusSegment;
    }
    return 0;
}

} // namespace

int runDaemon(Detach detach) {
    StatusSegment status;
    int listeningSocket = -1;
    if (const int code = startUp(detach, listeningSocket, status.server); code != 0) {
        logCaughtSignals();
        return code;
    }

    RequestLoop loop(listeningSocket, status.server);
    int expected = kLoopNotBegun; // a stop caught during start-up holds
    g_loopFlag.compare_exchange_strong(expected, kLoopRun);
    loop.run();
    loop.shutDown();

    setStopSocket(-1); // the number may be another file's from here on
    close(listeningSocket);
    unlink(paths().controlSocket);
    unlink(paths().pidFile);
    status.server.~CtavirnShmServer();
    logCaughtSignals(); // those caught since the loop ended
    return 0;
}

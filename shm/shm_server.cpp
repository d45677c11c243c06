#include "shm/shm_server.h"

#include <cerrno>
#include <cstdio>
#include <sys/ipc.h>
#include <sys/sem.h>

#include "platform/clock.h"

namespace {

/// What semctl takes as its last argument; the callers of semctl have to declare it.
union SemaphoreArgument {
    int val;
    semid_ds* buf;
    unsigned short* array;
};

constexpr timespec kLongestHold{.tv_sec = 1, .tv_nsec = 0};

constexpr char kCreat[] = "@CShmServer::creat()";

} // namespace

CShmServer::CShmServer(int key) {
    while (!creat(key)) wallclock::sleepFor({1, 0});
}

CShmServer::~CShmServer() {
    if (m_shmId != -1) {
        shmdt(m_addr);
        m_addr = kNoAddress;
        shmctl(m_shmId, IPC_RMID, nullptr);
        m_shmId = -1;
    }
    if (m_semId != -1) {
        semctl(m_semId, 0, IPC_RMID, SemaphoreArgument{.val = m_semArg});
        m_semId = -1;
    }
}

void CShmServer::failed(const char* text) {
    m_errno = errno;
    perror(text);
}

// Segment and set are obtained independently of each other: a repeated call completes only what is missing.
// Without IPC_EXCL, whichever of the two processes comes second shares what the first one made.
void* CShmServer::creat(int key) {
    m_errno = 0;
    m_key = key;
    m_size = kSegmentBytes;
    const bool segment = m_shmId != -1 || creatSegment();
    const bool semaphore = m_semId != -1 || creatSemaphore();
    return segment && semaphore ? m_addr : nullptr;
}

bool CShmServer::creatSegment() {
    m_shmId = shmget(m_key, kSegmentBytes, IPC_CREAT | kPermissions);
    if (m_shmId == -1) {
        failed(kCreat);
        return false;
    }
    m_addr = shmat(m_shmId, nullptr, 0);
    if (m_addr != kNoAddress) return true;
    failed(kCreat);
    shmctl(m_shmId, IPC_RMID, nullptr);
    m_shmId = -1;
    return false;
}

// The semaphore is set to free even when the set was there before: its last holder may have been killed.
bool CShmServer::creatSemaphore() {
    m_semId = semget(m_key, 1, IPC_CREAT | kPermissions);
    if (m_semId == -1) {
        failed(kCreat);
        return false;
    }
    m_semArg = 1;
    if (semctl(m_semId, 0, SETVAL, SemaphoreArgument{.val = m_semArg}) != -1) return true;
    failed(kCreat);
    semctl(m_semId, 0, IPC_RMID);
    m_semId = -1;
    return false;
}

int CShmServer::isShm(int key) {
    return shmget(key, kSegmentBytes, kPermissions) != -1 && semget(key, 1, kPermissions) != -1;
}

// A holder keeps the lock for a few word copies, so one that has not given it back for so long has been
// killed with it. The caller goes on without; its unlockShm then frees the lock for everybody.
int CShmServer::lockShm() {
    sembuf take{.sem_num = 0, .sem_op = -1, .sem_flg = 0};
    while (semtimedop(m_semId, &take, 1, &kLongestHold) == -1) {
        if (errno == EINTR) continue; // a signal to the waiting thread
        return lockFailed("@CShmServer::lockShm()");
    }
    return 1;
}

// From 0 to 1 only: when a holder that was given up comes back after all, the lock has been freed already.
int CShmServer::unlockShm() {
    sembuf free[] = {{.sem_num = 0, .sem_op = 0, .sem_flg = IPC_NOWAIT},
                     {.sem_num = 0, .sem_op = 1, .sem_flg = 0}};
    if (semop(m_semId, free, 2) != -1 || errno == EAGAIN) return 1;
    return lockFailed("@CShmServer::unlockShm()");
}

/// Always 0. The other side may end first and take the set along; that is no fault to report.
int CShmServer::lockFailed(const char* text) {
    const int cause = errno;
    if (semget(m_key, 1, kPermissions) != -1) {
        errno = cause;
        failed(text);
    }
    return 0;
}

void CShmServer::getStat(shmid_ds* stat) {
    if (shmctl(m_shmId, IPC_STAT, stat) == -1) failed("@CShmServer::getStat()");
}

// shm/: the System V segment with its semaphore lock that the daemon and the recorder share. Knows nothing
// of streams. Failures go to standard error with perror, never to the log.
#pragma once

#include <atomic>
#include <sys/shm.h>
#include <sys/types.h>

#include "shm/rec_status.h"

/// The creating side: owns segment and semaphore set and removes both when it is destroyed. The lock is
/// neither recursive nor owned; hold it for a few word copies and call nothing meanwhile.
class CShmServer {
public:
    CShmServer() = default;
    /// Runs creat until it succeeds, sleeping one second between attempts.
    explicit CShmServer(int key);
    virtual ~CShmServer();
    CShmServer(const CShmServer&) = delete;
    CShmServer& operator=(const CShmServer&) = delete;

    /// Creates or opens segment and semaphore set and sets the semaphore to 1. The address, null on failure;
    /// a repeated call completes only what is missing.
    void* creat(int key);
    /// 1 when segment and set exist for the key, else 0; changes nothing.
    int isShm(int key);
    /// 1 on success, 0 on failure; waits for the holder, at most a second. Every lockShm is followed by
    /// unlockShm, the failed one too.
    int lockShm();
    /// 1 on success, also when the lock is free already; 0 on failure.
    int unlockShm();
    void getStat(shmid_ds* stat);

protected:
    static constexpr int kSegmentBytes = 256;
    static constexpr int kPermissions = 0666;
    static inline void* const kNoAddress = reinterpret_cast<void*>(-1);

    std::atomic<int> m_errno = 0; ///< of the last failed system call, whichever thread made it
    int m_key = -1;
    int m_size = 0;
    int m_shmId = -1;
    int m_semId = -1;
    void* m_addr = kNoAddress;
    int m_semArg = 0; ///< value given to semctl

    /// Keeps errno and prints it behind `text` on standard error.
    void failed(const char* text);

private:
    bool creatSegment();
    bool creatSemaphore();
    int lockFailed(const char* text);
};

/// The segment with the status record.
class CtavirnShmServer : public CShmServer {
public:
    CtavirnShmServer() = default;

    /// creat, and where the record lies; false on failure.
    bool openStatus(int key) {
        m_status = static_cast<REC_STATUS*>(creat(key));
        return m_status != nullptr;
    }

    REC_STATUS* m_status = nullptr; ///< null until openStatus has succeeded
};

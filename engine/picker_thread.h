// CpickerThread is the frame of the one playback thread. The main thread commands it (startThread,
// setKeepAlive, end); it owns the output memory and the picture buffer for as long as its loop runs, and
// produces one block per pass. Locks, in order: m_threadMutex for the whole run; inside it the keep-alive's
// and m_dataMutex one after the other, never both; inside m_dataMutex the queue's and the play mode's, one at
// a time; the play mode's also for the pause between pictures, which is made outside m_dataMutex. The thread
// never destroys itself.
#pragma once

#include <atomic>
#include <cstdint>
#include <pthread.h>
#include <semaphore.h>
#include <sys/time.h>

#include "engine/keep_alive.h"
#include "engine/pb_types.h"
#include "platform/kw_com.h"
#include "platform/mutex.h"

class CtavirnShmServer;

class CpickerThread {
public:
    // What one pass consists of; playback thread, all but m_sleepTimer inside m_dataMutex. The order of the
    // virtual operations is that of their slots.
    virtual timeval m_sleepTimer(timeval wakeTime, timeval writeTime) = 0;
    virtual ~CpickerThread();
    virtual int movePictureData() = 0; ///< 0 = a block may be fetched
    virtual void freeSrcData() = 0;
    virtual int getPictureData(char* buffer) = 0; ///< bytes placed, 0 = nothing to write
    virtual int preGetData() = 0;                 ///< 1 = ready
    virtual int endGetData() = 0;

    CpickerThread(const CpickerThread&) = delete;
    CpickerThread& operator=(const CpickerThread&) = delete;

    /// The engine there is, possibly null; never creates one.
    static CpickerThread* Instance(T_PB_INFO info);
    static CpickerThread* m_Instance;

    /// Starts the playback thread; returns once it holds its life mutex, or could not be created.
    void startThread();
    /// Wakes the thread from its pause, waits for the query or picture in hand and the clean-up, and destroys
    /// the engine. Main thread only.
    void end() EXCLUDES(m_threadMutex);
    /// A request of session `sessionId` has arrived.
    void setKeepAlive(unsigned long sessionId);
    /// Whether the playback thread looks at the keep-alive: once it has all that it needs to play. While it
    /// does not, its owner has to, now and then, through lapses.
    bool isWatched() const { return m_watched; }
    /// Whether the session has been without a request for too long.
    bool lapses();

    /// Room for one picture; also the output memory's block and data size.
    static constexpr unsigned long kPictureBufferBytes = 1536000;
    static constexpr int kOutputBlocks = 30;

protected:
    explicit CpickerThread(T_PB_INFO info);

    /// Creates the thread; the part of startThread that derived classes share.
    void launch();
    /// The thread's whole run.
    void pickerThread() EXCLUDES(m_threadMutex);
    /// One turn of the loop: pause, keep-alive watch, move, fetch, write.
    void pass(char* buffer) EXCLUDES(m_dataMutex);
    /// Suspends the playback thread for `span`; not once the thread shall end, which also cuts it short.
    void rest(timeval span);
    /// Sends a teardown request to the daemon's own control socket; 0, or -1.
    int m_sendTeardown();

    std::atomic<bool> m_loopFlag{true}; ///< cleared by end, which ends pauses and searches
    static_assert(std::atomic<bool>::is_always_lock_free);
    Mutex m_dataMutex;
    Mutex m_threadMutex;
    KeepAlive m_keepAlive;

    /// Of the block being written, in kPtsPerMs; wraps. Playback thread only, once it runs.
    uint32_t m_timestamp = 0;

private:
    static void* runPickerThread(void* self);
    /// Output memory and a buffer for one picture; null when either can't be had.
    char* openOutput();
    void setActive(uint32_t active);

    sem_t m_running;                    ///< posted once the thread holds m_threadMutex
    std::atomic<bool> m_watched{false}; ///< once the thread has all it needs to play

    // Playback thread only, once it runs.
    KW_SHM m_shm{};
    timeval m_wakeTime{};  ///< after the last pause
    timeval m_writeTime{}; ///< after the last write

    CtavirnShmServer* const m_shmserver; ///< may be null
};

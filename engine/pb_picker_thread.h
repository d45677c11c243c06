// The playback engine: one object per open session. Its operations are divided over files by subject:
// pb_picker_thread.cpp (life, first positioning, output block), parameter_sets.cpp, request_analysis.cpp,
// play_mode.cpp (requests and modes), jumps.cpp, movement.cpp, pacing.cpp.
#pragma once

#include <cstdint>
#include <queue>

#include "engine/picker_thread.h"
#include "stream/pb_stream_video.h"

struct rtsp_request;

class CpbPickerThread : public CpickerThread {
public:
    /// The engine there is, or a new one made from `info`; null when there is no memory.
    static CpickerThread* Instance(T_PB_INFO info);
    explicit CpbPickerThread(T_PB_INFO info);
    ~CpbPickerThread() override;

    // ---- main thread, before startThread ----

    /// Finds the start picture; 1 = ready. The playback thread runs it once more when it starts.
    int preGetData() override;
    /// Cuts SPS and PPS out of the recording: at most `attempts` pictures are looked at, `buffer` holds 96
    /// bytes. Their length, or -1.
    int get_sps_pps(char* buffer, int attempts);
    void startThread();

    // ---- main thread, at any time ----

    /// Queues what a play or pause request asks for; 0, or -1 for any other type and without memory.
    int analyzeEventData(const rtsp_request* request) EXCLUDES(m_eventMutex);
    PBTYPE getCurrentPlayMode() EXCLUDES(m_modeMutex);
    unsigned char getCurrentPauseMode() EXCLUDES(m_modeMutex);
    /// Milliseconds, taken as the nearest of 333..1000.
    void setFFSkipTime(unsigned long ms) EXCLUDES(m_modeMutex);
    /// The stream object's error flags: bit 0 index, bit 1 chunk.
    unsigned long getFatalError();

    // ---- playback thread ----

    timeval m_sleepTimer(timeval wakeTime, timeval writeTime) override;
    int movePictureData() override;
    void freeSrcData() override;
    int getPictureData(char* buffer) override;
    int endGetData() override;

protected:
    // parameter_sets.cpp
    int m_get_sps_pps(char* buffer);

    // play_mode.cpp
    /// Moves the newest request into m_curEvent and drops those before it; false when there is none.
    bool takeRequest() EXCLUDES(m_eventMutex);
    /// Applies the newest request and drops the older ones; 1. `stepCount` is set for a step request, and to
    /// the last request's speed when nothing was queued.
    int m_eventHandler(unsigned long& stepCount) EXCLUDES(m_eventMutex, m_modeMutex);
    /// The only place where the play type changes; publishes it with the pause reason. The new playSpeed.
    unsigned long m_changePlayMode(unsigned long newDirection, unsigned long speed) EXCLUDES(m_modeMutex);

    // movement.cpp: 1 = moved, 0 = the recording ends there; m_pauseMode then says which end, if one was met
    int m_moveStreamNormal(CPbStreamVideo* video, unsigned long count, PBTYPE prevType);
    int m_moveStreamStep(CPbStreamVideo* video, unsigned char dir, unsigned long count);
    int m_moveStreamTime(CPbStreamVideo* video, unsigned char dir, PB_STREAM_TIME time);

    // pacing.cpp
    /// The next playback time of a fast play: `time` moved by the skip time at `speed`.
    PB_STREAM_TIME m_calcSpeedFrameTime(CPbStreamVideo* video, PBTYPE type, PBTYPE prevType,
                                        PB_STREAM_TIME time, unsigned long rate, unsigned long speed,
                                        unsigned char dir);
    PB_STREAM_TIME m_calcDiffTime(PB_STREAM_TIME time, PB_STREAM_TIME step, unsigned char dir);

    // ---- playback thread only, once it runs ----

    PBDATA m_curEvent;             ///< the request taken last
    PBTYPE m_pbType = PB_PAUSE;    ///< current play type
    PBTYPE m_prevPbType = PB_INIT; ///< play type of the previous output block
    uint32_t playSpeed = 0;        ///< tenths (10 = 1.0x)
    uint32_t direction = kForward;
    uint8_t m_pauseMode = kPauseNone; ///< pause reason being decided
    uint32_t m_pbRealRate = 0;        ///< frames per second times 10, as getFrameRate gives it
    uint32_t m_pbRefresh = 0;         ///< 1 = while paused, output the current picture once
    PB_STREAM_TIME m_pbStreamTime;    ///< current playback time
    PB_STREAM_TIME m_alarmTime;       ///< playback time the last alarm jump reached
    PB_STREAM_TIME m_prevPts;         ///< picture time of the previous output block
    uint32_t m_lastStreamID = 0;      ///< stream of the last fast-play step

    // Pacing: wall clock and picture clock at one moment, and what held at the previous pause.
    timeval m_baseWallTime{};
    PB_STREAM_TIME m_basePts;
    uint32_t m_prevPlaySpeed = 0;
    uint32_t m_prevDirection = kForward;
    uint32_t m_prevStreamIdPacing = 0;

    // Scratch records of positioning.
    DB_STREAM m_db{};
    STREAM_HEADER m_stH{};
    PICTURE_HEADER m_picH{};

    CPbStreamVideo m_pbStream;

private:
    uint32_t ffSkipTime() EXCLUDES(m_modeMutex);

    // pb_picker_thread.cpp: the rows of the output block; each returns the block's length
    int readPicture(char* buffer);
    int playedBlock(char* buffer, PB_STREAM_TIME pts);
    int fastBlock(char* buffer, bool further, PB_STREAM_TIME later, PB_STREAM_TIME earlier);
    uint32_t frameStep() const;

    // parameter_sets.cpp
    bool nextIPicture(PICTURE_HEADER& picture);

    // request_analysis.cpp
    int queueRequest(const PBDATA& request) EXCLUDES(m_eventMutex);

    // play_mode.cpp
    void pausePlay();

    // jumps.cpp
    void playOrJump(int32_t readyBefore);
    void jumpToClock();
    unsigned char chooseClockTarget(uint32_t second);
    void jumpToOldest();
    void jumpToLatest();
    void jumpToAlarm(unsigned char dir);
    void settleOnAlarm();
    PB_STREAM_TIME landingBackward(PB_STREAM_TIME time);
    bool moveToTime(PB_STREAM_TIME time, unsigned char dir);
    void skipTo(unsigned char kind);

    // movement.cpp
    void playNext(bool move);
    void playFast(unsigned char dir, uint32_t speed);
    void playStep(unsigned char dir, unsigned long count);

    // pacing.cpp
    timeval paceAgainstBase(timeval now, uint32_t gops);
    timeval pauseWhenEarly(timeval lead, timeval now, uint32_t gops);
    timeval pauseWhenLate(timeval lag, timeval now, uint32_t gops);
    timeval startAfresh(timeval now);
    void rebase(timeval wallTime);
    PB_STREAM_TIME shownSinceBase() const;
    uint32_t halfGopMs(uint32_t gops) const;

    const T_PB_INFO m_pbInfo;

    Mutex m_eventMutex;
    std::queue<PBDATA> m_eventQueue GUARDED_BY(m_eventMutex);

    Mutex m_modeMutex;
    PBTYPE m_pbTypeShown GUARDED_BY(m_modeMutex) = PB_PAUSE; ///< m_pbType, as status queries see it
    uint8_t m_pauseModeShown GUARDED_BY(m_modeMutex) = kPauseNone;
    uint32_t m_ffSkipTime GUARDED_BY(m_modeMutex) = kMaxSkipMs; ///< milliseconds
};

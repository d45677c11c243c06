// engine/: the playback thread, its play modes, movement, pacing and parameter sets. Opens neither index nor
// chunks itself; asks the stream access object.
//
// CpbPickerThread is the playback engine: one object per open session, and the doors to its rooms. A request
// comes in through analyzeEventData, is kept by the RequestQueue and applied by m_eventHandler, which changes
// the PlayMode or has Jumps go elsewhere. Movement goes on from pass to pass; BlockMaker makes the block of
// where play has come to, Pacing the pause before it. Each room keeps its own state, and the lock over it
// where it has one.
#pragma once

#include "engine/jumps.h"
#include "engine/movement.h"
#include "engine/output_block.h"
#include "engine/pacing.h"
#include "engine/picker_thread.h"
#include "engine/play_mode.h"
#include "engine/position.h"
#include "engine/request_queue.h"

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
    /// Cuts SPS and PPS out of the recording: at most `attempts` pictures are looked at, `buffer` holds
    /// kParameterSetAnswerBytes. Their length, or -1.
    int get_sps_pps(char* buffer, int attempts);
    void startThread();

    // ---- main thread, at any time ----

    /// Queues what a play or pause request asks for; 0, or -1 for any other type.
    int analyzeEventData(const rtsp_request* request);
    PBTYPE getCurrentPlayMode();
    unsigned char getCurrentPauseMode();
    /// Milliseconds, taken as the nearest of kMinSkipMs..kMaxSkipMs.
    void setFFSkipTime(unsigned long ms);
    /// The stream object's error flags: bit 0 index, bit 1 chunk.
    unsigned long getFatalError();

    // ---- playback thread ----

    timeval m_sleepTimer(timeval wakeTime, timeval writeTime) override;
    int movePictureData() override;
    void freeSrcData() override;
    int getPictureData(char* buffer) override;
    int endGetData() override;

protected:
    /// Applies the newest request and drops the older ones; 1. `stepCount` is set for a step request, and to
    /// the last request's speed when nothing was queued.
    int m_eventHandler(unsigned long& stepCount);
    /// Changes the play type and publishes it with the pause reason of the last move. The new playSpeed.
    unsigned long m_changePlayMode(unsigned long direction, unsigned long speed);

    Position m_position; ///< playback thread only, once it runs

private:
    void play(Direction direction, uint32_t speed);
    void pausePlay();
    void playOrJump(int32_t readyBefore);

    const T_PB_INFO m_pbInfo;

    // With locks of their own.
    PlayMode m_playMode;
    RequestQueue m_requests;

    // Playback thread only, once it runs.
    PBDATA m_curEvent; ///< the request taken last
    Movement m_movement{m_position, m_playMode};
    Jumps m_jumps{m_position, m_movement};
    Pacing m_pacing;
    BlockMaker m_output;
};

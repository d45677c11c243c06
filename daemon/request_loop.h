// The main thread's life: one connection per request, one record per connection, at most one session. It
// commands the playback engine and never moves pictures itself.
#pragma once

#include <cstdint>
#include <sys/time.h>

#include "daemon/control_channel.h"

class CpbPickerThread;
class CtavirnShmServer;

/// Session state and request handling. Everything here runs on one thread; only the two flags of signals.h
/// come from outside.
class RequestLoop {
public:
    /// `listeningSocket` stays the caller's, but no longer waits in accept; `status` outlives the loop.
    RequestLoop(int listeningSocket, CtavirnShmServer& status);
    RequestLoop(const RequestLoop&) = delete;
    RequestLoop& operator=(const RequestLoop&) = delete;

    /// Serves requests while g_loopFlag says so.
    void run();

    /// Acts on one record, whatever it holds, and writes its answer, if it has one, to `connection`, which
    /// stays open. A session whose card is being formatted ends first.
    void handle(const rtsp_request& request, int connection);

    /// Ends the open session, if any. To be called once the loop has ended: the engine uses `status`.
    void shutDown();

private:
    void waitForClient();

    // One per request type.
    void open(int connection);
    void registerSession(const rtsp_request& request);
    void playOrPause(const rtsp_request& request);
    void tearDown(const rtsp_request& request);
    void answerStatus(const rtsp_request& request, int connection);
    void setSkipTime(const rtsp_request& request);

    // Opening a session: each returns the length of the answer it has left in parameterSets.
    int setUp();
    int searchGaveNothing(unsigned long errorNo);
    int startEngine(uint32_t id, timeval now);

    /// Ends the engine of a stream that cannot be played, and has the searches after a set-up begun at `now`
    /// look below that stream.
    void giveUp(uint32_t id, timeval now);
    void forgetOldHint(timeval now);
    void endFormattedSession();
    void endEngine();
    bool isOfSession(const rtsp_request& request) const;
    const char* statusWord(const rtsp_request& request);

    const int m_listeningSocket;
    CtavirnShmServer& m_status;

    CpbPickerThread* m_picker = nullptr; ///< the session's engine; null = no session
    uint32_t sessionNo = 0;              ///< as registered; 0 = none. Lives apart from the engine
    uint32_t streamHint;                 ///< inclusive bound on the next search's stream ID
    timeval hintTime;                    ///< when streamHint was set
    uint32_t lastError = 0; ///< of the last set-up attempts; only status requests without session read it

    ParameterSetAnswer parameterSets{};
    StatusAnswer statusAnswer{};
};

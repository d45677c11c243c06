// The one playback session: the daemon's, what is known of its recording, and the client's stream of packets,
// once it is set up. Joins the play machine to the world; lives in the loop that serves clients.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "rtsp/card_delivery.h"
#include "rtsp/daemon_link.h"
#include "rtsp/media_transport.h"
#include "rtsp/play_machine.h"
#include "rtsp/recording_time.h"
#include "rtsp/rtp_stream.h"

/// A PLAY request, its times in milliseconds since the epoch.
struct PlayRequest {
    bool hasRange = false;
    bool live = false;           ///< from the live edge
    std::optional<int64_t> from; ///< none: from here
    std::optional<int64_t> until;
    int scale = kNormalScale; ///< in tenths, not 0
    bool iPicturesOnly = false;
    int64_t intervalMs = 0;
    bool rateControl = true; ///< false: as fast as the client takes them
    bool replay = false;     ///< with the replay extension
    uint8_t cseq = 0;
};

/// What comes of it.
struct PlayAnswer {
    PlayReply reply;
    uint16_t sequence = 0; ///< of the first packet, when it follows
    uint32_t rtpTime = 0;
};

/// What can be told of a recording before it is played.
struct Description {
    std::string parameterSets; ///< Annex B
    RecordingTime::Span span{};
    double frameRate = 0;
};

class Playback : private PlayOutput {
public:
    using OnDescribed = std::function<void(DaemonLink::Opening, const Description&)>;
    using OnAnswer = std::function<void(const PlayAnswer&)>;

    explicit Playback(DaemonLink::Post post);

    /// Opens the daemon's session unless it is open.
    void describe(OnDescribed done);
    bool isOpen() const { return m_open; }
    bool isSetUp() const { return m_transport != nullptr; }

    /// A client's stream; it lasts until `end`, which happens by itself when the daemon's session does: then
    /// `lost`.
    void setUp(std::unique_ptr<MediaTransport> transport, uint32_t ssrc, std::function<void()> lost);
    const MediaTransport& transport() const { return *m_transport; }
    void setReplayExtension() { m_rtp->setReplayExtension(true), m_replay = true; }
    void play(const PlayRequest& request, OnAnswer answer);
    void pause(OnAnswer answer);
    /// Ends the client's stream and the daemon's session.
    void end();

    /// When npt is 0: the start of the oldest stream as the session was opened.
    int64_t zero() const { return m_description.span.oldest; }

private:
    static gboolean onTick(gpointer self);

    void opened(DaemonLink::Opening result, const std::string& parameterSets);
    void tellDescription(DaemonLink::Opening result);
    void block(OutputBlock block);
    Picture pictureOf(OutputBlock& block);
    void lost();
    std::optional<Picture> targetHere();
    PlayOrder orderFor(const PlayRequest& request);
    void tick();
    void report(bool bye);

    void deliver(const PlayOrder& order, OnAnswer answer);
    static gboolean onDelivery(gpointer self);
    bool deliverSome();
    void stopDelivery();

    void control(int32_t type, const std::string& name, const std::string& value) override;
    void reply(const PlayReply& reply) override;
    void picture(const Picture& picture, const Standing& standing) override;
    void goodBye() override;
    bool recordingGoesOn() override;

    DaemonLink m_link;
    RecordingTime m_recording;
    Description m_description;
    bool m_opening = false, m_open = false;
    bool m_shown = false;      ///< the session has come to its first pause
    uint32_t m_generation = 0; ///< of the daemon's session: what an earlier one still says does not count
    std::vector<OnDescribed> m_waiting;

    std::unique_ptr<PlayMachine> m_machine; ///< while a session is open
    std::unique_ptr<RtpStream> m_rtp;       ///< these while it is set up
    std::unique_ptr<MediaTransport> m_transport;
    std::function<void()> m_lost;
    std::vector<OnAnswer> m_answers; ///< due, in the order of the machine's replies
    bool m_replay = false;
    bool m_played = false;
    int64_t m_lastReport = 0;
    SourcePtr m_ticking;
    std::unique_ptr<CardDelivery> m_delivery; ///< while a play without rate control goes on
    int64_t m_deliveredFrom = 0;
    uint32_t m_rtpFrom = 0;
    SourcePtr m_delivering;
};

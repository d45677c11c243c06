// The one playback session: the daemon's, what is known of its recording, and the client's stream of packets,
// once it is set up. Joins the play machine to the world; lives in turns of the loop that serves clients.
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

/// What comes of a PLAY or PAUSE.
struct PlayAnswer {
    int status = 200;
    PlayReply reply{};
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
    /// With null when no session of the daemon's can be had.
    using OnDescribed = std::function<void(const Description*)>;
    using OnAnswer = std::function<void(const PlayAnswer&)>;

    /// `lost` tells that all has ended by itself, since the daemon's session has.
    explicit Playback(std::function<void()> lost);

    /// Opens the daemon's session unless it is open.
    void describe(OnDescribed done);
    bool isOpen() const { return m_machine != nullptr; }
    bool isSetUp() const { return m_transport != nullptr; }

    /// A client's stream; it lasts until `end`.
    void setUp(std::unique_ptr<MediaTransport> transport, uint32_t ssrc);
    const MediaTransport& transport() const { return *m_transport; }
    void setReplayExtension() { m_rtp->setReplayExtension(); }
    void play(const PlayRequest& request, OnAnswer answer);
    void pause(OnAnswer answer);
    /// Ends the client's stream and the daemon's session; a PLAY or PAUSE under way is answered with
    /// `status`.
    void end(int status = 200);

private:
    void opened(const std::optional<std::string>& parameterSets);
    void tellDescription(const Description* description);
    void block(OutputBlock* block);
    Picture pictureOf(OutputBlock& block);
    void lost();
    bool takes(const OnAnswer& answer) const;
    std::optional<Picture> pictureHere();
    PlayOrder orderFor(const PlayRequest& request);
    void report(bool bye);
    bool keepToEdge();

    void deliver(const PlayOrder& order, const OnAnswer& answer);
    void deliverIn(guint ms);
    void deliverSome();
    void stopDelivery();

    void control(int32_t type, const std::string& name, const std::string& value) override;
    void reply(const PlayReply& reply) override;
    void picture(const Picture& picture, const Standing& standing) override;
    void goodBye() override { report(true); }
    bool recordingGoesOn() override { return RecordingTime::goesOn(); }

    DaemonLink m_link;
    const std::function<void()> m_lost;
    RecordingTime m_recording;
    Description m_description;
    bool m_opening = false; ///< until the daemon has come to its first pause
    std::vector<OnDescribed> m_waiting;

    std::unique_ptr<PlayMachine> m_machine;      ///< while the daemon's session is open
    std::unique_ptr<MediaTransport> m_transport; ///< these while it is set up
    std::unique_ptr<RtpStream> m_rtp;
    OnAnswer m_answer; ///< to a PLAY or PAUSE under way
    bool m_played = false;
    int64_t m_lastReport = 0;
    int64_t m_lookedAt = 0;                   ///< at how far play is behind the recorder
    std::unique_ptr<CardDelivery> m_delivery; ///< these while a play without rate control goes on
    SourcePtr m_delivering;
    uint32_t m_rtpEpoch = 0; ///< the RTP time of 1970
};

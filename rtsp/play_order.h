// What the play machine is asked for, and what it gives.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "rtsp/picture.h"

inline constexpr int kNormalScale = 10; ///< scales are in tenths, as the daemon cuts them
inline constexpr int kSlowScale = 5;    ///< the one slow scale, in either direction

/// A PLAY request, its times on the recording's clock and cut to the recording.
struct PlayOrder {
    enum class Start {
        here,
        at,     ///< `from`
        newest, ///< the live edge
    };
    Start start = Start::here;
    int64_t from = 0;                ///< when the picture asked for was recorded; for `newest` too
    std::string clock{};             ///< the same as the daemon writes it: local, in whole seconds
    std::optional<Picture> target{}; ///< that picture, when it can be read: it is sent at once
    std::optional<int64_t> until{};  ///< the last picture is the last one at or before it (reverse: after it)
    int scale = kNormalScale;        ///< not 0
    bool iPicturesOnly = false;
    int64_t intervalMs = 0; ///< at least so much of the recording between two pictures
    bool holdBack = false;  ///< fast and reverse: send each picture when the next is known, to tell the last
    uint8_t cseq = 0;

    bool isFast() const { return scale > kNormalScale || scale < 0; }
};

/// What the reply to a PLAY says.
struct PlayReply {
    std::optional<int64_t> from{}; ///< the time of the first picture
    std::optional<int64_t> until{};
    int scale = kNormalScale;
    bool firstFollows = false; ///< the next picture sent is the first one of this PLAY
};

/// Where the machine's outcome goes. Called from inside its doors.
class PlayOutput {
public:
    virtual ~PlayOutput() = default;
    /// A request to the daemon; `controlDone` is to be called once for each.
    virtual void control(int32_t type, const std::string& name, const std::string& value) = 0;
    virtual void reply(const PlayReply& reply) = 0;
    virtual void picture(const Picture& picture, const Standing& standing) = 0;
    /// The end: nothing follows until the next PLAY.
    virtual void goodBye() = 0;
    /// Whether the newest stream is still being recorded.
    virtual bool recordingGoesOn() = 0;
};

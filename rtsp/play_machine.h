// PLAY and PAUSE, as a machine: it is fed requests of one client, what came of control requests, blocks of
// the output memory and the time, and gives control requests, replies and pictures to send. Pure: no I/O, no
// clock of its own.
//
//   play elsewhere, ┌─────────┐ there  ┌──────────┐ its first block
//   then a scale ──▶│ jumping │───────▶│ starting │────────────────▶ playing ──▶ edge (play again, or
//   good-bye)
//                   └─────────┘   play └──────────┘                     │ pause, end of the range
//   paused ───────────────────────────────▲  ▲                          ▼
//     ▲                                      └────────────────────── settling
//     └─────────────────────────────────────────────────────────────────┘ PAUSE block
//
// Nothing in a block tells which request it answers. Three things do: from the second block on behind the
// newest one when a request had been taken, all follow it; a picture that a play elsewhere begins with is
// known beforehand, and recognised by its bytes; and the daemon drops a request that it has not acted on for
// the next one, so that what builds on another waits for that one's first block.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "rtsp/picture.h"

inline constexpr int kNormalScale = 10; ///< scales are in tenths, as the daemon cuts them
inline constexpr int kSlowScale = 5;    ///< the one slow scale, in either direction
inline constexpr int64_t kSkipMs = 333; ///< between two pictures of fast and reverse play

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
};

/// What a reply to PLAY says.
struct PlayReply {
    int status = 200;
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

class PlayMachine {
public:
    explicit PlayMachine(PlayOutput& output) : m_out(output) {}

    /// A block, `picture` none for one that says PAUSE.
    void block(uint32_t sequence, const Picture* picture, int64_t nowUs);
    /// A control request has been taken when `newest` was the newest block; `status` is the word of its
    /// answer.
    void controlDone(int32_t type, uint32_t newest, const std::string& status, int64_t nowUs);
    void play(const PlayOrder& order, int64_t nowUs);
    void pause(int64_t nowUs);
    /// To be called some ten times a second.
    void tick(int64_t nowUs);
    /// Pictures could not be sent: the next one that is, is an I-picture.
    void picturesLost() { m_lost = true; }

    /// Another PLAY or PAUSE would have to wait.
    bool busy() const { return m_replyDue; }
    bool playing() const { return m_state == State::playing || m_state == State::edge; }
    const PlayOrder& order() const { return m_order; }
    /// Where to look for the picture that comes next.
    Expected expected() const;

private:
    enum class State { paused, settling, jumping, starting, playing, edge };

    void control(int32_t type, int64_t nowUs, const std::string& name = {}, const std::string& value = {});
    void enter(State state, int64_t nowUs);
    void settle(int64_t nowUs);
    void begin(const PlayOrder& order, int64_t nowUs);
    void start(int64_t nowUs);
    void takeUp(int64_t nowUs);
    void giveUpWaiting(int64_t nowUs);
    void answer(bool firstFollows, std::optional<int64_t> from);
    void pictureCame(const Picture& picture, bool follows, int64_t nowUs);
    void pauseCame(bool follows, int64_t nowUs);
    void arrived(const Picture& picture, bool follows, bool wasSeen, int64_t nowUs);
    bool leaps(const Picture& from, const Picture& to) const;
    bool isFirst(const Picture& picture, bool follows);
    void first(const Picture& picture, int64_t nowUs);
    void emit(const Picture& picture, int64_t nowUs);
    bool passes(const Picture& picture) const;
    void send(const Picture& picture, Standing standing);
    void sendHeld(bool last, bool gap);
    void reachedEnd(int64_t nowUs);
    void stop(int64_t nowUs);
    bool isUnderWay() const { return m_state == State::jumping || m_state == State::starting; }
    bool isFast() const { return m_order.scale > kNormalScale || m_order.scale < 0; }
    bool isBeyond(std::optional<int64_t> time) const;
    static bool isSame(const std::optional<Picture>& one, const Picture& other);

    PlayOutput& m_out;
    State m_state = State::paused;
    int64_t m_since = 0; ///< when that began

    // Requests.
    PlayOrder m_order;               ///< being played, or played last
    std::optional<PlayOrder> m_next; ///< waits until the one before has begun, or until paused
    bool m_pauseDue = false;         ///< waits for the same
    bool m_replyDue = false;         ///< a PLAY or PAUSE waits for its reply
    int m_pending = 0;               ///< control requests under way, those for the status not counted
    std::optional<uint32_t> m_from;  ///< blocks from this one on follow all requests
    int64_t m_lastControl = 0;

    // Pictures.
    std::optional<Picture> m_shown;    ///< while paused, and not yet sent
    std::optional<Picture> m_last;     ///< seen last
    bool m_reached = true;             ///< the order's picture has come, or something behind it
    std::optional<int64_t> m_sentTime; ///< of the picture sent last
    std::optional<Picture> m_held;
    Standing m_heldStanding;
    bool m_discontinuity = true;
    bool m_lost = false;       ///< pictures before the next I-picture can't be decoded
    bool m_ended = false;      ///< the end of the range has been passed
    int64_t m_lastPicture = 0; ///< when it came
    int m_pauses = 0;          ///< PAUSE blocks in a row while playing
    bool m_asked = false;      ///< the status, about those
};

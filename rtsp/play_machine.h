// PLAY and PAUSE, as a machine: it is fed requests of one client, what came of control requests, blocks of
// the output memory and the time, and gives control requests, replies and pictures to send. Pure: no I/O, no
// clock of its own.
//
//   play elsewhere, ┌─────────┐ there  ┌──────────┐ its first block
//   then a scale ──▶│ jumping │───────▶│ starting │────────────────▶ playing ──▶ edge (again, or bye)
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
#include <vector>

#include "rtsp/picture_sieve.h"

class PlayMachine {
public:
    explicit PlayMachine(PlayOutput& output) : m_out(output), m_sieve(output) {}

    /// A block, `picture` none for one that says PAUSE.
    void block(uint32_t sequence, const Picture* picture, int64_t nowUs);
    /// A control request has been taken when `newest` was the newest block; `status` is the word of its
    /// answer.
    void controlDone(int32_t type, uint32_t newest, const std::string& status, int64_t nowUs);
    /// These two only while not `busy`.
    void play(const PlayOrder& order, int64_t nowUs);
    void pause(int64_t nowUs);
    /// Pauses without a reply, and sends nothing more.
    void halt(int64_t nowUs);
    /// To be called some ten times a second.
    void tick(int64_t nowUs);
    /// Play follows the recorder: from `now` on, and once it has come to the edge.
    bool follows() const;
    /// Only while it follows: pictures behind the one that came last, up to an I-picture. They are sent at
    /// once, and the daemon goes on from there; `clock` is the time of the last one, as PlayOrder has it.
    void catchUp(std::vector<Picture> pictures, const std::string& clock, int64_t nowUs);
    /// Pictures could not be sent: the next one that is, is an I-picture.
    void picturesLost() { m_sieve.lose(); }

    /// A PLAY or PAUSE has not been answered yet.
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
    void goElsewhere(int64_t nowUs);
    void start(int64_t nowUs);
    void takeUp(int64_t nowUs);
    void giveUpWaiting(int64_t nowUs);
    void answer(bool firstFollows, std::optional<int64_t> from);
    void pictureCame(const Picture& picture, bool follows, int64_t nowUs);
    void pauseCame(bool follows, int64_t nowUs);
    void arrived(const Picture& picture, bool follows, bool wasSeen, int64_t nowUs);
    bool leadsUp(const Picture& picture) const;
    bool leaps(const Picture& from, const Picture& to) const;
    bool isFirst(const Picture& picture, bool follows);
    void first(const Picture& picture, int64_t nowUs);
    void emit(const Picture& picture, int64_t nowUs);
    void reachedEnd(int64_t nowUs);
    void endOfRecording(int64_t nowUs);
    void stop(int64_t nowUs);
    bool isUnderWay() const { return m_state == State::jumping || m_state == State::starting; }
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
    std::optional<Picture> m_shown;  ///< while paused, and not yet sent
    std::optional<Picture> m_passed; ///< not certain to be the order's, and not sent
    std::optional<Picture> m_last;   ///< seen last
    bool m_reached = true;           ///< the order's picture has come, or something behind it
    PictureSieve m_sieve;
    bool m_ended = false;      ///< the end of the range has been passed
    bool m_atEdge = false;     ///< the order's play has been at the live edge
    bool m_cutOff = false;     ///< while catching up: the play before may still bring pictures
    int64_t m_lastPicture = 0; ///< when it came
    int m_pauses = 0;          ///< PAUSE blocks in a row while playing
    bool m_asked = false;      ///< the status, about those
};

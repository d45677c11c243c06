// A rich recording, and the words in which a table tells how play moves through it.
#pragma once

#include <optional>
#include <span>

#include "shm/shm_server.h"
#include "tests/engine/engine_fixture.h"

namespace test {

struct Place {
    uint32_t stream = 0, picture = 0;
    bool operator==(const Place&) const = default;
};

/// Where a row begins: in a session just opened, stepped to the picture; or where the row before has ended.
struct Start {
    Place place;
    unsigned long skipMs = 0; ///< as an FFTime request gives it; 0 = none
};
inline constexpr Start then{};
constexpr Start on(uint32_t stream, uint32_t picture = 0, unsigned long skipMs = 0) {
    return {{stream, picture}, skipMs};
}

/// A play request's header, its clock times as "clock=12:00:04", and how many passes follow it. Others that
/// go by a name: "Play" without a header, "Pause", "Wait" for no request at all; and what the recorder does:
/// "Grow" by so many pictures, "Begin" the next stream with so many once the present one is finished.
struct Request {
    const char* name;
    const char* value = "";
    int passes = 1;
};
inline constexpr int kUntilRest = -1; ///< until a pass ends paused
inline constexpr Request play{"Play"}, pause{"Pause"}, wait{"Wait"};

/// Play type, and the word that a status query is answered with.
struct State {
    PBTYPE type;
    const char* word;
};
inline constexpr State kPlays{PB_NORMAL, "play"}, kSlow{PB_SLOW, "play"}, kFast{PB_FF, "play"},
    kReverse{PB_REW, "play"}, kSlowReverse{PB_SLOW_REW, "play"}, kPaused{PB_PAUSE, "pause"},
    kAtEnd{PB_PAUSE, "pause(eof)"}, kAtStart{PB_PAUSE, "pause(sof)"};

/// The last pass's block, the picture landed on or PAUSE, and how far it moved the time stamp.
struct Output {
    bool picture = false;
    std::optional<uint32_t> increment = 0; ///< none = between two scales, where a distance says nothing
};
inline constexpr Output still{}, shownFromOtherScale{true, std::nullopt};
constexpr Output shown(uint32_t increment) {
    return {true, increment};
}

struct Move {
    const char* what;
    Start from;
    Request request;
    Place lands;
    State state;
    Output output;
    const char* says = nullptr; ///< a message logged on the way
};

/// Finished streams of many kinds, listed where it is made, and alarms. `live` adds a stream behind them that
/// is being recorded.
class Recording {
public:
    explicit Recording(bool live = false);
    void grow(uint32_t pictures);
    void beginNext(uint32_t pictures);
    /// The picture that a block shows; fails the test unless its bytes are the picture's.
    Place identify(const std::string& block);
    CtavirnShmServer* recorder() { return segment.m_status ? &segment : nullptr; }

private:
    void publish();
    World world;
    Card card{world};
    LogRecorder log; // keeps the log from syslog
    CtavirnShmServer segment;
    uint32_t m_live = 0; ///< the stream under recording

    friend void expectMoves(Recording& recording, std::span<const Move> rows);
};

/// A session that requests are made of one after the other.
class Session {
public:
    Session(Recording& recording, Start start);
    void run(const Request& request);
    Place place();
    const char* statusWord();
    /// The pictures shown since the start, in order: "1:0-99 2:0-3".
    std::string pictures() const;

    Engine engine;
    std::string block;      ///< of the last pass
    uint32_t increment = 0; ///< of its time stamp

private:
    Recording& m_recording;
    std::vector<Place> m_shown;
};

/// Runs the rows in order.
void expectMoves(Recording& recording, std::span<const Move> rows);

} // namespace test

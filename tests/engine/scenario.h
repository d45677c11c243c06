// A rich recording, and the words in which a table tells how play moves through it.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "shm/shm_server.h"
#include "tests/engine/engine_fixture.h"

namespace test {

/// A picture of a stream.
struct Place {
    uint32_t stream = 0;
    uint32_t picture = 0;
    bool operator==(const Place&) const = default;
};

/// Where a row begins: in a session just opened, stepped to the picture, or where the row before has ended.
struct Start {
    Place place;
    unsigned long skipMs = 0; ///< as an FFTime request gives it; 0 = none
};
inline constexpr Start then{};
constexpr Start on(uint32_t stream, uint32_t picture = 0, unsigned long skipMs = 0) {
    return {{stream, picture}, skipMs};
}

/// What the client asks for, or the recorder does, before that many passes are made.
struct Request {
    int32_t type = 0; ///< of an rtsp_request, 0 = none
    Headers headers;
    int passes = 1;
    uint32_t grows = 0;  ///< pictures that the stream under recording gets
    uint32_t begins = 0; ///< pictures of the next stream, once the one under recording is finished
};
inline constexpr int kUntilRest = -1;
Request play(int passes = 1);
Request scale(const char* value, int passes = 1);
Request step(int count);
Request jump(const char* where);
Request clockJump(const char* time); ///< "12:00:04"
Request range(const char* time);
Request pause();
Request waits(int passes = 1);
Request recorderGrows(uint32_t pictures, int passes = 1);
Request recorderBegins(uint32_t pictures, int passes = 1);

/// Play type, and the word that a status query is answered with.
struct State {
    PBTYPE type;
    const char* word;
};
inline constexpr State kPlays{PB_NORMAL, "play"}, kSlow{PB_SLOW, "play"}, kFast{PB_FF, "play"},
    kReverse{PB_REW, "play"}, kSlowReverse{PB_SLOW_REW, "play"}, kPaused{PB_PAUSE, "pause"},
    kAtEnd{PB_PAUSE, "pause(eof)"}, kAtStart{PB_PAUSE, "pause(sof)"};

/// The last pass's block: the picture landed on, or PAUSE; and how far it moved the time stamp.
struct Output {
    bool picture = false;
    std::optional<uint32_t> increment =
        0; ///< none = picture times of two scales, whose distance says nothing
};
inline constexpr Output still{};
constexpr Output shown(uint32_t increment) {
    return {true, increment};
}
inline constexpr Output shownFromOtherScale{true, std::nullopt};

struct Move {
    const char* what;
    Start from;
    Request request;
    Place lands;
    State state;
    Output output;
    const char* says = nullptr; ///< a message logged on the way
};

/// Streams of many kinds (scenario.cpp lists them) and alarms, all finished; with `live`, one more behind
/// them that is being recorded.
class Recording {
public:
    explicit Recording(bool live = false);

    void grow(uint32_t pictures);
    void beginNext(uint32_t pictures);
    /// The picture whose bytes these are; fails the test when they are not whole.
    Place identify(const std::string& block);

    World world;
    Card card{world};
    CtavirnShmServer segment;

private:
    void publish();
    uint32_t m_live = 0; ///< the stream under recording
};

/// A session that rows drive one after the other.
class Session {
public:
    Session(Recording& recording, Start start);
    void run(const Request& request);

    Place place();
    const char* statusWord();
    /// The pictures shown since the start, in order: "1:0-99 2:0-3".
    std::string pictures() const;

    Engine engine;
    std::optional<Place> lastShown;  ///< by the last pass
    std::string lastBlock;           ///< of the last pass
    uint32_t lastIncrement = 0;      ///< of the last pass
    std::vector<int64_t> lastSleeps; ///< of the last request's passes, in microseconds

private:
    void pass();
    Recording& m_recording;
    std::vector<Place> m_shown;
};

/// Runs the rows in order over one recording.
void expectMoves(Recording& recording, const std::vector<Move>& rows);

} // namespace test

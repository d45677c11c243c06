// A rich recording, and the words in which a table tells how play moves through it.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>

#include "shm/shm_server.h"
#include "tests/engine/engine_fixture.h"

namespace test {

using Place = std::pair<uint32_t, uint32_t>; ///< stream and picture

/// Where a row begins: in a session just opened, stepped to the picture; or where the row before has ended.
struct Start {
    Place place;
    unsigned long skipMs = 0; ///< as an FFTime request gives it; 0 = none
};
inline constexpr Start then{};
constexpr Start on(uint32_t stream, uint32_t picture = 0, unsigned long skipMs = 0) {
    return {{stream, picture}, skipMs};
}

/// A play request's header, and how many passes follow it. Others that go by a name: "Play" without a header,
/// "Pause", "Wait" for no request at all; "Clock" sets the wall clock by so many ms.
struct Request {
    const char* name;
    const char* value = "";
    int passes = 1;
};
inline constexpr int kUntilRest = -1; ///< until a pass ends paused
inline constexpr Request play{"Play"}, pause{"Pause"}, wait{"Wait"};

/// Play type and, where that is a pause, its reason.
using State = std::pair<int, int>;
inline constexpr State kPlays{PB_NORMAL, 0}, kSlow{PB_SLOW, 0}, kFast{PB_FF, 0}, kReverse{PB_REW, 0},
    kSlowReverse{PB_SLOW_REW, 0}, kPaused{PB_PAUSE, kPauseNone}, kAtEnd{PB_PAUSE, kPauseEnd},
    kAtStart{PB_PAUSE, kPauseStart};

inline constexpr uint32_t still = 0;

/// What is logged of the time that a play request has aimed at.
inline std::string aims(const char* clock) {
    return "m_pbStreamTime = " + std::to_string(at(clock).sec) + "\n";
}

struct Move {
    const char* what;
    Start from;
    Request request;
    Place lands;
    State state;
    uint32_t moved; ///< the time stamp, by the last pass, whose block is the picture; `still`: it is PAUSE
    std::string says = ""; ///< logged on the way, perhaps among others
};

/// Finished streams of many kinds, alarms, and a session that requests are made of one after the other.
class Scenario : public EngineTest {
protected:
    Scenario() {
        setenv("TZ", "JST-9", 1); // a clock text is local time, though it ends with a Z
        tzset();
        stream(1, "12:00:00", 30, 40).pictures(100).closed();                      // to 12:00:03.300
        stream(2, "12:00:03.400", 25, 15).pictures(100).pictureSize(900).closed(); // to 12:00:07.360
        EXPECT_TRUE(card.writer().placement().wrapped) << "its pictures go on at the chunk's start";
        stream(3, "12:00:07.600", 10, 10).pictures(50).closed(); // to 12:00:12.500
        // A gap of an hour. Then stream 5 begins inside stream 4.
        stream(4, "13:00:00", 5, 10).pictures(100).closed(); // to 13:00:19.800
        stream(5, "13:00:15", 1, 5).pictures(30).closed();   // to 13:00:44
        // A time scale of its own, no frame-rate code and too few bytes to tell a rate. Its end is the next
        // one's start, where nothing counts as recorded.
        stream(6, "13:01:00", 25, 25).frameSet(0).firstPts(1'000'000).pictures(76).closed(); // to 13:01:03
        stream(7, "13:01:03", 10, 10).pictures(20).closed(); // to 13:01:04.900
        card.sql("UPDATE STREAM SET recSize = 2 * (streamID = 6) WHERE streamID IN (6, 7)");
        // Stream 9 has one I-picture, further than a search goes; it begins inside 8 and holds all of 10.
        stream(8, "13:02:57", 10, 50).pictures(50).closed();              // to 13:03:01.900
        stream(9, "13:03:00", 10, 10).firstI(290).pictures(300).closed(); // to 13:03:29.900
        stream(10, "13:03:02", 10, 10).pictures(29).closed();             // to 13:03:04.800
        stream(11, "13:04:00", 10, 10).firstPts(0).pictures(50).closed(); // to 13:04:04.900
        // A search for its end finds the picture before the last, which is near enough.
        stream(12, "13:05:00", 30, 30).pictures(101).closed(); // to 13:05:03.333

        card.alarm("12:00:01.500", "12:00:02");
        card.alarm("13:00:38", "13:00:39");
    }
    /// Adds a stream that is being recorded.
    void beginRecording() {
        card.alarm("13:06:03", "13:06:04");
        segment.openStatus(world.statusKey());
        stream(13, "13:06:00", 10, 10).pictures(50).recording(); // to 13:06:04.900 so far
        publish(13);
    }
    /// Opens a session and steps it to the picture.
    void begin(Start start) {
        engine = std::make_unique<Engine>(start.place.first, segment.m_status ? &segment : nullptr);
        EXPECT_EQ(engine->preGetData(), 1);
        if (start.skipMs != 0) engine->setFFSkipTime(start.skipMs);
        run(wait); // paused, until the client says play
        if (start.place.second != 0) run({"Step", std::to_string(start.place.second).c_str()});
        EXPECT_EQ(place(), start.place);
        shown.clear();
        m_last = {};
    }
    void run(const Request& request) {
        const std::string name = request.name;
        if (name == "Clock") {
            simulated::advanceUs(std::stol(request.value) * 1000);
        } else if (name != "Wait") {
            ControlRequest asked(name == "Pause" ? RTSP_REQ_PAUSE : RTSP_REQ_PLAY);
            asked.with("Session", "7").with(name, request.value);
            if (name != "Play") asked.with("Scale", "-3"); // the first keyword decides
            engine->analyzeEventData(&asked.record);
        }
        for (int passes = 0; passes != request.passes && passes < 3000; ++passes) {
            const uint32_t before = engine->m_timestamp;
            block = engine->turn();
            increment = engine->m_timestamp - before;
            if (block != kPauseBlock) note(identify(block));
            if (request.passes == kUntilRest && engine->getCurrentPlayMode() == PB_PAUSE) break;
        }
    }
    /// Runs the rows in order.
    void expectMoves(const std::vector<Move>& rows) {
        for (const Move& row : rows) {
            SCOPED_TRACE(row.what);
            if (row.from.place.first != 0) begin(row.from);
            log.clear();
            run(row.request);
            EXPECT_NE(log.dump().find(row.says), std::string::npos) << row.says;
            const int type = engine->getCurrentPlayMode();
            EXPECT_EQ(State(type, type == PB_PAUSE ? engine->getCurrentPauseMode() : 0), row.state);
            EXPECT_EQ(block == kPauseBlock ? Place{} : identify(block), row.moved ? row.lands : Place{});
            EXPECT_EQ(increment, row.moved);
            EXPECT_EQ(place(), row.lands);
        }
    }
    /// The recorder writes so many more, and playback makes some passes.
    void grow(uint32_t pictures, int passes = 1) {
        card.grow(pictures);
        publish(segment.m_status->recStreamID);
        run({"Wait", "", passes});
    }
    /// It ends its stream and begins stream 14.
    void beginNext(uint32_t pictures) {
        const uint64_t from = atMs("13:06:00") + card.writer().pictures() * 100;
        card.finish();
        card.stream(14).fromMs(from).firstPts(from).fps(10).gop(10).pictures(pictures).recording();
        publish(14);
    }

    CtavirnShmServer segment;
    std::unique_ptr<Engine> engine;
    std::string shown; ///< the pictures since the session began, in order: "1:0-99 2:0-3 "

private:
    /// Its time stamps are the wall clock's, as far as nothing else is said.
    StreamBuilder stream(uint32_t id, const char* from, double fps, uint32_t gop) {
        return card.stream(id).from(from).firstPts(atMs(from)).fps(fps).gop(gop);
    }
    void publish(uint32_t id) {
        segment.m_status->recStreamID = id;
        segment.m_status->recPictures = card.writer().pictures();
    }
    void note(Place next) {
        const std::string picture = std::to_string(next.second);
        if (m_last == Place{next.first, next.second - 1})
            shown.erase(shown.rfind('-'));
        else
            shown += std::to_string(next.first) + ":" + picture;
        shown += "-" + picture + " ";
        m_last = next;
    }
    Place place() {
        DB_STREAM db;
        engine->video().getDb(&db);
        return {db.streamID, static_cast<uint32_t>(engine->video().getOffset())};
    }
    /// The picture that a block shows; fails the test unless its bytes are the picture's.
    Place identify(const std::string& bytes) {
        Place named;
        const char* const name = bytes.c_str() + std::min(bytes.find(" stream "), bytes.size());
        EXPECT_EQ(std::sscanf(name, " stream %u picture %u ", &named.first, &named.second), 2);
        const PICTURE_HEADER header = card.pictureHeader(named.first, named.second);
        EXPECT_EQ(bytes, pictureBytes(named.first, named.second, isIPicture(header), header.size));
        return named;
    }

    std::string block;      ///< of the last pass
    uint32_t increment = 0; ///< of its time stamp
    Place m_last;           ///< shown
};

} // namespace test

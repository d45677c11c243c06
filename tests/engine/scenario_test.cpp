// Every way to move through a recording, and how a session lapses. scenario.h lists the streams; increments
// are in units of 90 kHz.
#include <unistd.h>

#include "platform/kw_com.h"
#include "platform/paths.h"
#include "tests/engine/scenario.h"

namespace test {

TEST_F(Scenario, PlayAndSteps) {
    expectMoves({
        {"pause before anything was played", on(2), pause, {2, 0}, kPaused, still},
        {"loses nothing: it goes out before the first move", then, play, {2, 0}, kPlays, 3600},
        {"and its time counts", then, play, {2, 1}, kPlays, 3600, aims("12:00:03")},
        {"the end", on(12, 100), play, {12, 100}, kAtEnd, still, "m_moveStream error!"},

        {"none shows it again", on(2, 3), {"Step", "0"}, {2, 3}, kPaused, 3600},
        {"one back is back to an I-picture", then, {"Step", "-1"}, {2, 0}, kPaused, 3600},
        {"to the only I-picture", on(9), {"Step", "-1"}, {8, 0}, kPaused, 9000, "pic id["},
        {"back past it", on(1, 50), {"Step", "-60"}, {1, 0}, kAtStart, 3000, "m_moveStreamStep error!"},
        // A step looks for its neighbour by the stamp shown last, on whatever scale it is: after 1003 s of
        // the epoch comes the whole recording. In its first second a scale from 0 tells no time at all.
        {"off a scale of its own", on(6, 75), {"Step", "1"}, {1, 0}, kPaused, 3000},
        {"off a scale from 0", on(11, 15), {"Step", "99"}, {1, 0}, kPaused, 3000},
    });
    begin(on(2)); // of what comes within a pass only the newest request counts
    for (const Request& request : {Request{"Scale", "4", 0}, {"Jump", "latest", 0}, {"Step", "7", 4}})
        run(request);
    EXPECT_EQ(shown, "2:7-7 ");
    begin(on(1));
    run({"Play", "", kUntilRest});
    EXPECT_EQ(shown, "1:0-99 2:0-99 3:0-49 4:0-99 5:0-29 6:0-75 7:0-19 8:0-49 9:0-299 11:0-49 12:0-100 ");

    card.changePicture(8, 0, [](PICTURE_HEADER& only) { only.pictures = 0; });
    expectMoves({{"none", on(9), {"Step", "-1"}, {8, 49}, kPaused, 9000, "m_moveStreamStep error!"}});
}

TEST_F(Scenario, RequestDecidesHowPlayGoes) {
    expectMoves({
        {"from 1.1 on: 1.1 s", on(2), {"Scale", "1.1"}, {2, 30}, kFast, 3600},
        {"slow reverse: half a second", on(3, 45), {"Scale", "-0.1"}, {3, 40}, kSlowReverse, 9000},
        {"reverse goes by a second", on(3, 45), {"Scale", "-1"}, {3, 30}, kReverse, 9000},
        {"two frames or more are one", on(5), {"Scale", "2.5"}, {5, 5}, kFast, 90000},
        {"skip time 333 ms at the least", on(4, 0, 100), {"Scale", "20"}, {4, 40}, kFast, 18000},
        {"1000 ms at the most", on(4, 0, 5000), {"Scale", "4"}, {4, 20}, kFast, 18000},
        {"no rate is known", on(6), {"Scale", "1.1"}, {6, 50}, kFast, 3000, "m_pbRealRate is 0"},

        {"two seconds, and on to an I-picture", on(1), {"Scale", "2"}, {1, 80}, kFast, 3000},
        {"from the time aimed at", then, wait, {2, 15}, kFast, 3600},
        {"in another stream from the picture", then, wait, {2, 75}, kFast, 3600},
        {"to the end", on(12), {"Scale", "4"}, {12, 90}, kAtEnd, 3000, "m_moveStreamTime rearch end"},
        {"nothing to show in reach", on(9, 30), {"Scale", "2"}, {12, 90}, kAtEnd, 3000},
        {"stamps start afresh: not further on", on(10), {"Scale", "60"}, {11, 20}, kFast, still},
        {"back two seconds", on(2, 50), {"Scale", "-2"}, {2, 0}, kReverse, 3600},
        {"into the stream before", then, wait, {1, 40}, kReverse, 3000},
        {"to the start", then, wait, {1, 0}, kAtStart, 3000, "m_moveStreamTime rearch start"},

        {"no clock in a range", on(2), {"Range", "npt=0-"}, {2, 0}, kPlays, 3600, "npt=0-"},
        {"a name as well", on(2), {"Scale-X", "0 .9\t"}, {2, 1}, kSlow, 7200},
        {"nothing", on(2), {"Scale", "0"}, {2, 0}, kPaused, still, " dir=0 speed=0\n"},
        {"a step's number", on(2, 3), {"Scale", "6553.5"}, {2, 3}, kPaused, 3600},
        {"no number", on(2), {"Scale", "nan"}, {2, 0}, kPaused, still},
        {"beyond every number", on(2), {"Scale", "-inf"}, {1, 0}, kAtStart, 3000, "speed=4294967295"},
        {"local", on(1), {"Range", "x clock=20240102T120005Z-"}, {2, 45}, kPlays, 468000, "124/0/2 12:0:5"},
        {"no time: before 1900", on(2), {"Jump", "clock"}, {1, 0}, kAtStart, 3000, "mktime() = -1"},
    });
}

TEST_F(Scenario, Jumps) {
    // A clock jump compares, in whole seconds, the I-picture on from the second with those back from half a
    // second and a second later, and goes to the nearest. The last search starts where they have led.
    const Request next = {"Jump", "next-alarm"}, previous = {"Jump", "prev-alarm"};
    expectMoves({
        {"at the second", on(1), {"Jump", "clock=20240102T120004Z"}, {2, 15}, kPaused, 3600},
        {"just behind a border: half", on(5), {"Jump", "clock=20240102T120003Z"}, {2, 0}, kPaused, 3600},
        {"within the second: a second", on(1), {"Jump", "clock=20240102T120008Z"}, {3, 10}, kPaused, 9000},
        {"before: next", on(5), {"Jump", "clock=20240102T130016Z"}, {5, 0}, kPaused, 90000, aims("13:00:17")},
        {"fails backward", on(2), {"Jump", "clock=20240102T130304Z"}, {1, 0}, kAtStart, 3000},

        {"the I-picture before is in its second", on(1), next, {1, 40}, kPaused, 3000},
        {"not twice; the I-picture behind is nearer", then, next, {5, 25}, kPaused, 90000, aims("13:00:40")},
        {"back", then, previous, {1, 40}, kPaused, 3000},
        {"none before", then, previous, {1, 40}, kPaused, still, aims("12:00:01")},
        {"oldest", then, {"Jump", "oldest"}, {1, 0}, kAtStart, 3000},
        {"once left, by time alone again", then, next, {1, 40}, kPaused, 3000},
        {"latest", then, {"Jump", "latest"}, {12, 90}, kAtEnd, 3000, aims("13:05:03")},
    });
}

TEST_F(Scenario, StreamUnderRecording) {
    beginRecording();
    expectMoves({
        {"play enters it, 56.667 s on", on(12, 100), play, {13, 0}, kPlays, 5100030},
        {"not recorded yet", on(1), {"Jump", "clock=20240102T130630Z"}, {13, 40}, kPaused, 9000},
        {"an alarm in it", on(12), {"Jump", "next-alarm"}, {13, 30}, kPaused, 9000},
    });

    // Nothing is lost or shown twice behind the recorder.
    begin(on(12, 98));
    run({"Play", "", kUntilRest});
    grow(10);
    run({"Play", "", 5});
    grow(7, 8);
    grow(4, 0);    // and, before that is seen,
    beginNext(20); // the stream being played is closed
    run({"Wait", "", 2});
    grow(3, kUntilRest);
    grow(4);
    run({"Play", "", kUntilRest});
    EXPECT_EQ(shown, "12:99-100 13:0-70 14:0-26 ");
}

TEST_F(Scenario, APictureThatCannotBeReadIsTriedAgain) {
    begin(on(1));
    card.changePicture(1, 0, [](PICTURE_HEADER& unreadable) { unreadable.size = 4; });
    run({"Jump", "oldest", 0});
    EXPECT_EQ(engine->turn() + engine->turn(), "") << "not PAUSE";
    card.changePicture(12, 90, [](PICTURE_HEADER& beyond) { beyond.offset = UINT32_MAX; });
    run({"Jump", "latest", 0});
    EXPECT_EQ(engine->turn(), "");
    EXPECT_NE(log.dump().find("m_pbType changed. streamID=1 pbTime="), std::string::npos);
}

TEST_F(Scenario, PausesBetweenPictures) {
    const Request twice = {"Play", "", 2}, six = {"Scale", "6", 2};
    const struct {
        const char* what;
        Start from;
        std::vector<Request> requests;
        std::vector<int64_t> sleeps; ///< the last ones, microseconds
    } rows[] = {
        {"paused", on(2), {wait, wait}, {100000, 20000, 100000, 20000}},
        // Where the clocks part they are taken together again, before that pass's own pause.
        {"over the gap", on(3, 47), {{"Play", "", 5}}, {100000, 10, 100000, 10, 199990}},
        {"slow", on(2), {{"Scale", "0.5", 4}}, {100000, 10, 80000, 80000}},
        {"range: afresh",
         on(2),
         {play, play, {"Range", "clock=20240102T120005Z", 3}},
         {10, 40000, 10, 40000}},
        {"early by just under a GOP", on(5), {twice, {"Clock", "-3999", 2}}, {4999000, 1000000}},
        {"early by a GOP", on(5), {twice, {"Clock", "-4000", 2}}, {10, 999990}},
        {"late by just under a GOP", on(5), {twice, {"Clock", "5999", 2}}, {10, 10}},
        {"late by a GOP", on(5), {twice, {"Clock", "6000", 2}}, {10, 999990}},
        {"new stream, short pause", on(1, 98), {twice, {"Clock", "-899", 2}}, {999000, 40000}},
        {"new stream, long pause", on(1, 98), {twice, {"Clock", "-900", 2}}, {1000000, 10}},
        // Of 1.333 and 3.733 s shown at twice the speed, in steps of 10 ms; never more than a second.
        {"fast", on(1), {{"Scale", "2", 4}}, {100000, 1000000, 660000, 1000000}},
        {"fast, late: half a GOP", on(5), {six, {"Clock", "3000"}}, {1000000, 41000}},
        {"no rate is known", on(6), {{"Scale", "1.1", 2}, {"Clock", "3000"}}, {1000000, 37000}},
        {"half the skip time", on(5, 29, 400), {{"Scale", "-0.5", 2}, {"Clock", "4000"}}, {400000, 200000}},
        {"faster than 32 bits tell", on(2), {{"Scale", "214748364.8", 2}, {"Clock", "9000"}}, {1000000, 0}},
    };
    for (const auto& row : rows) {
        begin(row.from);
        simulated::takeSleepsUs();
        for (const Request& request : row.requests) run(request);
        std::vector<int64_t> sleeps = simulated::takeSleepsUs();
        sleeps.erase(sleeps.begin(), sleeps.end() - std::min(std::ssize(sleeps), std::ssize(row.sleeps)));
        EXPECT_EQ(sleeps, row.sleeps) << row.what;
    }
}

TEST_F(EngineTest, TeardownIsTriedFromSecond61UntilItIsDelivered) {
    Engine byHand(1); // without its thread and without output memory
    byHand.setKeepAlive(7);
    int listening = -1;
    for (const int second : {0, 60, 61, 62, 63, 64}) {
        if (second == 63) listening = s_create_serv_socket(paths().controlSocket);
        if (second == 64) close(listening);
        byHand.pass(byHand.m_buffer.data());
        simulated::advanceUs(second == 0 ? 60'000'000 : 1'000'000);
    }
    EXPECT_EQ(log.count(3, "s_connect_serv error", "m_sendTeardown"), 2) << log.dump();
    EXPECT_EQ(log.count(3, "shm_write_data error", "pickerThread"), 6) << log.dump();
}

} // namespace test

// Every way to move through a recording. scenario.h lists the streams; increments are in units of 90 kHz.
#include "tests/engine/scenario.h"

namespace test {

TEST(Scenario, ScaleDecidesHowPlayGoes) {
    Recording recording;
    const Move rows[] = {
        {"opened without an I-picture in reach: the first picture", on(9), wait, {9, 0}, kPaused, still},
        {"the picture found goes out before the first move", on(2), play, {2, 0}, kPlays, shown(3600)},
        {"then each picture", then, wait, {2, 1}, kPlays, shown(3600)},
        {"pause", then, pause, {2, 1}, kPaused, still},
        {"play goes on", then, play, {2, 2}, kPlays, shown(3600)},
        {"pause before anything was played", on(2), pause, {2, 0}, kPaused, still},
        {"loses nothing", then, play, {2, 0}, kPlays, shown(3600)},
        {"no clock in a range", on(2), {"Range", "npt=0-"}, {2, 0}, kPlays, shown(3600)},
        {"a jump nobody knows", on(2), {"Jump", "somewhere"}, {2, 0}, kPlays, shown(3600)},
        {"a scale moves at once", on(2), {"Scale", "1"}, {2, 1}, kPlays, shown(3600)},
        {"below 1.1", on(2), {"Scale", "1.09"}, {2, 1}, kPlays, shown(3600)},
        {"from 1.1 on: 1.1 s", on(2), {"Scale", "1.1"}, {2, 30}, kFast, shown(3600)},
        {"slow is half speed", on(2), {"Scale", "0.1"}, {2, 1}, kSlow, shown(7200)},
        {"however slow", on(2), {"Scale", "0.99"}, {2, 1}, kSlow, shown(7200)},
        {"too slow is pause", on(2), {"Scale", "0.09"}, {2, 0}, kPaused, still},
        {"slow reverse: half a second", on(3, 45), {"Scale", "-0.1"}, {3, 40}, kSlowReverse, shown(9000)},
        {"to the I-picture before", then, wait, {3, 30}, kSlowReverse, shown(9000)},
        {"which half a second on is the same", then, wait, {3, 30}, kSlowReverse, still},
        {"until the next", then, wait, {3, 20}, kSlowReverse, shown(9000)},
        {"just below 1.0", on(3, 45), {"Scale", "-0.99"}, {3, 40}, kSlowReverse, shown(9000)},
        {"reverse goes by a second", on(3, 45), {"Scale", "-1"}, {3, 30}, kReverse, shown(9000)},
        {"two frames or more are one", on(5), {"Scale", "2"}, {5, 5}, kFast, shown(90000)},
        {"less counts in full: 10 s at 6x", on(5), {"Scale", "6"}, {5, 10}, kFast, shown(150000)},
        {"skip time 333 ms at the least", on(4, 0, 100), {"Scale", "20"}, {4, 40}, kFast, shown(18000)},
        {"500 ms", on(4, 0, 500), {"Scale", "4"}, {4, 10}, kFast, shown(18000)},
        {"1000 ms at the most", on(4, 0, 5000), {"Scale", "4"}, {4, 20}, kFast, shown(18000)},
    };
    expectMoves(recording, rows);
}

TEST(Scenario, PlayCrossesBordersAndStopsAtTheEnd) {
    Recording recording;
    const Move rows[] = {
        {"into the next stream", on(1, 99), play, {2, 0}, kPlays, shown(9000)},
        {"slowly", on(1, 99), {"Scale", "0.5"}, {2, 0}, kSlow, shown(18000)},
        {"over the gap: 59:47.500", on(3, 49), play, {4, 0}, kPlays, shown(322875000)},
        {"back to the start of an overlap", on(4, 99), play, {5, 0}, kPlays, shown(90000)},
        {"start at the very end", on(6, 75), play, {7, 0}, kPlays, shownFromOtherScale},
        {"past a stream inside", on(9, 299), play, {11, 0}, kPlays, shown(9000)},
        {"the end", on(12, 100), play, {12, 100}, kAtEnd, still, "m_moveStream error!"},
        {"again", then, play, {12, 100}, kAtEnd, still},
        {"pause keeps the reason", then, pause, {12, 100}, kAtEnd, still},
        {"back", then, {"Scale", "-1"}, {12, 60}, kReverse, shown(3000)},
    };
    expectMoves(recording, rows);
    Session session(recording, on(1));
    session.run({"Play", "", kUntilRest});
    EXPECT_EQ(session.pictures(),
              "1:0-99 2:0-99 3:0-49 4:0-99 5:0-29 6:0-75 7:0-19 8:0-49 9:0-299 11:0-49 12:0-100 ");
}

TEST(Scenario, Steps) {
    Recording recording;
    const Move rows[] = {
        {"three on", on(2), {"Step", "3"}, {2, 3}, kPaused, shown(3600)},
        {"and that was all", then, wait, {2, 3}, kPaused, still},
        {"none", then, {"Step", "0"}, {2, 3}, kPaused, shown(3600)},
        {"one back is back to an I-picture", then, {"Step", "-1"}, {2, 0}, kPaused, shown(3600)},
        {"at the start back to the last one before", then, {"Step", "-1"}, {1, 80}, kPaused, shown(3000)},
        {"on to the last", then, {"Step", "19"}, {1, 99}, kPaused, shown(3000)},
        {"and over", then, {"Step", "1"}, {2, 0}, kPaused, shown(3600)},
        {"six back to an I-picture", on(2, 35), {"Step", "-6"}, {2, 15}, kPaused, shown(3600)},
        {"back past the start", on(2, 5), {"Step", "-7"}, {1, 80}, kPaused, shown(3000)},
        {"on past the end, into an overlap", on(4, 50), {"Step", "200"}, {5, 0}, kPaused, shown(90000)},
        {"back to an end at the very start", on(7), {"Step", "-1"}, {6, 75}, kPaused, shown(3600)},
        {"back past an empty stream", on(8), {"Step", "-1"}, {6, 75}, kPaused, shown(3600)},
        {"the start", on(1), {"Step", "-1"}, {1, 0}, kAtStart, still, "m_moveStreamStep error!"},
        {"a step forgets it", then, {"Step", "1"}, {1, 1}, kPaused, shown(3000)},
        {"back past it", on(1, 50), {"Step", "-60"}, {1, 0}, kAtStart, shown(3000)},
        {"the end", on(12, 100), {"Step", "1"}, {12, 100}, kAtEnd, still, "m_moveStreamStep error!"},
        {"on past it", on(12, 50), {"Step", "60"}, {12, 100}, kAtEnd, shown(3000)},
        // A step looks for its neighbour by the stamp shown last, on whatever scale it is: after 1003 s of
        // the epoch comes the whole recording. In its first second a scale from 0 tells no time at all.
        {"off a scale of its own", on(6, 75), {"Step", "1"}, {1, 0}, kPaused, shown(3000)},
        {"off a scale from 0", on(11, 15), {"Step", "99"}, {1, 0}, kPaused, shown(3000)},
        {"off its first second", on(11, 5), {"Step", "99"}, {12, 0}, kPaused, shown(3000)},
    };
    expectMoves(recording, rows);
}

TEST(Scenario, FastPlayGoesByTime) {
    Recording recording;
    const Move rows[] = {
        {"two seconds, and on to an I-picture", on(1), {"Scale", "2"}, {1, 80}, kFast, shown(3000)},
        {"from the time aimed at", then, wait, {2, 15}, kFast, shown(3600)},
        {"in another stream from the picture", then, wait, {2, 75}, kFast, shown(3600)},
        {"and so on, over the gap", then, {"Wait", "", 3}, {4, 0}, kFast, shown(18000)},
        {"no I-picture further on: the last", on(3, 35), {"Scale", "1.1"}, {3, 40}, kFast, shown(9000)},
        {"not quite two seconds", on(1), {"Scale", "1.9"}, {1, 80}, kFast, shown(3000)},
        {"turned round, from the time aimed at", then, {"Scale", "-1"}, {1, 0}, kReverse, shown(3000)},
        {"to the end", on(12), {"Scale", "4"}, {12, 90}, kAtEnd, shown(3000), "m_moveStreamTime rearch end"},
        {"minute by minute", on(1), {"Scale", "60", kUntilRest}, {12, 90}, kAtEnd, shown(3000)},
        {"to a start, not an end", on(5), {"Scale", "48"}, {7, 0}, kFast, shown(9000)},
        {"nothing to show in reach", on(9, 30), {"Scale", "2"}, {12, 90}, kAtEnd, shown(3000)},
        {"just in reach", on(9, 31), {"Scale", "2"}, {9, 290}, kFast, shown(9000)},
        {"stamps start afresh: not further on", on(10), {"Scale", "60"}, {11, 20}, kFast, still},

        {"back two seconds", on(2, 50), {"Scale", "-2"}, {2, 0}, kReverse, shown(3600)},
        {"into the stream before", then, wait, {1, 40}, kReverse, shown(3000)},
        {"to the start", then, wait, {1, 0}, kAtStart, shown(3000), "m_moveStreamTime rearch start"},
        {"fast play leaves it", then, {"Scale", "2"}, {1, 80}, kFast, shown(3000)},
        {"and forgets the reason", then, pause, {1, 80}, kPaused, still},
        {"back over the gap", on(4), {"Scale", "-2"}, {3, 40}, kReverse, shown(9000)},
        {"to the newer of two", on(7), {"Scale", "-47"}, {5, 0}, kReverse, shown(91910)}, // 48 s at 47x
        {"from stamps of its own: not further back", on(6), {"Scale", "-44"}, {5, 0}, kReverse, still},
        {"to the very end of an empty stream", on(8), {"Scale", "-112.1"}, {7, 10}, kReverse, shown(9000)},
        {"to an end, not a start", on(8), {"Scale", "-114"}, {6, 75}, kReverse, shownFromOtherScale},
        {"past an empty stream", on(8), {"Scale", "-60"}, {6, 75}, kReverse, shownFromOtherScale},
    };
    expectMoves(recording, rows);
}

TEST(Scenario, JumpsToOldestLatestAndClockTimes) {
    Recording recording;
    // A clock jump compares, in whole seconds, the I-picture on from the second with those back from half a
    // second and a second later, and goes to the nearest. The last search starts where they have led.
    const Move rows[] = {
        {"oldest", on(4, 7), {"Jump", "oldest"}, {1, 0}, kAtStart, shown(3000)},
        {"is shown again", then, {"Jump", "oldest"}, {1, 0}, kAtStart, shown(3000)},
        {"play leaves it", then, play, {1, 1}, kPlays, shown(2970)},
        {"and forgets the reason", then, pause, {1, 1}, kPaused, still},
        {"latest", then, {"Jump", "latest"}, {12, 90}, kAtEnd, shown(3000)},
        {"is not", then, {"Jump", "latest"}, {12, 90}, kAtEnd, still},
        {"play goes on behind", then, play, {12, 91}, kPlays, shown(2970)},

        {"at the second", on(1), {"Jump", "clock=12:00:04"}, {2, 15}, kPaused, shown(3600)},
        {"shown again", then, {"Jump", "clock=12:00:04"}, {2, 15}, kPaused, shown(3600)},
        {"just behind a border: half", on(5), {"Jump", "clock=12:00:03"}, {2, 0}, kPaused, shown(3600)},
        {"within the second: a second", on(1), {"Jump", "clock=12:00:08"}, {3, 10}, kPaused, shown(9000)},
        {"before: a second", on(5), {"Jump", "clock=13:00:16"}, {5, 0}, kPaused, shown(90000)},
        {"before a border", on(1), {"Jump", "clock=12:00:07"}, {2, 90}, kPaused, shown(3600)},
        {"searched on in an overlap", on(1), {"Jump", "clock=13:00:19"}, {5, 5}, kPaused, shown(90000)},
        {"a start, not an end", on(1), {"Jump", "clock=13:01:03"}, {7, 0}, kPaused, shown(9000)},
        {"the older of two", on(1), {"Jump", "clock=13:00:16"}, {4, 80}, kPaused, shown(18000)},
        {"a time stamp of 0", on(2), {"Jump", "clock=13:04:00"}, {11, 0}, kPaused, shown(9000)},
        {"early in the gap", on(1), {"Jump", "clock=12:30:00"}, {3, 40}, kPaused, shown(9000)},
        {"late in the gap", on(1), {"Jump", "clock=12:45:00"}, {4, 0}, kPaused, shown(18000)},
        // Both ends are reached by a last search that succeeds: a plain pause.
        {"before everything", on(4), {"Jump", "clock=11:00:00"}, {1, 0}, kPaused, shown(3000)},
        {"after everything", on(1), {"Jump", "clock=14:00:00"}, {12, 90}, kPaused, shown(3000)},
        // One that ends in stream 9, where nothing can be shown, goes to the end it was heading for.
        {"fails forward", on(8), {"Jump", "clock=13:03:01"}, {12, 90}, kAtEnd, shown(3000)},
        {"fails backward", on(2), {"Jump", "clock=13:03:04"}, {1, 0}, kAtStart, shown(3000)},

        {"a range is played", on(1), {"Range", "clock=12:00:05-"}, {2, 45}, kPlays, shown(468000)},
        {"from the picture found", then, wait, {2, 46}, kPlays, shown(3600)},
        {"a range further back", then, {"Range", "clock=12:00:02-"}, {1, 80}, kPlays, shown(3000)},
        {"a range in the gap", on(1), {"Range", "clock=12:45:00-"}, {4, 0}, kPlays, shown(324000000)},
        {"a range after everything", on(1), {"Range", "clock=14:00:00-"}, {12, 90}, kPlays, shown(351270000)},
        {"a range that fails", on(8), {"Range", "clock=13:03:01-"}, {12, 90}, kAtEnd, shown(3000)},
    };
    expectMoves(recording, rows);
}

TEST(Scenario, JumpsToAlarms) {
    Recording recording;
    const Request next = {"Jump", "next-alarm"}, previous = {"Jump", "prev-alarm"};
    const Move rows[] = {
        {"the I-picture before is in its second", on(1), next, {1, 40}, kPaused, shown(3000)},
        {"not twice, though its start lies ahead", then, next, {2, 15}, kPaused, shown(3600)},
        {"the I-picture behind is nearer", then, next, {3, 20}, kPaused, shown(9000)},
        {"the next that counts is in the gap", then, next, {3, 20}, kPaused, still},
        {"back", then, previous, {2, 15}, kPaused, shown(3600)},
        {"and back", then, previous, {1, 40}, kPaused, shown(3000)},
        {"none before", then, previous, {1, 40}, kPaused, still},
        {"play leaves it", then, play, {1, 41}, kPlays, shown(3060)},
        {"so that it counts again", then, next, {1, 40}, kPaused, shown(3000)},
        {"not the one stood on; stamp 0 is not shown", on(4, 40), next, {11, 0}, kPaused, still},
        {"back from it: the gap", on(4, 40), previous, {4, 40}, kPaused, still},
        {"back to it", on(4, 50), previous, {4, 40}, kPaused, shown(18000)},
        {"back past those that do not count", on(3, 49), previous, {3, 20}, kPaused, shown(9000)},
        {"none behind", on(12, 7), next, {12, 7}, kPaused, still},
        {"latest", then, {"Jump", "latest"}, {12, 90}, kAtEnd, shown(3000)},
        {"fast", on(12), {"Scale", "1.1"}, {12, 60}, kFast, shown(3000)},
        {"none behind", then, next, {12, 60}, kPaused, still},
        {"fast from there", then, {"Scale", "1.1"}, {12, 90}, kFast, shown(3000)},
    };
    expectMoves(recording, rows);
}

TEST(Scenario, StreamUnderRecording) {
    Recording recording(true);
    const Request next = {"Jump", "next-alarm"};
    const Move rows[] = {
        {"play enters it, 56.667 s on", on(12, 100), play, {13, 0}, kPlays, shown(5100030)},
        {"a time in it", on(1), {"Jump", "clock=13:06:02"}, {13, 20}, kPaused, shown(9000)},
        {"not recorded yet", on(1), {"Jump", "clock=13:06:30"}, {13, 40}, kPaused, shown(9000)},
        {"latest", on(1), {"Jump", "latest"}, {13, 40}, kAtEnd, shown(9000)},
        {"oldest", then, {"Jump", "oldest"}, {1, 0}, kAtStart, shown(3000)},
        {"fast up to now", on(13, 30), {"Scale", "4"}, {13, 40}, kAtEnd, shown(9000)},
        {"reverse out of it", on(13), {"Scale", "-2"}, {12, 90}, kReverse, shown(3000)},
        {"a step at its end", on(13, 49), {"Step", "1"}, {13, 49}, kAtEnd, still},
        {"an alarm in it", on(12), next, {13, 30}, kPaused, shown(9000)},
        {"an alarm it has not reached", then, next, {13, 30}, kPaused, still},

        {"play has caught up", on(13, 49), play, {13, 49}, kAtEnd, still},
        {"more is recorded", then, {"Grow", "10"}, {13, 49}, kAtEnd, still},
        {"the next play goes on", then, play, {13, 50}, kPlays, shown(9000)},
        {"and catches up", then, {"Wait", "", kUntilRest}, {13, 59}, kAtEnd, still},
    };
    expectMoves(recording, rows);
}

TEST(Scenario, NothingIsLostOrShownTwiceBehindTheRecorder) {
    Recording recording(true);
    Session session(recording, on(12, 98));
    session.run({"Play", "", kUntilRest});
    EXPECT_EQ(session.pictures(), "12:99-100 13:0-49 ");
    session.run({"Grow", "10"});
    session.run({"Play", "", 5});
    session.run({"Grow", "7", 8});
    session.run({"Grow", "4", 0});   // and, before that is seen,
    session.run({"Begin", "20", 2}); // the stream being played is closed
    session.run({"Grow", "3", kUntilRest});
    EXPECT_EQ(session.pictures(), "12:99-100 13:0-70 14:0-22 ");
    session.run({"Grow", "4"});
    session.run({"Play", "", kUntilRest});
    EXPECT_EQ(session.pictures(), "12:99-100 13:0-70 14:0-26 ");
}

TEST(Scenario, PausesBetweenPictures) {
    Recording recording;
    const struct {
        const char* what;
        Start from;
        std::vector<Request> requests;
        std::vector<int64_t> sleeps; ///< microseconds
    } rows[] = {
        {"paused", on(2), {wait, wait}, {100000, 20000, 100000, 20000}},
        // Where the clocks part they are taken together again, before that pass's own pause.
        {"over the gap", on(3, 47), {{"Play", "", 5}}, {100000, 10, 100000, 10, 199990}},
        // Each picture is released once the one before has had its time.
        {"slow", on(2), {{"Scale", "0.5", 4}}, {100000, 10, 80000, 80000}},
        {"a range counts afresh",
         on(2),
         {play, wait, {"Range", "clock=12:00:05", 3}},
         {100000, 10, 40000, 10, 40000}},
        // Of 1.333 and 3.733 s shown at twice the speed, in steps of 10 ms; never more than a second.
        {"fast", on(1), {{"Scale", "2", 4}}, {100000, 1000000, 660000, 1000000}},
        {"reverse", on(4, 90), {{"Scale", "-4", 3}}, {100000, 1000000, 1000000}},
        {"skip time", on(4, 0, 500), {{"Scale", "4", 3}}, {100000, 500000, 500000}},
    };
    for (const auto& row : rows) {
        Session session(recording, row.from);
        simulated::takeSleeps();
        for (const Request& request : row.requests) session.run(request);
        std::vector<int64_t> sleeps;
        for (const timeval& span : simulated::takeSleeps())
            sleeps.push_back(int64_t{span.tv_sec} * 1000000 + span.tv_usec);
        EXPECT_EQ(sleeps, row.sleeps) << row.what;
    }
}

} // namespace test

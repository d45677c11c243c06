// From alarm to alarm.
#include <filesystem>

#include "platform/paths.h"
#include "tests/stream/stream_fixture.h"

namespace {

using test::at;

TEST_F(StreamTest, AlarmsInTurn) {
    card.stream(1).from("12:00:00").fps(10).pictures(101).closed();
    card.stream(2).from("12:02:00").fps(10).pictures(50).recording();
    recorderSays(2, 50);
    card.alarm("12:00:05.500", "12:00:06");
    card.alarm("12:00:07", "12:00:08");
    card.alarm("12:01:00", "12:01:01"); // between the streams
    card.alarm("12:02:03", "12:02:04");
    card.alarm("12:02:05", "12:02:06"); // its pictures are still to come
    open(1);
    const struct {
        const char* what;
        const char *from, *reached; ///< "" = stays where it is
        unsigned char dir;
        bool forget = false; ///< the last alarm, first
    } rows[] = {
        {"the next one", "12:00:02.250", "12:00:05.500", 0},
        {"not the same again, though it is ahead", "12:00:05.400", "12:00:07", 0},
        {"back", "12:00:07", "12:00:05.500", 1},
        {"not the same again, though it is behind", "12:00:05.600", "", 1},
        {"strictly before", "12:00:05.500", "", 1, true},
        {"by time alone", "12:00:05.600", "12:00:05.500", 1, true},
        {"not in any stream", "12:00:30", "", 0},
        {"recorded just now", "12:02:00", "12:02:03", 0},
        {"not recorded yet", "12:02:03", "", 0},
    };
    PB_STREAM_TIME here = video.getTimePts();
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        if (row.forget) video.clearEventID();
        const PB_STREAM_TIME expected = *row.reached ? at(row.reached) : kNowhere;
        EXPECT_EQ(toAlarm(at(row.from), row.dir), expected) << log.dump();
        if (!expected.isNone()) here = expected;
        EXPECT_EQ(video.getTimePts(), here);
    }
    EXPECT_EQ(skip(2), kNowhere) << "no such target";
    EXPECT_TRUE(isEmpty());
}

TEST_F(StreamTest, UnreadableIndexIsRemembered) {
    card.stream(1).from("12:00:00").pictures(30).closed();
    open(1);
    EXPECT_EQ(toAlarm(at("12:00:00"), 0), kNowhere);
    EXPECT_EQ(video.getErrorflag(), 0u) << "an empty result is no error";
    card.sql("ALTER TABLE EVENT RENAME TO AWAY");
    EXPECT_EQ(toAlarm(at("12:00:00"), 0), kNowhere);
    EXPECT_EQ(video.getErrorflag(), kIndexErrorBit);
    EXPECT_FALSE(isEmpty()) << "looking for an event leaves the stream alone";
    std::filesystem::remove(paths().index);
    EXPECT_EQ(toAlarm(at("12:00:00"), 0), kNowhere);
    EXPECT_TRUE(isEmpty()) << "but not without an index";
    video.setErrorflag(kErrorKindChunk, 1);
    EXPECT_EQ(video.getErrorflag(), kIndexErrorBit | kChunkErrorBit);
}

} // namespace

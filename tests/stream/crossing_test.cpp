// What crossings, skips and alarms ask of the index, and how they treat the stream under recording.
#include <filesystem>

#include "platform/paths.h"
#include "tests/stream/stream_fixture.h"

namespace {

using test::at;

/// The text with every {S} and {M} filled in.
std::string filled(std::string text, PB_STREAM_TIME time) {
    for (const auto& [mark, value] :
         {std::pair{"{S}", time.seconds()}, std::pair{"{M}", uint32_t{time.mSec}}})
        for (size_t place; (place = text.find(mark)) != std::string::npos;)
            text.replace(place, 3, std::to_string(value));
    return text;
}

class Crossing : public StreamTest {
protected:
    /// Streams of 10 s at 10 fps: 1 and 2 join at 12:00:10, 3 follows a gap, 4 overlaps 3.
    Crossing() {
        uint32_t id = 0;
        for (const char* from : {"12:00:00", "12:00:10", "12:00:30", "12:00:35"})
            card.stream(++id).from(from).fps(10).pictures(101).closed();
    }
    /// The statements sent to the index since the last call, in order, and nothing else.
    void expectStatements(std::vector<std::string> expected, PB_STREAM_TIME time) {
        for (std::string& text : expected) text = filled(text, time);
        std::vector<std::string> sent;
        for (const test::LogLine& line : log.lines())
            if (const size_t at = line.text.find(") SELECT"); at < 24)
                sent.push_back(line.text.substr(at + 2));
        EXPECT_EQ(sent, expected);
        log.clear();
    }
    void expectAt(uint32_t stream, uint32_t picture) {
        EXPECT_EQ(db.streamID, stream) << log.dump();
        EXPECT_EQ(picH, card.pictureHeader(stream, picture));
        EXPECT_EQ(video.getOffset(), picture);
    }
};

const std::string kStream = "SELECT * FROM STREAM WHERE ";
const std::string kStarted = "(startDate < {S} OR startDate = {S} AND startMSec <= {M}) AND  ";
const std::string kNotEnded = "({S} < endDate OR {S} = endDate AND {M} < endMSec) ";
const std::string kStartedBefore = "(startDate < {S} OR startDate = {S} AND startMSec < {M}) AND  ";
const std::string kEndsThenOrLater = "({S} < endDate OR {S} = endDate AND {M} <= endMSec) ";
const std::string kAfter = "{S} < startDate OR {S} = startDate AND {M} <= startMSec ";
const std::string kEnded = "(endDate < {S} OR endDate = {S} AND endMSec <= {M}) AND recSize<>0 ";
const std::string kRecording = "({S} > startDate OR ({S} = startDate AND {M} >= startMSec)) AND status=1 ";
const std::string kAnyBefore = "{S} > startDate OR {S} = startDate AND {M} >= startMSec ";
const std::string kLowest = "ORDER BY streamID ASC LIMIT 1";
const std::string kHighest = "ORDER BY streamID DESC LIMIT 1";
const std::string kNewest = "SELECT * FROM STREAM " + kHighest;

TEST_F(Crossing, StatementsToTheLetter) {
    const PB_STREAM_TIME late = at("13:00:00.250");
    const PB_STREAM_TIME early = at("11:00:00.125");
    open(3);
    log.clear();
    over(0, late);
    EXPECT_TRUE(log.has(LOG_ERR,
                        "CPbStreamVideo::over() not found stream. timeStr=" + std::to_string(late.seconds()),
                        "over"));
    expectStatements({kStream + kStarted + kNotEnded + "AND streamID<>3 " + kLowest,
                      kStream + kAfter + "AND streamID<>3 " + kLowest, kNewest},
                     late);
    over(0, late, true);
    expectStatements({kStream + kStarted + kNotEnded + " " + kLowest, kStream + kAfter + kLowest,
                      kStream + kRecording + kLowest, kNewest},
                     late);
    over(1, early);
    expectStatements({kStream + kStartedBefore + kEndsThenOrLater + "AND streamID<>4 " + kHighest,
                      kStream + kEnded + "AND streamID<>4 " + kHighest},
                     early);
    over(1, late, true);
    expectStatements({kStream + kStartedBefore + kEndsThenOrLater + " " + kHighest,
                      kStream + kEnded + kHighest, kStream + kAnyBefore + kLowest},
                     late);
}

TEST_F(Crossing, AlarmStatementsToTheLetter) {
    const std::string next =
        "SELECT * FROM EVENT  WHERE ({S} < startDate OR {S} = startDate AND {M} < startMSec) ";
    const std::string previous =
        "SELECT * FROM EVENT  WHERE (startDate < {S} OR startDate = {S} AND startMSec < {M}) ";
    const std::string alarm = "AND ( endDate <> 0 ) AND ( 512 <= extTrg AND extTrg < 2048 ) ";
    const std::string ascending = "ORDER BY eventID ASC, startDate ASC LIMIT 1";
    const std::string descending = "ORDER BY eventID DESC, startDate DESC LIMIT 1";
    const PB_STREAM_TIME before = at("12:00:02.250");
    const PB_STREAM_TIME event = at("12:00:05.500");
    card.alarm("12:00:05.500", "12:00:06");
    open(1);
    log.clear();
    toAlarm(before, 0);
    expectStatements({filled(next + alarm + ascending, before),
                      kStream + kStarted + kNotEnded + " ORDER BY startDate DESC LIMIT 1"},
                     event);
    toAlarm(event, 0);
    expectStatements({next + alarm + "AND ( eventID > 1 ) " + ascending}, event);
    toAlarm(event, 1);
    expectStatements({previous + alarm + "AND ( eventID < 1 ) " + descending}, event);
    video.clearEventID();
    toAlarm(event, 1);
    expectStatements({previous + alarm + descending}, event);

    card.stream(5).from("12:02:00").fps(10).pictures(50).recording();
    recorderSays(5, 50);
    card.alarm("12:02:03", "12:02:04");
    card.alarm("12:02:05", "12:02:06"); // its pictures are still to come
    EXPECT_EQ(toAlarm(event, 0), at("12:02:03"));
    expectAt(5, 30);
    EXPECT_TRUE(log.has(LOG_INFO,
                        filled(kStream + "(startDate < {S} OR startDate = {S} AND startMSec <= {M}) "
                                         "AND (status = 1)  ORDER BY startDate DESC LIMIT 1",
                               at("12:02:03")),
                        "m_setSql"));
    EXPECT_EQ(toAlarm(at("12:02:03"), 0), kNowhere);
    EXPECT_EQ(video.getTimePts(), at("12:02:03")) << "stays where it was";
}

TEST_F(Crossing, UnreadableIndexIsRemembered) {
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

TEST_F(Crossing, StreamUnderRecording) {
    card.stream(5).from("12:01:00").fps(10).pictures(55).recording();
    open(4);
    recorderSays(0, 0);
    EXPECT_EQ(over(0, at("12:00:50")), -2) << "nobody records it, so it can't be followed";
    EXPECT_TRUE(log.has(LOG_ERR, "m_checkRecDB() return REC", "over")) << log.dump();
    EXPECT_EQ(skip(kSkipLatest), at("12:00:45")) << "the newest with data";
    EXPECT_EQ(skip(kSkipLatest, 4), at("12:00:41"));
    EXPECT_EQ(skip(kSkipLatest, 11), at("12:00:35")) << "never before the stream's start";

    recorderSays(5, 55);
    EXPECT_EQ(over(0, at("12:01:05.400"), true), 0) << "recorded just now";
    expectAt(5, 0);
    EXPECT_EQ(over(0), -1) << "nothing behind it";
    EXPECT_TRUE(log.has(LOG_ERR, "status : DB_STATUS_RECORDING", "over"));
    open(1);
    EXPECT_EQ(over(0, at("12:01:05.500"), true), -1) << "not recorded yet";
    EXPECT_EQ(video.m_video.db.streamID, 1u);
}

} // namespace

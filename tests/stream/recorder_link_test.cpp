// The stream that the recorder is still writing.
#include "tests/stream/stream_fixture.h"

namespace {

using test::at;

class UnderRecording : public StreamTest {
protected:
    UnderRecording() {
        card.stream(1).from("12:00:00.100").fps(10).pictures(100).firstI(3).recording();
        recorderSays(1, 100);
    }
};

TEST_F(UnderRecording, GrowsInPlace) {
    STREAM_HEADER unsealed = card.streamHeader(1);
    unsealed.cs ^= 1; // as it stands while the recorder is at it
    card.setStreamHeader(1, unsealed, false);
    ASSERT_EQ(open(1), at("12:00:00.100"));
    EXPECT_EQ(video.getOffset(), 3u)
        << "the first refresh is at picture 0, from where an I-picture is searched";
    move(PBST_FORWARD, 40);
    card.grow(30);
    recorderSays(1, 130);
    video.getDb(&db);
    video.getStH(&stH);
    EXPECT_EQ(db.chunkSize, 131u * 32);
    EXPECT_EQ(stH.pictures, 130u);
    EXPECT_EQ(PB_STREAM_TIME(db.endDate, db.endMSec), at("12:00:13"));
    EXPECT_EQ(video.getOffset(), 43u);
    EXPECT_EQ(video.m_video.picH, card.pictureHeader(1, 43));
    const WatchedReader& headers = watch(video.m_video.readPic);
    video.getDb(&db);
    EXPECT_EQ(headers.reads, 0) << "nothing new, nothing read";

    card.finish(); // seals it
    recorderSays(2, 0);
    EXPECT_EQ(move(PBST_FORWARD, 86), 129);
    EXPECT_EQ(video.m_video.db.status, 0u);
    EXPECT_EQ(move(PBST_FORWARD, 1), -1);
}

TEST_F(UnderRecording, CannotBeFollowedWithoutTheRecorder) {
    open(1);
    video.getDb(&db);
    const struct {
        uint32_t stream, pictures;
        const char* message;
    } rows[] = {{0, 100, "pelsod's streamID = 0"}, {1, 0, nullptr}, {1, 103, "m_readPic() error"}};
    for (const auto& row : rows) {
        log.clear();
        recorderSays(row.stream, row.pictures);
        EXPECT_EQ(video.m_updateRecStream(), -1);
        EXPECT_TRUE(!row.message || log.has(LOG_ERR, row.message, "m_updateRecStream")) << log.dump();
    }
    card.grow(4);
    recorderSays(1, 104);
    EXPECT_EQ(video.m_updateRecStream(), 0) << "all of it is there now";
    EXPECT_EQ(video.getOffset(), 0u) << "the first refresh after the recorder was lost begins anew";

    Stream alone(nullptr);
    EXPECT_EQ(alone.getId(1, &db, &stH, &picH, 0), kNowhere);
    EXPECT_TRUE(log.has(LOG_ERR, "shared memory error", "m_updateRecStream"));
}

TEST_F(StreamTest, SearchesAmongRecordedStreamsAndTheOneUnderRecording) {
    // Streams of 10 s at 10 fps: 3 follows a gap, 4 overlaps it.
    uint32_t id = 0;
    for (const char* from : {"12:00:00", "12:00:10", "12:00:30", "12:00:35"})
        card.stream(++id).from(from).fps(10).pictures(101).closed();
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
    EXPECT_EQ(picH, card.pictureHeader(5, 0));
    EXPECT_EQ(over(0), -1) << "nothing behind it";
    EXPECT_TRUE(log.has(LOG_ERR, "status : DB_STATUS_RECORDING", "over"));
    open(1);
    EXPECT_EQ(over(0, at("12:01:05.500"), true), -1) << "not recorded yet";
    EXPECT_EQ(video.m_video.db.streamID, 1u);
}

TEST_F(StreamTest, StandsAgainWhereItStood) {
    // Stream 1 is the oldest and never finished, 3 is under recording: its announced pictures are not there.
    card.stream(1).from("12:00:00").pictures(30).closed();
    card.sql("UPDATE STREAM SET status = 1");
    card.stream(2).from("12:01:00").fps(10).pictures(100).closed();
    card.stream(3).from("12:02:00").fps(10).pictures(100).recording();
    card.alarm("12:02:01", "12:02:02");
    const auto standsOn = [&](uint32_t picture) {
        EXPECT_EQ(video.getOffset(), picture);
        EXPECT_EQ(video.m_video.picH, card.pictureHeader(video.m_video.db.streamID, picture));
        EXPECT_EQ(video.m_video.stH.pictures, 100u);
        EXPECT_EQ(video.get(std::vector<unsigned char>(kMaxPictureBytes).data()), asLd(picture));
    };
    for (const uint32_t announced : {101u, 0u}) {
        SCOPED_TRACE(announced);
        recorderSays(3, announced);
        open(2);
        move(PBST_FORWARD, 40);
        card.sql("UPDATE STREAM SET endDate = startDate + 60 WHERE streamID = 3");
        EXPECT_EQ(toAlarm(at("12:01:30"), 0), kNowhere);
        EXPECT_EQ(video.m_video.db.streamID, 2u);
        standsOn(40);
        recorderSays(1, announced == 0 ? 0 : 31);
        EXPECT_EQ(skip(kSkipOldest), kNowhere);
        EXPECT_EQ(video.m_video.db.streamID, 2u);
        standsOn(40);
    }
    recorderSays(3, 100);
    open(3);
    move(PBST_FORWARD, 40);
    recorderSays(1, 31);
    EXPECT_EQ(skip(kSkipOldest), kNowhere);
    recorderSays(3, 100);
    standsOn(40);
    card.grow(10);
    recorderSays(3, 110);
    EXPECT_EQ(move(PBST_FORWARD, 1), 41) << "its recorder is followed as before";
}

} // namespace

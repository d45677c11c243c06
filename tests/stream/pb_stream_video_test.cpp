// What small worlds leave out: how a fault is named, a card that fails while it is read, and the recorder.
#include <filesystem>

#include "platform/paths.h"
#include "tests/stream/stream_fixture.h"

namespace {

using test::at;
using test::chunkLibrary;

class StreamTest : public testing::Test {
protected:
    StreamTest() {
        chunkLibrary = {};
        segment.openStatus(world.statusKey());
    }
    void recorderSays(uint32_t streamId, uint32_t pictures) {
        segment.m_status->recStreamID = streamId;
        segment.m_status->recPictures = pictures;
    }
    long get() { return video.get(buffer.data()); }

    test::World world;
    test::Card card{world};
    test::LogRecorder log;
    CtavirnShmServer segment;
    Stream video{&segment};
    std::vector<unsigned char> buffer = std::vector<unsigned char>(kMaxPictureBytes, '?');
};

TEST_F(StreamTest, RateIsNominalOrReckoned) {
    card.stream(1).from("12:00:00").fps(30).pictures(1200).closed();
    video.open(1);
    EXPECT_EQ(video.getFrameRate(), 300u);
    chunkLibrary.reads = 0;
    EXPECT_EQ(video.toTime(at("12:00:36")), at("12:00:36"));
    EXPECT_EQ(video.getOffset(), 1079u) << "30 pictures a second are 30000 in 1001 s";
    EXPECT_EQ(chunkLibrary.reads, 1);
    card.sql("UPDATE STREAM SET frameSet = 10, endDate = startDate + 60");
    video.open(1);
    EXPECT_EQ(video.getFrameRate(), 200u);
    card.sql("UPDATE STREAM SET endDate = startDate");
    video.open(1);
    EXPECT_EQ(video.getFrameRate(), 0u);
}

TEST_F(StreamTest, ACardThatFailsIsNamedAndShowsNothingStale) {
    card.stream(1).from("12:00:00").pictures(90).closed();
    const struct {
        bool seekFails;
        std::string get, search, header;
    } rows[] = {
        {true,
         "CStreamReadZuvo::seek() m_zuvo->seekEvent() error\n"
         "CPbStreamVideo::get() m_video.readSt->seek() error\ndsp",
         "seekEvent() error\nd",
         "Error: readPic->seekEvent error\nCPbStreamVideo::m_readPic() m_video.readPic->seek() error"},
        {false, "Pb::get() m_video.readSt->read() error\ndsp", "read() error\nd",
         "Error: readPic->read error\nCPbStreamVideo::m_readPic() m_video.readPic->read() error"},
    };
    for (const auto& row : rows) {
        video.open(1);
        chunkLibrary.seekFails = row.seekFails;
        if (!row.seekFails) chunkLibrary.readLimit = -1;
        EXPECT_EQ(get(), -1);
        EXPECT_EQ(std::count(buffer.begin(), buffer.end(), '?'), asLd(kMaxPictureBytes));
        EXPECT_EQ(video.move(PBST_FORWARD, 1, kSearchForward), -1);
        EXPECT_EQ(video.toTime(at("12:00:01")), kNowhere);
        EXPECT_EQ(said(log), row.get + "CPbStreamVideo::m_iPicSearch() m_video.readPic->" + row.search +
                                 row.header + " offset = 1\ndsp" + row.header +
                                 " offset = 30\ndspm_setOffset error\n");
        EXPECT_TRUE(log.has(LOG_INFO, "m_video.db.startDate   = 2024-01-02 12:00:00(" +
                                          std::to_string(at("12:00:00").sec) + ")"));
        chunkLibrary = {};
        log.clear();
    }
    chunkLibrary.noMemory = true;
    EXPECT_EQ(video.open(1), kNowhere);
    EXPECT_EQ(said(log), "malloc error\n");
    chunkLibrary.noMemory = false;
    video.open(1);
    chunkLibrary.readLimit = 8; // marker and id, but no flags
    EXPECT_EQ(video.move(PBST_FORWARD, 0, kSearchForward), -1);
    chunkLibrary.readLimit = 42; // of a picture
    video.open(1);
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(std::count(buffer.begin() + 42, buffer.end(), '\0'), asLd(video.out.picH.size - 42));
}

// ---- the stream that the recorder is still writing ----

TEST_F(StreamTest, FollowsTheRecorder) {
    card.stream(1).from("12:00:00.100").fps(10).pictures(100).firstI(3).recording();
    STREAM_HEADER unsealed = card.streamHeader(1);
    unsealed.cs ^= 1; // as it stands while the recorder is at it
    card.setStreamHeader(1, unsealed, false);
    recorderSays(1, 100);
    ASSERT_EQ(video.open(1), at("12:00:00.100"));
    const std::string opening = "mode 0 mode 1 1 1048576 1 1048576 ";
    EXPECT_EQ(chunkLibrary.asked, opening + opening);
    EXPECT_EQ(chunkLibrary.areasOpen, 2);
    EXPECT_EQ(video.move(PBST_FORWARD, 40), 43) << "the first refresh goes to picture 0";
    card.grow(30);
    recorderSays(1, 130);
    video.getDb(&video.out.db);
    EXPECT_EQ(video.shown().db.chunkSize, 131u * 32);
    EXPECT_EQ(video.m_stream.endTime(), at("12:00:13"));
    EXPECT_EQ(get(), 43);

    chunkLibrary = {};
    chunkLibrary.seekFails = true; // what is announced next can't be read yet
    EXPECT_EQ(video.m_updateRecStream(), 0);
    EXPECT_EQ(chunkLibrary.asked, "") << "nothing new";
    recorderSays(1, 131);
    EXPECT_EQ(video.m_updateRecStream(), 0);
    EXPECT_EQ(video.m_updateRecStream(), 0);
    EXPECT_EQ(chunkLibrary.asked, "mode 0 mode 1 1 1048576 ") << "the same count is not tried again";
    chunkLibrary.seekFails = false;
    recorderSays(1, 132);
    EXPECT_EQ(video.m_updateRecStream(), -1) << "it is not there";
    EXPECT_TRUE(log.has(LOG_ERR, "m_readPic() error", "m_updateRecStream"));
    card.grow(3);
    recorderSays(1, 133);
    EXPECT_EQ(video.move(PBST_FORWARD, 1), 132);
    EXPECT_EQ(video.m_stream.endTime(), at("12:00:13.300"));

    Stream alone(nullptr);
    EXPECT_EQ(alone.open(1), kNowhere);
    EXPECT_TRUE(log.has(LOG_ERR, "shared memory error", "m_updateRecStream"));
    log.clear();
    recorderSays(0, 133);
    EXPECT_EQ(video.toTime(at("12:00:05")), at("12:00:05"));
    const std::string lost = "pelsod's streamID = 0\n";
    EXPECT_EQ(said(log), lost + lost + lost);
    recorderSays(1, 134);
    card.grow(1);
    EXPECT_EQ(video.move(PBST_FORWARD, 1), 1) << "found again, it begins anew";

    video.move(PBST_FORWARD, 129);
    card.finish();
    STREAM_HEADER shorter = card.streamHeader(1);
    shorter.pictures = 120;
    card.setStreamHeader(1, shorter);
    recorderSays(2, 0);
    EXPECT_EQ(video.m_updateRecStream(), 0);
    EXPECT_EQ(video.m_stream.offsetAt(Direction::forward, 1), std::nullopt);
    EXPECT_EQ(video.m_stream.offsetAt(Direction::backward, 1), 119u);
    shorter.pictures = 0;
    card.setStreamHeader(1, shorter);
    video.open(1);
    EXPECT_EQ(video.move(PBST_FORWARD, 1), -1);
    EXPECT_EQ(video.move(PBST_BACKWARD, 1), -1);
    EXPECT_EQ(video.getOffset(), 0u) << "of a stream without pictures";
}

TEST_F(StreamTest, StandsAgainWhereItStood) {
    // Stream 1 is the oldest and was never finished. Of 1 and 3 the last announced picture is not there.
    card.stream(1).from("12:00:00").pictures(30).closed();
    card.sql("UPDATE STREAM SET status = 1");
    card.stream(2).from("12:01:00").fps(10).pictures(100).closed();
    card.stream(3).from("12:02:00").fps(10).pictures(100).recording();
    STREAM_HEADER stale = card.streamHeader(3);
    stale.pictures = 1;
    card.setStreamHeader(3, stale);
    card.sql("UPDATE STREAM SET endDate = startDate + 5 WHERE streamID = 3");
    card.alarm("12:01:30", "12:01:31");
    card.alarm("12:02:01", "12:02:02");
    card.alarm("12:02:30", "12:02:31");
    const auto standsOn = [&](uint32_t stream, uint32_t picture) {
        EXPECT_EQ(video.m_stream.row().streamID, stream);
        EXPECT_EQ(video.m_stream.pictures(), 100u);
        EXPECT_EQ(get(), asLd(picture));
        EXPECT_TRUE(same(video.shown().picH, card.pictureHeader(stream, picture)));
    };
    for (const uint32_t more : {1u, 0u}) { // 0: the recorder has left
        video.open(2);
        video.move(PBST_FORWARD, 40);
        recorderSays(3, more * 101);
        for (const char* from : {"12:02:00", "12:02:02"}) {
            EXPECT_EQ(video.toAlarm(at(from)), kNowhere) << "not followed";
            standsOn(2, 40);
        }
        recorderSays(3, 100);
        EXPECT_EQ(video.toAlarm(at("12:02:02")), kNowhere) << "not recorded yet";
        standsOn(2, 40);
        recorderSays(more, 31);
        EXPECT_EQ(video.skip(kSkipOldest), kNowhere);
        standsOn(2, 40);
        EXPECT_EQ(video.cross(at("11:00:00"), true), -3) << "all streams left, and the oldest not followed";
        EXPECT_EQ(chunkLibrary.areasOpen, 0);
        EXPECT_FALSE(log.has(LOG_ERR, "CPbStreamVideo::m_openChunk() error chunkSize = 0"));
    }
    recorderSays(3, 100);
    video.open(3);
    video.move(PBST_FORWARD, 40);
    recorderSays(1, 31);
    EXPECT_EQ(video.skip(kSkipOldest), kNowhere);
    standsOn(3, 40);
    recorderSays(3, 100);
    EXPECT_EQ(video.toAlarm(at("12:01:20")), kNowhere) << "the one never finished does not reach it";
    standsOn(3, 40);
    chunkLibrary.seekFails = true;
    EXPECT_EQ(video.toAlarm(at("12:01:20")), kNowhere);
    chunkLibrary.seekFails = false;
    EXPECT_EQ(video.m_updateRecStream(), 0) << "tried again, since it could not come back";
    standsOn(3, 40);
    card.grow(10);
    recorderSays(3, 110);
    EXPECT_EQ(video.move(PBST_FORWARD, 1), 41) << "followed as before";
    EXPECT_EQ(video.toAlarm(at("12:02:00")), at("12:02:01")) << "recorded just now";

    recorderSays(0, 0);
    EXPECT_EQ(video.cross(at("12:01:30")), -2) << "nobody records it, so the newest with data is taken";
    EXPECT_TRUE(log.has(LOG_ERR, "m_checkRecDB() return REC", "over"));
    EXPECT_EQ(video.skip(kSkipLatest, 4), at("12:01:05.900"));
    EXPECT_EQ(video.skip(kSkipLatest, 10), at("12:01:00")) << "never before the stream's start";
    EXPECT_EQ(video.skip(2), kNowhere) << "no such target";
    EXPECT_EQ(chunkLibrary.areasOpen, 0);
}

TEST_F(StreamTest, UnreadableIndexIsRemembered) {
    card.stream(1).from("12:00:00").pictures(30).recording();
    recorderSays(1, 30);
    video.open(1);
    card.sql("ALTER TABLE EVENT RENAME TO AWAY");
    EXPECT_EQ(video.toAlarm(at("12:00:00")), kNowhere);
    EXPECT_EQ(video.getErrorflag(), kIndexErrorBit);
    EXPECT_EQ(chunkLibrary.areasOpen, 2) << "looking for an event leaves the stream alone";
    chunkLibrary.atOpen = [] { std::filesystem::remove(paths().index); };
    EXPECT_EQ(video.toTime(at("11:00:00")), at("11:00:00"));
    EXPECT_EQ(video.getSOFflag(), 0u) << "whether anything lies before it could not be asked";
    EXPECT_EQ(video.toAlarm(at("12:00:00")), kNowhere);
    EXPECT_EQ(chunkLibrary.areasOpen, 0) << "but not without an index";
}

} // namespace

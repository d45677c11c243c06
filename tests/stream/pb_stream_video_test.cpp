// What small worlds leave out: how times are added, a card that fails while it is read, and the recorder.
#include <filesystem>

#include "tests/stream/stream_fixture.h"

namespace {

using test::at;
using Time = PB_STREAM_TIME;
namespace fs = std::filesystem;

TEST(StreamTime, Arithmetic) {
    EXPECT_EQ(Time(0xFFFFFFFF, 999) + Time(0, 1), Time()) << "seconds wrap";
    EXPECT_EQ(Time(5, 100) - Time(5, 101), Time()) << "saturates on milliseconds alone";
    EXPECT_EQ(Time(0x80000000, 0) - Time(0x7FFFFFFF, 999), Time(0, 1)) << "seconds have no sign";
    EXPECT_EQ(Time(3, 500) * 10, Time(35, 0)) << "carries all seconds";
    EXPECT_EQ(Time(0xFFFFFFFF, 0) / 2, Time(0x7FFFFFFF, 500)) << "carries the remainder";
    EXPECT_EQ(Time(7, 7) / 0, Time());
}

constexpr uint32_t kChunkBytes = 1u << 19;

class StreamTest : public testing::Test {
protected:
    StreamTest() { segment.openStatus(world.statusKey()); }

    void recorderSays(uint32_t streamId, uint32_t pictures) {
        segment.m_status->recStreamID = streamId;
        segment.m_status->recPictures = pictures;
    }
    long get() { return video.get(reinterpret_cast<unsigned char*>(buffer.data())); }

    test::World world;
    test::Card card{world, kChunkBytes};
    test::LogRecorder log;
    CtavirnShmServer segment;
    Stream video{&segment};
    std::string buffer = std::string(kMaxPictureBytes, '?');
};

TEST_F(StreamTest, RateIsNominalOrReckoned) {
    card.stream(1).from("12:00:00").fps(30).pictures(1200).closed();
    video.open(1);
    EXPECT_EQ(video.toTime(at("12:00:36")), at("12:00:36"));
    EXPECT_EQ(video.getOffset(), 1079u) << "30 pictures a second are 30000 in 1001 s";
    card.sql("UPDATE STREAM SET frameSet = 10, endDate = startDate + 60");
    video.open(1);
    EXPECT_EQ(video.getFrameRate(), 200u);
}

TEST_F(StreamTest, ACardThatFailsIsNamedAndShowsNothingStale) {
    card.stream(1).from("12:00:00").pictures(90).closed();
    // More than the chunk holds.
    card.changePicture(1, 0, [](PICTURE_HEADER& longer) { longer.size = kMaxPictureBytes; });
    video.open(1);
    EXPECT_EQ(get(), 0);
    EXPECT_TRUE(buffer.substr(kChunkBytes) == std::string(kMaxPictureBytes - kChunkBytes, '\0'));

    fs::resize_file(card.chunkPath(1), 1);
    EXPECT_EQ(get(), -1);
    EXPECT_EQ(video.move(PBST_FORWARD, 1, kSearchForward), -1);
    EXPECT_EQ(video.toTime(at("12:00:01")), kNowhere);
    const std::string headers = "CPbStreamVideo::m_readPic() m_video.readPic->read() error offset = ";
    for (const std::string& fault :
         {std::string("Pb::get() m_video.readSt->read() error"),
          std::string("m_iPicSearch() m_video.readPic->read() error\n6 database info"), headers + "1\n",
          headers + "30\n", "2024-01-02 12:00:00(" + std::to_string(at("12:00:00").sec)})
        EXPECT_NE(log.dump().find(fault), std::string::npos) << fault;
}

// ---- the stream that the recorder is still writing ----

TEST_F(StreamTest, FollowsTheRecorder) {
    card.stream(1).from("12:00:00.100").fps(10).pictures(100).firstI(3).recording();
    card.unsealStream(1);
    recorderSays(1, 100);
    ASSERT_EQ(video.open(1), at("12:00:00.100"));
    EXPECT_EQ(video.move(PBST_FORWARD, 40), 43) << "the first refresh goes to picture 0";
    card.grow(30);
    recorderSays(1, 130);
    video.getDb(&video.out.db);
    EXPECT_EQ(video.shown().db.chunkSize, 131u * 32);
    EXPECT_EQ(video.m_stream.endTime(), at("12:00:13"));
    EXPECT_EQ(get(), 43);

    const std::string chunk = card.chunkPath(1);
    fs::rename(chunk, chunk + "-away"); // what is announced next can't be read yet
    recorderSays(1, 131);
    EXPECT_EQ(video.m_updateRecStream(), 0);
    EXPECT_EQ(video.m_updateRecStream(), 0);
    EXPECT_EQ(log.count(LOG_ERR, "CPbStreamVideo::m_openChunk() m_video.readPic->open() open error"), 1)
        << "the same count is not tried again";
    fs::rename(chunk + "-away", chunk);
    recorderSays(1, 132);
    EXPECT_EQ(video.m_updateRecStream(), -1) << "it is not there";
    card.grow(3);
    recorderSays(1, 133);
    EXPECT_EQ(video.move(PBST_FORWARD, 1), 132);

    Stream alone(nullptr);
    EXPECT_EQ(alone.open(1), kNowhere);
    recorderSays(0, 133);
    EXPECT_EQ(video.toTime(at("12:00:05")), at("12:00:05"));
    EXPECT_EQ(log.count(LOG_ERR, "pelsod's streamID = 0", "m_updateRecStream"), 3);
    recorderSays(1, 134);
    card.grow(1);
    EXPECT_EQ(video.move(PBST_FORWARD, 1), 1) << "found again, it begins anew";
}

TEST_F(StreamTest, StandsAgainWhereItStood) {
    // Stream 1 is the oldest and was never finished. Of 3 the last picture announced is not there.
    card.stream(1).from("12:00:00").pictures(30).closed();
    card.sql("UPDATE STREAM SET status = 1");
    card.stream(2).from("12:01:00").fps(10).pictures(100).closed();
    card.stream(3).from("12:02:00").fps(10).pictures(100).recording();
    card.sql("UPDATE STREAM SET endDate = startDate + 5 WHERE streamID = 3");
    card.alarm("12:02:10.400", "12:02:31");
    const auto fails = [&](Time result) {
        EXPECT_EQ(result, kNowhere);
        EXPECT_EQ(video.m_stream.row().streamID, 2u);
        EXPECT_EQ(get(), 40);
        EXPECT_EQ(test::bytesOf(video.shown().picH), test::bytesOf(card.pictureHeader(2, 40)));
    };
    video.open(2);
    video.move(PBST_FORWARD, 40);
    recorderSays(3, 101);
    fails(video.skip(kSkipEvent, 0, at("12:02:02"))); // not followed
    recorderSays(3, 100);
    fails(video.skip(kSkipEvent, 0, at("12:02:02"))); // not recorded yet
    recorderSays(1, 31);
    fails(video.skip(kSkipOldest));
    EXPECT_EQ(video.cross(at("11:00:00"), true), -3) << "all streams left, and the oldest not followed";
    recorderSays(3, 99);
    video.open(3);
    recorderSays(1, 30);                         // which goes on to another stream before it closes the row
    EXPECT_EQ(video.move(PBST_FORWARD, 30), 30); // which 1 has not
    EXPECT_EQ(video.cross(at("12:00:00.500")), 0) << "nothing of 3 is left";
    video.open(2);
    card.sql("ALTER TABLE EVENT RENAME TO AWAY");
    EXPECT_EQ(video.skip(kSkipEvent, 0, at("12:00:00")), kNowhere);
    EXPECT_EQ(video.getErrorflag(), kIndexErrorBit);
    EXPECT_EQ(get(), 0) << "looking for an event leaves the stream alone";

    recorderSays(0, 0);
    EXPECT_EQ(video.cross(at("12:01:30")), -2) << "nobody records it, so the newest with data is taken";
    EXPECT_EQ(video.skip(kSkipLatest, 4), at("12:01:05.900"));
    EXPECT_EQ(video.skip(kSkipLatest, 10), at("12:01:00")) << "never before the stream's start";
    EXPECT_EQ(video.getErrorflag(), 0u) << "the last query was answered";
}

} // namespace

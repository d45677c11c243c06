// What small worlds leave out: how a fault is named, a card that fails while it is read, and the recorder.
#include <filesystem>

#include "platform/paths.h"
#include "tests/stream/stream_fixture.h"

namespace {

using test::at;
using test::chunkLibrary;

class StreamTest : public testing::Test {
protected:
    StreamTest() { chunkLibrary = {}; }

    void recorderSays(uint32_t streamId, uint32_t pictures) {
        if (segment.m_status == nullptr) segment.openStatus(world.statusKey());
        segment.m_status->recStreamID = streamId;
        segment.m_status->recPictures = pictures;
    }
    /// The errors logged since it was asked last, without their lines, and which records were shown.
    std::string said() {
        std::string text;
        for (const test::LogLine& line : log.lines()) {
            const bool isWord = line.format == " %08x" || line.format.starts_with("checkSum=");
            const size_t name = line.format.starts_with("%s(%d) ") ? line.text.find(' ') + 1 : 0;
            if (line.priority == LOG_ERR && !isWord) text += line.text.substr(name) + "\n";
            if (line.text.ends_with(" info ----------------------")) text += line.text.front();
        }
        log.clear();
        return text;
    }
    long get() { return video.get(buffer.data()); }

    test::World world;
    test::Card card{world};
    test::LogRecorder log;
    CtavirnShmServer segment;
    Stream video{&segment};
    std::vector<unsigned char> buffer = std::vector<unsigned char>(kMaxPictureBytes, '?');
};

TEST_F(StreamTest, DamageIsNamed) {
    card.stream(1).from("12:00:00").pictures(90).closed();
    const std::string none = "CPbStreamVideo::get() stream not exist!!\n";
    const struct {
        std::string said; ///< when it is opened and its first picture read
        void (*damage)(STREAM_HEADER& stream, PICTURE_HEADER& top);
        bool seal = true;
    } rows[] = {
        {"", [](auto& s, auto& top) { s.gops = 1, top.size = 5; }},
        {"", [](auto& s, auto& top) { s.gops = 120, top.size = 819200; }},
        {"m_video.stH.gops=0, set gops=5.\n", [](auto& s, auto&) { s.gops = 121; }},
        {"invalid m_video.picH.size = 4\ndsp", [](auto&, auto& top) { top.size = 4; }},
        {"invalid m_video.picH.size = 819201\ndsp", [](auto&, auto& top) { top.size = 819201; }},
        {"CPbStreamVideo::m_openChunk() m_video.readSt->openChunkFile() open error\nds" + none,
         [](auto& s, auto&) { s.offset = 0x7FFFFFFF; }},
        {"ds" + none, [](auto& s, auto&) { s.marker = kPictureMarker; }},
        {"m_video.stH.checksum error\nCPbStreamVideo::m_openChunk() id = 1 m_video.stH.checksum error\nds" +
             none,
         [](auto& s, auto&) { s.id ^= 1; }, false},
        {"Error: pictureHeader marker not correct\n"
         "CPbStreamVideo::m_readPic() id = 1 offset = 0 m_video.picH.marker = 0xFFFFFFFF error\ndsp"
         "m_readPic error\n" +
             none,
         [](auto&, auto& top) { top.marker = kStreamMarker; }},
        {"CPbStreamVideo::m_readPic() id = 1 offset = 0 m_video.picH.checksum error\ndspm_readPic error\n" +
             none,
         [](auto&, auto& top) { top.pts += 1; }, false},
    };
    const STREAM_HEADER stream = card.streamHeader(1);
    const PICTURE_HEADER top = card.pictureHeader(1, 0);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.said);
        STREAM_HEADER damagedStream = stream;
        PICTURE_HEADER damagedTop = top;
        row.damage(damagedStream, damagedTop);
        card.setStreamHeader(1, damagedStream, row.seal);
        card.setPictureHeader(1, 0, damagedTop, row.seal);
        video.open(1);
        get();
        EXPECT_EQ(said(), row.said);
        EXPECT_EQ(chunkLibrary.areasOpen, row.said.ends_with(none) ? 0 : 2);
        EXPECT_EQ(video.getErrorflag(), row.said.find("open error") < 100 ? kChunkErrorBit : 0);
    }
    card.sql("UPDATE STREAM SET chunkID = 7");
    video.open(1);
    EXPECT_EQ(said(), "CPbStreamVideo::m_openChunk() m_video.readPic->open() open error\nd");
    EXPECT_EQ(video.getErrorflag(), kChunkErrorBit);
    card.sql("UPDATE STREAM SET chunkSize = 0");
    video.open(1);
    EXPECT_TRUE(log.has(LOG_INFO, "m_video.db.startDate   = 2024-01-02 12:00:00(" +
                                      std::to_string(at("12:00:00").sec) + ")"));
    EXPECT_EQ(said(), "CPbStreamVideo::m_openChunk() error chunkSize = 0\nd");
    video.open(99);
    EXPECT_EQ(said(), "CPbStreamVideo::getId() id = 99 error\n");
}

TEST_F(StreamTest, ACardThatFailsIsNamedAndShowsNothingStale) {
    card.stream(1).from("12:00:00").pictures(90).closed();
    const std::string search = "CPbStreamVideo::m_iPicSearch() m_video.readPic->";
    const std::string header = "CPbStreamVideo::m_readPic() m_video.readPic->";
    for (const bool seeking : {true, false}) {
        video.open(1);
        chunkLibrary.seekFails = seeking;
        if (!seeking) chunkLibrary.readLimit = -1;
        EXPECT_EQ(get(), -1);
        EXPECT_EQ(std::count(buffer.begin(), buffer.end(), '?'), kMaxPictureBytes);
        EXPECT_EQ(video.move(PBST_FORWARD, 1, kSearchForward), -1);
        EXPECT_EQ(video.m_stream.getOffset(), 1u);
        EXPECT_EQ(video.toTime(at("12:00:01")), kNowhere);
        const std::string seek = "CStreamReadZuvo::seek() m_zuvo->seekEvent() error\n"
                                 "CPbStreamVideo::get() m_video.readSt->seek() error\ndsp";
        const std::string failed = seeking ? "Error: readPic->seekEvent error\n" + header + "seek() error"
                                           : "Error: readPic->read error\n" + header + "read() error";
        EXPECT_EQ(said(), (seeking ? seek : "Pb::get() m_video.readSt->read() error\ndsp") + search +
                              (seeking ? "seekEvent() error\nd" : "read() error\nd") + failed +
                              " offset = 1\ndsp" + failed + " offset = 30\ndspm_setOffset error\n");
        chunkLibrary = {};
    }
    video.open(1);
    for (const long limit : {8, 31}) { // 8: marker and id, but no flags
        chunkLibrary.readLimit = limit;
        EXPECT_EQ(video.m_stream.m_iPicSearch(Direction::forward, &video.picH) == 0, limit == 31);
        EXPECT_EQ(video.m_stream.m_readPic(), -1);
    }
    chunkLibrary.readLimit = 10 + kHeaderBytes;
    video.m_stream.m_readPic();
    EXPECT_EQ(get(), 0);
    EXPECT_EQ(std::count(buffer.begin() + 42, buffer.end(), '\0'), video.picH.size - 42);
}

TEST_F(StreamTest, TimeIsFoundByNominalRate) {
    // 30 pictures a second are 30000 in 1001 s: behind 1000 pictures it tells.
    card.stream(1).from("12:00:00").fps(30).pictures(1200).closed();
    video.open(1);
    chunkLibrary.reads = 0;
    video.toTime(at("12:00:36"));
    EXPECT_EQ(video.m_stream.getOffset(), 1079u);
    EXPECT_EQ(chunkLibrary.reads, 1);
}

// ---- the stream that the recorder is still writing ----

TEST_F(StreamTest, FollowsTheRecorder) {
    card.stream(1).from("12:00:00.100").fps(10).pictures(100).firstI(3).recording();
    STREAM_HEADER unsealed = card.streamHeader(1);
    unsealed.cs ^= 1; // as it stands while the recorder is at it
    card.setStreamHeader(1, unsealed, false);
    recorderSays(1, 100);
    ASSERT_EQ(video.open(1), at("12:00:00.100"));
    const std::string grown = "mode 0 mode 1 1 1048576 1 1048576 ";
    EXPECT_EQ(chunkLibrary.asked, grown + grown);
    EXPECT_EQ(chunkLibrary.areasOpen, 2);
    EXPECT_EQ(video.move(PBST_FORWARD, 40), 43) << "the first refresh goes to picture 0";
    card.grow(30);
    recorderSays(1, 130);
    video.getDb(&video.db);
    EXPECT_EQ(video.db.chunkSize, 131u * 32);
    EXPECT_EQ(PB_STREAM_TIME(video.db.endDate, video.db.endMSec), at("12:00:13"));
    EXPECT_EQ(video.m_stream.pictures(), 130u);
    EXPECT_EQ(get(), 43);
    chunkLibrary.reads = 0;
    video.getDb(&video.db);
    EXPECT_EQ(chunkLibrary.reads, 0) << "nothing new, nothing read";

    chunkLibrary.seekFails = true; // what is announced is not there yet
    card.grow(1);
    recorderSays(1, 131);
    EXPECT_EQ(video.m_updateRecStream(), 0);
    chunkLibrary.asked = "";
    EXPECT_EQ(video.m_updateRecStream(), 0);
    EXPECT_EQ(chunkLibrary.asked, "") << "the same count is not tried again";
    chunkLibrary.seekFails = false;
    recorderSays(1, 132);
    EXPECT_EQ(video.m_updateRecStream(), -1) << "the last one is still not there";
    card.grow(2);
    recorderSays(1, 133);
    EXPECT_EQ(video.move(PBST_FORWARD, 1), 132);
    const std::string error = "m_readPic() error";
    EXPECT_TRUE(log.has(LOG_ERR, error, "m_updateRecStream"));

    log.clear();
    recorderSays(0, 133);
    EXPECT_EQ(video.toTime(at("12:00:05")), at("12:00:05"));
    EXPECT_EQ(said(), "pelsod's streamID = 0\npelsod's streamID = 0\npelsod's streamID = 0\n");
}

TEST_F(StreamTest, StandsAgainWhereItStood) {
    // Stream 1 is the oldest and was never finished. Of 1 and 3 the last announced picture is not there.
    card.stream(1).from("12:00:00").pictures(30).closed();
    card.sql("UPDATE STREAM SET status = 1");
    card.stream(2).from("12:01:00").fps(10).pictures(100).closed();
    card.stream(3).from("12:02:00").fps(10).pictures(100).recording();
    card.alarm("12:02:01", "12:02:02");
    card.alarm("12:02:30", "12:02:31");
    const auto standsOn = [&](uint32_t stream, uint32_t picture) {
        EXPECT_EQ(video.m_stream.row().streamID, stream);
        EXPECT_EQ(video.m_stream.pictures(), 100u);
        EXPECT_EQ(get(), asLd(picture));
        video.getPicH(&video.picH);
        EXPECT_TRUE(same(video.picH, card.pictureHeader(stream, picture)));
    };
    for (const uint32_t more : {1u, 0u}) { // 0: the recorder has left
        recorderSays(2, 0);
        video.open(2);
        video.move(PBST_FORWARD, 40);
        recorderSays(3, more * 101);
        EXPECT_EQ(video.toAlarm(at("12:02:00")), kNowhere) << "not followed";
        standsOn(2, 40);
        recorderSays(3, 100);
        EXPECT_EQ(video.toAlarm(at("12:02:02")), kNowhere) << "not recorded yet";
        standsOn(2, 40);
        recorderSays(more, 31);
        EXPECT_EQ(video.skip(kSkipOldest), kNowhere);
        standsOn(2, 40);
    }
    recorderSays(3, 100);
    video.open(3);
    video.move(PBST_FORWARD, 40);
    recorderSays(1, 31);
    EXPECT_EQ(video.skip(kSkipOldest), kNowhere);
    standsOn(3, 40);
    card.grow(10);
    recorderSays(3, 110);
    EXPECT_EQ(video.move(PBST_FORWARD, 1), 41) << "followed as before";
    recorderSays(0, 0);
    EXPECT_EQ(video.cross(at("12:01:30")), -2) << "nobody records it, so the newest with data is taken";
    EXPECT_TRUE(log.has(LOG_ERR, "m_checkRecDB() return REC", "over"));
    EXPECT_EQ(video.getTimePts(), at("12:01:09.900"));
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
    video.setErrorflag(kErrorKindChunk, 1);
    EXPECT_EQ(video.getErrorflag(), kIndexErrorBit | kChunkErrorBit);
}

} // namespace

#include "tests/stream/stream_fixture.h"

namespace {

using test::at;

/// Stream 1: 90 pictures, an I-picture every 30.
class ChunkReading : public StreamTest {
protected:
    ChunkReading() { card.stream(1).from("12:00:00").pictures(90).gop(30).closed(); }
    std::vector<unsigned char> buffer = std::vector<unsigned char>(kMaxPictureBytes, 0xEE);
};

TEST_F(ChunkReading, DamageIsNamed) {
    const std::string gops = "m_video.stH.gops=0, set gops=5.";
    const struct {
        std::string message, name; ///< the name behind which the message stands; "" = as it is
        long get, moves;           ///< results; both -1: it does not even open
        void (*damage)(STREAM_HEADER& stream, PICTURE_HEADER& top);
    } rows[] = {
        {"", "", 0, 1, [](auto& s, auto& top) { s.gops = 1, top.size = 5; }},
        {"", "", 0, 1, [](auto& s, auto& top) { s.gops = 120, top.size = 819200; }},
        {gops, "m_openChunk", 0, 1, [](auto& s, auto&) { s.gops = 0; }},
        {gops, "m_openChunk", 0, 1, [](auto& s, auto&) { s.gops = 121; }},
        {"invalid m_video.picH.size = 4", "get", -1, 1, [](auto&, auto& top) { top.size = 4; }},
        {"invalid m_video.picH.size = 819201", "get", -1, 1, [](auto&, auto& top) { top.size = 819201; }},
        {"offset >= pictures", "move", 0, -1, [](auto& s, auto&) { s.pictures = 0; }},
        {"m_video.db.streamID    = 1", "", -1, -1, [](auto& s, auto&) { s.marker = kPictureMarker; }},
        {"m_video.stH.checksum error", "m_openChunk", -1, -1, [](auto& s, auto&) { s.id ^= 1; }},
        {"CPbStreamVideo::m_openChunk() m_video.readSt->openChunkFile() open error", "", -1, -1,
         [](auto& s, auto&) { s.offset = 0x7FFFFFFF; }},
        {"Error: pictureHeader marker not correct", "m_readPic", -1, -1,
         [](auto&, auto& top) { top.marker = kStreamMarker; }},
        {"CPbStreamVideo::m_readPic() id = 1 offset = 0 m_video.picH.checksum error", "", -1, -1,
         [](auto&, auto& top) { top.pts += 1; }},
    };
    const STREAM_HEADER stream = card.streamHeader(1);
    const PICTURE_HEADER top = card.pictureHeader(1, 0);
    const auto logged = [&](const std::string& text, const std::string& name = "") {
        return log.has(LOG_ERR, text, name) || log.has(LOG_INFO, text, name);
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.message);
        STREAM_HEADER damagedStream = stream;
        PICTURE_HEADER damagedTop = top;
        row.damage(damagedStream, damagedTop);
        const bool seal = row.message.find("checksum") == std::string::npos;
        card.setStreamHeader(1, damagedStream, seal);
        card.setPictureHeader(1, 0, damagedTop, seal);
        log.clear();
        stH = {};
        const bool opens = row.get == 0 || row.moves == 1;
        EXPECT_EQ(open(1), opens ? at("12:00:00") : kNowhere);
        EXPECT_EQ(isEmpty(), !opens);
        EXPECT_EQ(stH.gops == 5, row.message == gops);
        EXPECT_EQ(video.get(buffer.data()), row.get);
        EXPECT_EQ(move(PBST_FORWARD, 1), row.moves);
        EXPECT_EQ(video.getErrorflag(), row.message.ends_with("open error") ? kChunkErrorBit : 0);
        EXPECT_TRUE(row.message.empty() || logged(row.message, row.name)) << log.dump();
    }
    EXPECT_TRUE(logged("CPbStreamVideo::move() stream not exist!!"));
    card.sql("UPDATE STREAM SET chunkID = 7");
    EXPECT_EQ(open(1), kNowhere);
    EXPECT_EQ(video.getErrorflag(), kChunkErrorBit);
    card.sql("UPDATE STREAM SET chunkSize = 0");
    EXPECT_EQ(open(1), kNowhere);
    EXPECT_TRUE(logged("CPbStreamVideo::m_openChunk() error chunkSize = 0"));
    EXPECT_EQ(open(99), kNowhere);
    EXPECT_TRUE(logged("CPbStreamVideo::getId() id = 99 error"));
}

TEST_F(ChunkReading, CutChunksAndFailingReadsLeaveNothingStale) {
    open(1);
    WatchedReader& headers = watch(video.m_video.readPic);
    for (const long limit : {0L, 8L, 31L}) { // 8: marker and id, but no flags
        headers.readLimit = limit;
        EXPECT_TRUE(isIPicture(picH));
        EXPECT_EQ(video.m_stream.m_iPicSearch(Direction::forward, &picH) == 0, limit == 31);
        EXPECT_EQ(video.m_stream.m_readPic(), -1) << limit;
        headers.readLimit = kHeaderBytes;
        EXPECT_EQ(video.m_stream.m_readPic(), 0);
        video.getPicH(&picH);
    }
    watch(video.m_video.readSt).readLimit = 10;
    EXPECT_EQ(video.get(buffer.data()), 0);
    EXPECT_EQ(std::count(buffer.begin() + 10, buffer.begin() + picH.size, 0), picH.size - 10);

    for (const bool seeking : {true, false}) { // a card pulled under the readers
        open(1);
        for (auto* reader : {&video.m_video.readPic, &video.m_video.readSt}) {
            WatchedReader& watched = watch(*reader);
            watched.seekFails = seeking;
            if (!seeking) watched.readLimit = -1;
        }
        EXPECT_EQ(video.get(buffer.data()), -1);
        EXPECT_EQ(move(PBST_FORWARD, 1, kSearchForward), -1);
        EXPECT_EQ(video.getTime(at("12:00:01"), &db, &stH, &picH, 1, 0, 0), kNowhere);
        EXPECT_TRUE(log.has(LOG_ERR, "m_setOffset error", "getTime")) << log.dump();
        EXPECT_TRUE(isEmpty());
    }
}

TEST_F(ChunkReading, FrameRateIsTheCodesOrReckoned) {
    open(1);
    DB_STREAM& row = video.m_video.db;
    row.recSize = 1800;
    for (const auto& [frameSet, seconds, expected] :
         {std::tuple{0x0001, 0u, 300u}, {0x0019, 60u, 10u}, {0, 60u, 300u}, {0xA, 60u, 300u}, {0, 0u, 0u}}) {
        row.frameSet = static_cast<uint16_t>(frameSet);
        row.endDate = row.startDate + seconds;
        EXPECT_EQ(video.getFrameRate(), expected) << frameSet;
    }
}

// ---- positions by time ----

TEST_F(ChunkReading, TimeSearchIsNearAndReadsAtMostSixHeaders) {
    const struct {
        const char* what;
        double fps;
        int frameSet; ///< -1 = the one that fits
        uint32_t pictures;
        const char* target;
        int maxReads;
        uint32_t toleranceMs;
        long expected = -1; ///< the exact picture
    } rows[] = {
        {"a clean 30 fps", 30, -1, 1800, "12:10:10.500", 1, 99},
        {"target's millisecond below the start's", 30, -1, 1800, "12:10:07.100", 1, 99},
        {"a second after the end", 30, -1, 1800, "12:11:01", 1, 1000, 1799},
        {"before the start", 30, -1, 1800, "12:10:00.249", 1, 1, 0},
        {"code says 30, recorded at 10", 10, 1, 600, "12:10:40", 6, 300},
        {"code says 1, recorded at 30", 30, 9, 1800, "12:10:40", 6, 99},
        {"no code", 25, 0, 1000, "12:10:33", 6, 120},
        {"a lone picture without code", 30, 0, 1, "12:10:00.900", 6, 650, 0},
    };
    uint32_t id = 1;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        test::StreamBuilder stream = card.stream(++id);
        stream.from("12:10:00.250").fps(row.fps).pictures(row.pictures).pictureSize(20);
        if (row.frameSet >= 0) stream.frameSet(static_cast<uint16_t>(row.frameSet));
        stream.closed();
        open(id);
        const WatchedReader& headers = watch(video.m_video.readPic);
        const PB_STREAM_TIME target = at(row.target);
        EXPECT_EQ(video.m_stream.m_setOffset(target.seconds(), target.mSec), 0);
        EXPECT_TRUE(headers.reads >= 1 && headers.reads <= row.maxReads);
        const PB_STREAM_TIME here = video.getTimePts();
        const PB_STREAM_TIME apart = (here - target) + (target - here); // one of the two is 0
        EXPECT_FALSE(apart > PB_STREAM_TIME(0, row.toleranceMs)) << video.getOffset();
        EXPECT_TRUE(row.expected < 0 || video.getOffset() == static_cast<unsigned long>(row.expected));
    }
    // Time stamps that leap by a minute.
    for (uint32_t picture = 45; picture < 90; ++picture) {
        PICTURE_HEADER header = card.pictureHeader(1, picture);
        header.pts += 60;
        card.setPictureHeader(1, picture, header);
    }
    card.sql("UPDATE STREAM SET endDate = startDate + 62 WHERE streamID = 1");
    open(1);
    const WatchedReader& headers = watch(video.m_video.readPic);
    EXPECT_EQ(video.m_stream.m_setOffset(at("12:00:30").seconds(), 0), 0);
    EXPECT_EQ(headers.reads, 6);
    EXPECT_TRUE(log.has(LOG_ERR, "offset position is not fixed in 500mS accuracy.", "m_setOffset"));
}

} // namespace

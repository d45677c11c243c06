// One stream: opening, reading, moving inside it, and what damage comes to.
#include "tests/stream/stream_fixture.h"

namespace {

using test::at;

/// Stream 1: 90 pictures, an I-picture every 30.
class OpeningAndReading : public StreamTest {
protected:
    OpeningAndReading() { card.stream(1).from("12:00:00").pictures(90).gop(30).closed(); }
    std::vector<unsigned char> buffer = std::vector<unsigned char>(kMaxPictureBytes, 0xEE);
};

TEST_F(OpeningAndReading, DamageIsNamed) {
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
        {"m_video.stH.checksum error", "m_openChunk", -1, -1, [](auto& s, auto&) { s.id ^= 1; }},
        {"CPbStreamVideo::m_openChunk() m_video.readSt->openChunkFile() open error", "", -1, -1,
         [](auto& s, auto&) { s.offset = 0x7FFFFFFF; }},
        {"m_video.db.streamID    = 1", "", -1, -1, [](auto& s, auto&) { s.marker = kPictureMarker; }},
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

TEST_F(OpeningAndReading, CutChunksAndFailingReadsLeaveNothingStale) {
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

TEST_F(OpeningAndReading, FrameRateIsTheCodesOrReckoned) {
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

TEST_F(OpeningAndReading, TimeSearchReadsAtMostSixHeaders) {
    const struct {
        const char* what;
        double fps;
        uint16_t frameSet;
        int reads;
        uint32_t toleranceMs;
    } rows[] = {
        {"a clean 30 fps", 30, 1, 1, 99},
        {"code says 30, recorded at 10", 10, 1, 6, 300},
        {"code says 1, recorded at 30", 30, 9, 6, 99},
        {"no code", 25, 0, 6, 120},
    };
    uint32_t id = 1;
    const PB_STREAM_TIME target = at("12:10:40.100"); // below the start's millisecond
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        card.stream(++id).from("12:10:00.250").fps(row.fps).frameSet(row.frameSet).pictures(1800).closed();
        open(id);
        const WatchedReader& headers = watch(video.m_video.readPic);
        EXPECT_EQ(video.m_stream.m_setOffset(target.seconds(), target.mSec), 0);
        EXPECT_LE(headers.reads, row.reads);
        const PB_STREAM_TIME here = video.getTimePts();
        const PB_STREAM_TIME apart = (here - target) + (target - here); // one of the two is 0
        EXPECT_FALSE(apart > PB_STREAM_TIME(0, row.toleranceMs)) << video.getOffset();
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

// ---- positions by count ----

TEST_F(StreamTest, MovesAndSearches) {
    // I-pictures at 7, 37 and 67 of 90.
    card.stream(1).from("12:00:00").pictures(90).firstI(7).gop(30).closed();
    open(1);
    const struct {
        const char* what;
        unsigned char kind, search;
        uint32_t from, count;
        long result, offset, headers;
        const char* message = "";
    } rows[] = {
        {"one ahead", PBST_FORWARD, 0, 10, 1, 11, 11, 1},
        {"past the end", PBST_FORWARD, 0, 89, 1, -1, 89, 1, "offset >= pictures"},
        {"far past the end", PBST_FORWARD, 1, 3, 0x7FFFFFFF, -1, 89, 1, "offset >= pictures"},
        {"past the end by all that 32 bits hold", PBST_FORWARD, 0, 3, 0xFFFFFFFF, -1, 89, 1,
         "offset >= pictures"},
        {"past the start by as much", PBST_BACKWARD, 0, 89, 0xFFFFFFFF, -1, 0, 1, "(offset - move) < 0"},
        {"back to the first", PBST_BACKWARD, 0, 5, 5, 0, 0, 1},
        {"past the start", PBST_BACKWARD, 0, 5, 10, -1, 0, 1, "(offset - move) < 0"},
        {"next I-picture", PBST_FORWARD, kSearchForward, 38, 0, 67, 67, 30},
        {"I-picture before", PBST_FORWARD, kSearchBackward, 66, 0, 37, 37, 30},
        {"back, then ahead", PBST_BACKWARD, kSearchForward, 30, 10, 37, 37, 18},
        {"none before", PBST_BACKWARD, kSearchBackward, 4, 1, -1, 3, 5, "m_iPicSearch() error"},
        {"none ahead", PBST_FORWARD, kSearchForward, 70, 10, -1, 80, 11, "m_iPicSearch() error"},
    };
    WatchedReader& headers = watch(video.m_video.readPic);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        video.m_video.offset = row.from;
        log.clear();
        headers.reads = 0;
        EXPECT_EQ(move(row.kind, row.count, row.search), row.result);
        EXPECT_EQ(asLd(video.m_video.offset), row.offset);
        EXPECT_EQ(headers.reads, row.headers);
        EXPECT_EQ(picH, card.pictureHeader(1, video.m_video.offset));
        EXPECT_TRUE(row.result >= 0 || log.has(LOG_INFO, row.message, "move")) << log.dump();
    }
    for (unsigned char kind = 2; kind <= 4; ++kind) EXPECT_EQ(move(kind, 1), -1);
    EXPECT_EQ(log.count(LOG_ERR, "PBST_OFFSET/TOP/END not supported.", "move"), 3);
}

} // namespace

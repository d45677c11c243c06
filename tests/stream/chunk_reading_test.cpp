#include <filesystem>

#include "stream/stream_read_zuvo.h"
#include "tests/stream/stream_fixture.h"

namespace {

using test::at;

/// Stream 1: 90 pictures, an I-picture every 30.
class ChunkReading : public StreamTest {
protected:
    ChunkReading() { card.stream(1).from("12:00:00").pictures(90).gop(30).closed(); }

    using Change = void (*)(STREAM_HEADER&, PICTURE_HEADER&);
    /// Changes the stream header and picture 0's; their checksums too, unless `seal` is false.
    void change(Change change, bool seal = true) {
        STREAM_HEADER stream = card.streamHeader(1);
        PICTURE_HEADER picture = card.pictureHeader(1, 0);
        change(stream, picture);
        card.setStreamHeader(1, stream, seal);
        card.setPictureHeader(1, 0, picture, seal);
    }
    std::vector<unsigned char> buffer = std::vector<unsigned char>(kMaxPictureBytes, 0xEE);
};

TEST_F(ChunkReading, DataOfEveryPictureIsTheRecordersOwn) {
    ASSERT_EQ(open(1), at("12:00:00"));
    for (uint32_t picture = 0; picture < 90; ++picture) {
        ASSERT_EQ(video.get(buffer.data()), picture);
        const std::string expected = test::pictureBytes(1, picture, picture % 30 == 0);
        ASSERT_EQ(std::string(buffer.begin(), buffer.begin() + picH.size), expected) << picture;
        move(PBST_FORWARD, 1);
    }
}

TEST_F(ChunkReading, DamagedHeadersAreRefusedWithTheirOwnMessage) {
    const struct {
        const char* message;
        const char* name; ///< behind which the message stands; "" = as it is
        bool seal;
        Change damage;
    } rows[] = {
        {"", "", true, [](auto& stream, auto&) { stream.marker = kPictureMarker; }},
        {"m_video.stH.checksum error", "m_openChunk", false, [](auto& stream, auto&) { stream.id ^= 1; }},
        {"CPbStreamVideo::m_openChunk() m_video.readSt->openChunkFile() open error", "", true,
         [](auto& stream, auto&) { stream.offset = 0x7FFFFFFF; }},
        {"Error: pictureHeader marker not correct", "m_readPic", true,
         [](auto&, auto& picture) { picture.marker = kStreamMarker; }},
        {"CPbStreamVideo::m_readPic() id = 1 offset = 0 m_video.picH.checksum error", "", false,
         [](auto&, auto& picture) { picture.pts += 1; }},
    };
    const std::string whole = test::readFile(card.chunkPath(1));
    for (const auto& row : rows) {
        change(row.damage, row.seal);
        log.clear();
        EXPECT_EQ(open(1), kNowhere) << row.message;
        EXPECT_EQ(log.has(LOG_ERR, row.message, row.name), *row.message != '\0') << row.message << log.dump();
        EXPECT_TRUE(log.has(LOG_INFO, "m_video.db.streamID    = 1")) << "no dump for " << row.message;
        EXPECT_EQ(video.getErrorflag() != 0, std::string(row.message).ends_with("open error"));
        EXPECT_TRUE(isEmpty());
        test::writeFile(card.chunkPath(1), whole);
    }
}

TEST_F(ChunkReading, MissingAndCutChunksAreRefused) {
    const std::string whole = test::readFile(card.chunkPath(1));
    const uint32_t header = card.row(1).chunkOffset;
    for (const uint32_t left : {0u, header, header + 1, header + 31, header + 32, header + 63}) {
        std::filesystem::resize_file(card.chunkPath(1), left);
        EXPECT_EQ(open(1), kNowhere) << left;
        EXPECT_TRUE(isEmpty());
    }
    std::filesystem::remove(card.chunkPath(1));
    EXPECT_EQ(open(1), kNowhere);
    EXPECT_EQ(video.getErrorflag(), kChunkErrorBit);
    test::writeFile(card.chunkPath(1), whole);
    EXPECT_EQ(open(1), at("12:00:00"));
    EXPECT_EQ(video.getErrorflag(), 0u);
    card.sql("UPDATE STREAM SET chunkSize = 0");
    EXPECT_EQ(open(1), kNowhere);
    EXPECT_TRUE(log.has(LOG_ERR, "CPbStreamVideo::m_openChunk() error chunkSize = 0"));
}

TEST_F(ChunkReading, FiguresAtTheirLimits) {
    const struct {
        Change change;
        uint32_t gops;
        bool readable;
    } rows[] = {
        {[](auto& stream, auto& picture) { stream.gops = 0, picture.size = 4; }, 5, false},
        {[](auto& stream, auto& picture) { stream.gops = 1, picture.size = 5; }, 1, true},
        {[](auto& stream, auto& picture) { stream.gops = 120, picture.size = 819200; }, 120, true},
        {[](auto& stream, auto& picture) { stream.gops = 121, picture.size = 819201; }, 5, false},
    };
    for (const auto& row : rows) {
        change(row.change);
        log.clear();
        open(1);
        EXPECT_EQ(stH.gops, row.gops);
        EXPECT_EQ(log.has(LOG_ERR, "m_video.stH.gops=0, set gops=5.", "m_openChunk"), row.gops == 5);
        EXPECT_EQ(video.get(buffer.data()), row.readable ? 0 : -1) << picH.size;
    }
}

TEST_F(ChunkReading, NothingReadEarlierStandsInForWhatIsMissing) {
    open(1);
    WatchedReader& headers = watch(video.m_video.readPic);
    for (const long limit : {0L, 8L, 31L}) { // 8: marker and id, but no flags
        headers.readLimit = limit;
        EXPECT_TRUE(isIPicture(picH));
        EXPECT_EQ(video.m_iPicSearch(kSearchForward, &picH) == 0, limit == 31);
        EXPECT_EQ(video.m_readPic(), -1) << limit;
        headers.readLimit = kHeaderBytes;
        EXPECT_EQ(video.m_readPic(), 0);
        video.getPicH(&picH);
    }
    watch(video.m_video.readSt).readLimit = 10;
    EXPECT_EQ(video.get(buffer.data()), 0);
    EXPECT_EQ(std::count(buffer.begin() + 10, buffer.begin() + picH.size, 0), picH.size - 10);
}

TEST_F(ChunkReading, CardPulledUnderTheReaders) {
    for (const bool seeking : {true, false}) {
        open(1);
        for (auto* reader : {&video.m_video.readPic, &video.m_video.readSt})
            (seeking ? watch(*reader).seekFails : watch(*reader).readFails) = true;
        log.clear();
        EXPECT_EQ(video.get(buffer.data()), -1);
        EXPECT_EQ(move(PBST_FORWARD, 1), -1);
        EXPECT_EQ(move(PBST_FORWARD, 1, kSearchForward), -1);
        EXPECT_EQ(goTo(at("12:00:01")), kNowhere);
        EXPECT_TRUE(log.has(LOG_ERR, "m_setOffset error", "getTime")) << log.dump();
        EXPECT_TRUE(isEmpty());
    }
}

TEST_F(ChunkReading, ReaderFindsChunkPositionsRoundTheRing) {
    std::string chunk(5000, '\0');
    for (size_t i = 0; i < chunk.size(); ++i) chunk[i] = static_cast<char>(i * 7 / 3);
    test::writeFile(card.chunkPath(1), chunk);
    for (const uint32_t areaSize : {0u, 4500u}) {
        CStreamReadZuvo reader(1);
        CHUNK_EVENT area{static_cast<uint16_t>(card.row(1).chunkID), CHUNK_KIND_STREAM, 1000, areaSize};
        ASSERT_NE(reader.open(&area), -1);
        for (const long position : {1000L, 1200L, 4999L, 300L, 0L, 999L}) {
            char byte = 0;
            EXPECT_EQ(reader.seek(position, 0), 0);
            EXPECT_EQ(reader.read(&byte, 1), 1);
            EXPECT_EQ(byte, chunk[static_cast<size_t>(position)]) << position;
        }
    }
}

TEST_F(ChunkReading, RatesAndTimesOfAPicture) {
    open(1);
    move(PBST_FORWARD, 45);
    EXPECT_EQ(video.getTimePts(), at("12:00:01.500"));
    video.m_video.picH.pts = 0;
    EXPECT_EQ(video.getTimePts(), at("12:00:00"));

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
        long expected; ///< the exact picture; -1 = within the tolerance
        uint32_t toleranceMs;
        int maxReads;
    } rows[] = {
        {"a clean 30 fps", 30, -1, 1800, "12:10:10.500", -1, 99, 1},
        {"target's millisecond below the start's", 30, -1, 1800, "12:10:07.100", -1, 99, 1},
        {"a second after the end", 30, -1, 1800, "12:11:01", 1799, 0, 1},
        {"before the start", 30, -1, 1800, "12:10:00.249", 0, 0, 1},
        {"code says 30, recorded at 10", 10, 1, 600, "12:10:40", -1, 300, 6},
        {"code says 1, recorded at 30", 30, 9, 1800, "12:10:40", -1, 99, 6},
        {"no code", 25, 0, 1000, "12:10:33", -1, 120, 6},
        {"one picture each second", 1, -1, 100, "12:11:00.750", -1, 500, 1},
        {"a lone picture without code", 30, 0, 1, "12:10:00.900", 0, 0, 6},
    };
    uint32_t id = 1;
    for (const auto& row : rows) {
        test::StreamBuilder stream = card.stream(++id);
        stream.from("12:10:00.250").fps(row.fps).pictures(row.pictures).pictureSize(20);
        if (row.frameSet >= 0) stream.frameSet(static_cast<uint16_t>(row.frameSet));
        stream.closed();
        open(id);

        const WatchedReader& headers = watch(video.m_video.readPic);
        const PB_STREAM_TIME target = at(row.target);
        EXPECT_EQ(video.m_setOffset(target.seconds(), target.mSec), 0) << row.what;
        EXPECT_TRUE(headers.reads >= 1 && headers.reads <= row.maxReads) << row.what << headers.reads;
        EXPECT_EQ(headers.lastSeek, (video.getOffset() + 1) * 32) << row.what;
        const PB_STREAM_TIME here = video.getTimePts();
        const PB_STREAM_TIME apart = (here - target) + (target - here); // one of the two is 0
        EXPECT_TRUE(row.expected >= 0 ? video.getOffset() == static_cast<unsigned long>(row.expected)
                                      : !(apart > PB_STREAM_TIME(0, row.toleranceMs)))
            << row.what << " " << video.getOffset();
    }
}

TEST_F(ChunkReading, TimeStampsThatJumpOrStandStillEndTheSearchAfterFiveCorrections) {
    const auto stamp = [&](uint32_t picture, uint32_t seconds) {
        PICTURE_HEADER header = card.pictureHeader(1, picture);
        header.pts = seconds;
        card.setPictureHeader(1, picture, header);
    };
    card.sql("UPDATE STREAM SET endDate = startDate + 62");
    for (const bool jumps : {true, false}) {
        for (uint32_t picture = 0; picture < 90; ++picture)
            stamp(picture, jumps && picture > 44 ? 1060 : 1000);
        for (const char* target : {"12:00:02", "12:00:30", "12:01:01"}) {
            open(1);
            const WatchedReader& headers = watch(video.m_video.readPic);
            log.clear();
            EXPECT_EQ(video.m_setOffset(at(target).seconds(), 0), 0) << target << log.dump();
            EXPECT_EQ(headers.reads == 6,
                      log.has(LOG_ERR, "offset position is not fixed in 500mS accuracy.", "m_setOffset"));
            EXPECT_LE(headers.reads, 6);
        }
    }
}

TEST_F(ChunkReading, FalseRowsNeitherLeadOutsideNorDivideByZero) {
    open(1);
    const DB_STREAM row = video.m_video.db;
    for (const uint32_t pictures : {0u, 1u, 0x7FFFFFFFu, 0xFFFFFFFFu})
        for (const uint32_t seconds : {0u, 1u, 4294968u, 0xFFFFFFFFu}) {
            video.m_video.stH.pictures = pictures;
            video.m_video.db = row;
            video.m_video.db.startMSec = 65535;
            video.m_video.db.endDate = row.startDate + seconds;
            EXPECT_TRUE(video.m_setOffset(row.startDate + 1, 0) == -1 ||
                        video.m_video.picH.marker == kPictureMarker)
                << pictures << " " << seconds;
        }
}

} // namespace

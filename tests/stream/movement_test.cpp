#include "tests/stream/stream_fixture.h"

namespace {

using test::at;

class Movement : public StreamTest {};

TEST_F(Movement, StartsAtTheFirstIPictureWithinReach) {
    const struct {
        uint32_t firstI;
        unsigned long expected;
    } rows[] = {{0, 0}, {5, 5}, {239, 239}, {240, 0}};
    uint32_t id = 0;
    for (const auto& row : rows) {
        card.stream(++id).from("12:00:00.750").pictures(250).firstI(row.firstI).closed();
        EXPECT_EQ(open(id), at("12:00:00.750"));
        EXPECT_EQ(video.getOffset(), row.expected);
        EXPECT_EQ(picH, card.pictureHeader(id, static_cast<uint32_t>(row.expected)));
        EXPECT_EQ(db.streamID, id);
        EXPECT_EQ(stH.pictures, 250u);
    }
    EXPECT_EQ(open(99), kNowhere);
    EXPECT_TRUE(log.has(LOG_ERR, "CPbStreamVideo::getId() id = 99 error"));
    EXPECT_EQ(video.m_video.db.streamID, 0u);
    EXPECT_EQ(move(PBST_FORWARD, 1), -1);
    EXPECT_TRUE(log.has(LOG_ERR, "CPbStreamVideo::move() stream not exist!!"));
}

TEST_F(Movement, MovesAndSearches) {
    // I-pictures at 7, 37 and 67 of 90.
    card.stream(1).from("12:00:00").pictures(90).firstI(7).gop(30).closed();
    open(1);
    const struct {
        const char* what;
        uint32_t from, kind, count, search;
        long result;
        uint32_t offset;
        int headers;
        const char* message;
    } rows[] = {
        {"one ahead", 10, PBST_FORWARD, 1, 0, 11, 11, 1, ""},
        {"past the end", 89, PBST_FORWARD, 1, 0, -1, 89, 1, "offset >= pictures"},
        {"far past the end", 3, PBST_FORWARD, 0x7FFFFFFF, 1, -1, 89, 1, "offset >= pictures"},
        {"back to the first", 5, PBST_BACKWARD, 5, 0, 0, 0, 1, ""},
        {"past the start", 5, PBST_BACKWARD, 10, 0, -1, 0, 1, "(offset - move) < 0"},
        {"next I-picture", 38, PBST_FORWARD, 0, kSearchForward, 67, 67, 30, ""},
        {"I-picture before", 66, PBST_FORWARD, 0, kSearchBackward, 37, 37, 30, ""},
        {"back, then ahead", 30, PBST_BACKWARD, 10, kSearchForward, 37, 37, 18, ""},
        {"none before", 4, PBST_BACKWARD, 1, kSearchBackward, -1, 3, 5, "m_iPicSearch() error"},
        {"none ahead", 70, PBST_FORWARD, 10, kSearchForward, -1, 80, 11, "m_iPicSearch() error"},
    };
    const WatchedReader& headers = watch(video.m_video.readPic);
    for (const auto& row : rows) {
        video.m_video.offset = row.from;
        log.clear();
        const int before = headers.reads;
        EXPECT_EQ(
            move(static_cast<unsigned char>(row.kind), row.count, static_cast<unsigned char>(row.search)),
            row.result)
            << row.what;
        EXPECT_EQ(video.getOffset(), row.offset) << row.what;
        EXPECT_EQ(headers.reads - before, row.headers) << row.what;
        EXPECT_EQ(picH, card.pictureHeader(1, row.offset)) << row.what;
        EXPECT_TRUE(row.result >= 0 || log.has(LOG_INFO, row.message, "move")) << row.what << log.dump();
    }
    for (unsigned char kind = 2; kind <= 4; ++kind) EXPECT_EQ(move(kind, 1), -1);
    EXPECT_EQ(log.count(LOG_ERR, "PBST_OFFSET/TOP/END not supported.", "move"), 3);
}

TEST_F(Movement, PlayingAFinishedStreamReadsTwiceAndAllocatesNothing) {
    card.stream(1).from("12:00:00").pictures(90).closed();
    open(1);
    std::vector<unsigned char> buffer(kMaxPictureBytes);
    const WatchedReader& headers = watch(video.m_video.readPic);
    const WatchedReader& data = watch(video.m_video.readSt);
    const long before = test::allocations;
    for (long picture = 1; picture < 90; ++picture) {
        ASSERT_EQ(move(PBST_FORWARD, 1), picture);
        video.getDb(&db);
        video.getStH(&stH);
        video.getPicH(&picH);
        ASSERT_EQ(video.get(buffer.data()), picture);
    }
    EXPECT_EQ(test::allocations, before);
    EXPECT_EQ(headers.reads, 89);
    EXPECT_EQ(data.reads, 89);
}

// ---- a stream under recording ----

class UnderRecording : public StreamTest {
protected:
    UnderRecording() {
        card.stream(1).from("12:00:00.900").pictures(100).firstI(3).recording();
        recorderSays(1, 100);
    }
};

TEST_F(UnderRecording, GrowsInPlace) {
    STREAM_HEADER unsealed = card.streamHeader(1);
    unsealed.cs ^= 1; // as it stands while the recorder is at it
    card.setStreamHeader(1, unsealed, false);
    ASSERT_EQ(open(1), at("12:00:00.900"));
    EXPECT_EQ(video.getOffset(), 3u)
        << "the first refresh begins at picture 0, from where the I-picture is searched";
    move(PBST_FORWARD, 40);
    card.grow(30);
    recorderSays(1, 130);
    video.getDb(&db);
    video.getStH(&stH);
    EXPECT_EQ(db.chunkSize, 131u * 32);
    EXPECT_EQ(stH.pictures, 130u);
    EXPECT_EQ(PB_STREAM_TIME(db.endDate, db.endMSec), at("12:00:05.200"));
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
        EXPECT_TRUE(row.message == nullptr || log.has(LOG_ERR, row.message, "m_updateRecStream"))
            << log.dump();
    }
    card.grow(4);
    recorderSays(1, 104);
    EXPECT_EQ(video.m_updateRecStream(), 0) << "all of it is there now";
    EXPECT_EQ(video.getOffset(), 0u) << "the first refresh after the recorder was lost begins anew";

    Stream alone(nullptr);
    EXPECT_EQ(alone.getId(1, &db, &stH, &picH, 0), kNowhere);
    EXPECT_TRUE(log.has(LOG_ERR, "shared memory error", "m_updateRecStream"));
}

} // namespace

#include "tests/stream/stream_fixture.h"

namespace {

using test::at;

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

} // namespace

#include <gtest/gtest.h>

#include "stream/records.h"
#include "stream/stream_time.h"
#include "tests/support/worked_example.h"
#include "tools/recording/recording_writer.h"

namespace {

constexpr const char* kPage = "on-card-formats.md";
constexpr uint32_t kHeaderArea = 4096;
constexpr uint32_t kPictureData = kHeaderArea + 301 * kHeaderBytes;

template <class Record> void expectOnPage(const char* name, const Record& record) {
    EXPECT_EQ(test::exampleBytes(kPage, name, sizeof record), test::bytesOf(record)) << name;
}

TEST(OnCardFormatsPage, ExamplesAreWhatTheRecordsHold) {
    const STREAM_HEADER stream =
        sealed(STREAM_HEADER{kStreamMarker, 7, kPictureData, 2'400'000, 1000, 240, 30, 0, 0});
    expectOnPage("stream-header", stream);
    expectOnPage("header-locator",
                 CHUNK_EVENT{3, CHUNK_KIND_STREAM, kHeaderArea, (stream.pictures + 1) * kHeaderBytes});

    const PICTURE_HEADER first =
        sealed(PICTURE_HEADER{kPictureMarker, 7, kPictureData, 26472, 1000, 1, 0, 980, 0});
    expectOnPage("first-picture-header", first);
    EXPECT_TRUE(isIPicture(first));

    PICTURE_HEADER second = first;
    second.offset = first.offset + first.size;
    second.size = 14813;
    second.pts = 1001;
    second.msec = 13;
    second.pictures = 0;
    expectOnPage("second-picture-header", sealed(second));
    EXPECT_FALSE(isIPicture(second));

    const PB_STREAM_TIME shown =
        PB_STREAM_TIME(1704164645, 250) + PB_STREAM_TIME(1001, 13) - PB_STREAM_TIME(1000, 980);
    EXPECT_EQ(shown, PB_STREAM_TIME(1704164645, 283));
}

} // namespace

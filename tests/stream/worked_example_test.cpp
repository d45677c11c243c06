#include <gtest/gtest.h>

#include "stream/records.h"
#include "stream/stream_time.h"
#include "tests/support/worked_example.h"
#include "tools/recording_writer.h"

namespace {

constexpr const char* kPage = "on-card-formats.md";
constexpr uint32_t kHeaderArea = 4096;
constexpr uint32_t kPictureData = kHeaderArea + 301 * kHeaderBytes;
constexpr uint32_t kFirstPictureBytes = 26472;

template <class Record> void expectOnPage(const char* name, const Record& record) {
    EXPECT_EQ(test::exampleBytes(kPage, name, sizeof record), test::bytesOf(record)) << name;
}

TEST(OnCardFormatsPage, ExamplesAreWhatTheRecordsHold) {
    const STREAM_HEADER stream = sealed(STREAM_HEADER{.marker = kStreamMarker,
                                                      .id = 7,
                                                      .offset = kPictureData,
                                                      .size = 2'400'000,
                                                      .pts = 1000,
                                                      .pictures = 240,
                                                      .gops = 30,
                                                      .reserved = 0,
                                                      .cs = 0});
    expectOnPage("stream-header", stream);
    expectOnPage("header-locator",
                 CHUNK_EVENT{3, CHUNK_KIND_STREAM, kHeaderArea, (stream.pictures + 1) * kHeaderBytes});

    const PICTURE_HEADER first = sealed(PICTURE_HEADER{.marker = kPictureMarker,
                                                       .id = 7,
                                                       .offset = kPictureData,
                                                       .size = kFirstPictureBytes,
                                                       .pts = 1000,
                                                       .pictures = 1,
                                                       .reserved = 0,
                                                       .msec = 980,
                                                       .cs = 0});
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

#include <gtest/gtest.h>

#include "stream/records.h"
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

    expectOnPage("first-picture-header",
                 sealed(PICTURE_HEADER{kPictureMarker, 7, kPictureData, 26472, 1000, 1, 0, 980, 0}));
    expectOnPage("second-picture-header",
                 sealed(PICTURE_HEADER{kPictureMarker, 7, kPictureData + 26472, 14813, 1001, 0, 0, 13, 0}));
}

} // namespace

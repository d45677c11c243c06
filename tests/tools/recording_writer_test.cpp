// The recorder's writer, byte for byte.
#include <gtest/gtest.h>

#include "platform/paths.h"
#include "tests/support/card.h"

namespace test {
namespace {

StreamSettings stream(uint32_t id, uint32_t capacity) {
    return {.streamId = id, .startMs = atMs("12:00:00.980"), .capacity = capacity};
}

std::string words(std::initializer_list<uint32_t> header) {
    return {reinterpret_cast<const char*>(header.begin()), header.size() * 4};
}

// A chunk of 4096 bytes is filled from byte 3968 on, so that the first picture goes round its end.
TEST(RecordingWriter, WritesATinyStreamToTheLetter) {
    const World world;
    Card card(world, 4096);
    const auto headersAre = [&](const std::string& bytes) {
        EXPECT_EQ(readFile(card.chunkPath(7)).substr(3968, bytes.size()), bytes);
    };
    RecordingWriter& writer = card.writer();
    writer.beginStream(stream(7, 2));
    EXPECT_EQ(readFile(card.chunkPath(7)).size(), 4096u);
    headersAre(words({0xFFFFFFFF, 7, 4064, 0, 0, 0, 30, 0x10030000})); // size not known yet
    DB_STREAM row = card.row(7);
    EXPECT_EQ(uint64_t{row.startDate} * 1000 + row.startMSec, atMs("12:00:00.980"));
    EXPECT_EQ(row.status, DB_STATUS_RECORDING);
    EXPECT_EQ(row.chunkSize + row.recSize, 0u);

    const std::string first = "some bytes of a picture, round the end";
    EXPECT_TRUE(writer.addPicture({first, 1000250, true}));
    EXPECT_TRUE(writer.addPicture({"other", 1000283, false}));
    EXPECT_FALSE(writer.addPicture({"third", 1000316, false})) << "no header is free";
    writer.finishStream();
    headersAre(words({0xFFFFFFFF, 7, 4064, 43, 1000, 2, 30, 0x14180000, //
                      0xFFFFFFFE, 7, 4064, 38, 1000, 1, 0,  0x14ED00FA, //
                      0xFFFFFFFE, 7, 6,    5,  1000, 0, 0,  0x0512011B}) +
               first.substr(0, 32));
    EXPECT_EQ(readFile(card.chunkPath(7)).substr(0, 11), first.substr(32) + "other");
    row = card.row(7);
    EXPECT_EQ(uint64_t{row.endDate} * 1000 + row.endMSec, atMs("12:00:01.013")) << "the last picture's";
    EXPECT_EQ(row.status, 0u);
    EXPECT_EQ(row.chunkSize, 96u);
    EXPECT_EQ(row.recSize, 2u);
}

TEST(RecordingWriter, RefusesWhatDoesNotFit) {
    const World world;
    Card card(world, 4096);
    RecordingWriter& writer = card.writer();
    EXPECT_THROW(writer.addPicture({"picture", 0, true}), RecordingError) << "no stream";
    writer.beginStream(stream(3, 1));
    for (const uint32_t bytes : {kMinPictureBytes - 1, kMaxPictureBytes + 1})
        EXPECT_THROW(writer.addPicture({std::string(bytes, 'x'), 0, true}), RecordingError);
    EXPECT_FALSE(writer.addPicture({std::string(4096, 'x'), 0, true})) << "headers take some of the chunk";
    writer.finishStream();
    EXPECT_THROW(writer.beginStream(stream(3, 1)), RecordingError) << "the id is in use";
    EXPECT_THROW(writer.beginStream(stream(4, 127)), RecordingError) << "headers as large as a chunk";
    EXPECT_THROW(RecordingWriter({world.root() + "/none", paths().index}), RecordingError);
}

} // namespace
} // namespace test

// The recorder's writer, byte for byte.
#include <gtest/gtest.h>

#include "platform/paths.h"
#include "tests/support/card.h"

namespace test {
namespace {

StreamSettings stream(uint32_t id, uint32_t capacity) {
    StreamSettings settings;
    settings.streamId = id;
    settings.startMs = atMs("12:00:00.980");
    settings.capacity = capacity;
    return settings;
}

// A chunk of 1024 bytes is filled from byte 992 on, so that this stream's first record ends with the chunk
// and all the rest lies at its start.
TEST(RecordingWriter, WritesATinyStreamToTheLetter) {
    World world;
    Card card(world, 1024);
    const auto chunkIs = [&](size_t from, const std::string& bytes) {
        EXPECT_EQ(readFile(card.chunkPath(7)).substr(from, bytes.size()), bytes) << "at " << from;
    };
    const auto words = [](std::initializer_list<uint32_t> header) {
        return std::string(reinterpret_cast<const char*>(header.begin()), header.size() * 4);
    };
    RecordingWriter& writer = card.writer();
    writer.beginStream(stream(7, 2));
    EXPECT_EQ(readFile(card.chunkPath(7)).size(), 1024u);
    chunkIs(992, words({0xFFFFFFFF, 7, 64, 0, 0, 0, 30, 0x00630000})); // size not known yet
    DB_STREAM row = card.row(7);
    EXPECT_EQ(uint64_t{row.startDate} * 1000 + row.startMSec, atMs("12:00:00.980"));
    EXPECT_EQ(row.status, DB_STATUS_RECORDING);
    EXPECT_EQ(row.chunkSize + row.recSize, 0u);

    EXPECT_TRUE(writer.addPicture({"abcdef", 1000250, true}));
    EXPECT_TRUE(writer.addPicture({"ghijk", 1000283, false}));
    EXPECT_FALSE(writer.addPicture({"lmnop", 1000316, false})) << "no header is free";
    writer.finishStream();
    chunkIs(992, words({0xFFFFFFFF, 7, 64, 11, 1000, 2, 30, 0x04580000}));
    chunkIs(0, words({0xFFFFFFFE, 7, 64, 6, 1000, 1, 0, 0x052D00FA, //
                      0xFFFFFFFE, 7, 70, 5, 1000, 0, 0, 0x0552011B}) +
                   std::string("abcdefghijk\0", 12));
    row = card.row(7);
    EXPECT_EQ(uint64_t{row.endDate} * 1000 + row.endMSec, atMs("12:00:01.013")) << "the last picture's";
    EXPECT_EQ(row.status, 0u);
    EXPECT_EQ(row.chunkSize, 3u * 32);
    EXPECT_EQ(row.recSize, 2u);
}

TEST(RecordingWriter, FillsChunkAfterChunkWithoutEverOverwriting) {
    World world;
    Card card(world, 8192);
    const auto data = [](uint32_t id, uint32_t n) {
        return std::string(40 + (id * 31 + n * 17) % 200, static_cast<char>('A' + (id * 5 + n) % 57));
    };
    std::vector<uint32_t> pictures{0}; // of each stream
    bool wrapped = false;
    do {
        const uint32_t id = card.writer().beginStream(stream(0, 20));
        while (card.writer().addPicture({data(id, card.writer().pictures()), 1'000'000, true})) continue;
        pictures.push_back(card.writer().pictures());
        card.writer().finishStream();
        wrapped |= card.writer().placement().wrapped;
    } while (card.writer().placement().chunkId < 4);
    EXPECT_TRUE(wrapped);
    for (uint32_t id = 1; id < pictures.size(); ++id) {
        const std::string chunk = readFile(card.chunkPath(id)), ring = chunk + chunk;
        EXPECT_EQ(card.streamHeader(id).pictures, pictures[id]);
        EXPECT_EQ(card.streamHeader(id).cs, headerChecksum(card.streamHeader(id)));
        for (uint32_t n = 0; n < pictures[id]; ++n) {
            const PICTURE_HEADER header = card.pictureHeader(id, n);
            EXPECT_EQ(header.cs, headerChecksum(header));
            EXPECT_EQ(ring.substr(header.offset, header.size), data(id, n)) << id << "/" << n;
        }
    }
}

TEST(RecordingWriter, RefusesWhatDoesNotFit) {
    World world;
    Card card(world, 4096);
    RecordingWriter& writer = card.writer();
    writer.beginStream(stream(3, 1));
    EXPECT_THROW(writer.addPicture({std::string(kMaxPictureBytes + 1, 'x'), 0, true}), RecordingError);
    writer.finishStream();
    EXPECT_THROW(writer.beginStream(stream(3, 1)), RecordingError) << "the id is in use";
    EXPECT_THROW(writer.beginStream(stream(4, 128)), RecordingError) << "headers larger than a chunk";
    EXPECT_THROW(RecordingWriter({world.root() + "/none", paths().index}), RecordingError);
    writeFile(paths().index, std::string(1000, 'x'));
    EXPECT_THROW(RecordingWriter({paths().card, paths().index}), RecordingError) << "no database";
}

} // namespace
} // namespace test

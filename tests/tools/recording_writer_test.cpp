// The recorder's writer, byte for byte.
#include <filesystem>
#include <gtest/gtest.h>

#include "platform/paths.h"
#include "tests/support/card.h"

namespace test {
namespace {

std::string fromHex(const std::string& hex) {
    std::string bytes;
    for (size_t at = 0; at < hex.size(); at += 3)
        bytes += static_cast<char>(std::stoi(hex.substr(at, 2), nullptr, 16));
    return bytes;
}

StreamSettings stream(uint32_t id, uint32_t capacity, const char* clock = "12:00:00.900") {
    StreamSettings settings;
    settings.streamId = id;
    settings.startMs = atMs(clock);
    settings.capacity = capacity;
    return settings;
}

// A chunk of 1024 bytes is filled from byte 992 on, so that this stream's first record ends with the chunk
// and all the rest lies at its start.
TEST(RecordingWriter, WritesATinyStreamToTheLetter) {
    World world;
    Card card(world, 1024);
    RecordingWriter& writer = card.writer();
    writer.beginStream(stream(7, 2));
    const auto chunk = [&](size_t from, size_t count) {
        return readFile(paths().card + std::string("/chunk00001")).substr(from, count);
    };
    EXPECT_EQ(chunk(0, 2000).size(), 1024u);
    EXPECT_EQ(chunk(992, 32), fromHex("FF FF FF FF 07 00 00 00 40 00 00 00 00 00 00 00 "
                                      "00 00 00 00 00 00 00 00 1E 00 00 00 00 00 63 00"))
        << "while recording: sealed, size not known yet";

    EXPECT_TRUE(writer.addPicture({"abcdef", 1000250, true}));
    EXPECT_TRUE(writer.addPicture({"ghijk", 1000283, false}));
    EXPECT_FALSE(writer.addPicture({"lmnop", 1000316, false})) << "no header is free";
    EXPECT_EQ(writer.pictures(), 2u);
    writer.finishStream();
    EXPECT_EQ(chunk(992, 32), fromHex("FF FF FF FF 07 00 00 00 40 00 00 00 0B 00 00 00 "
                                      "E8 03 00 00 02 00 00 00 1E 00 00 00 00 00 58 04"));
    EXPECT_EQ(chunk(0, 32), fromHex("FE FF FF FF 07 00 00 00 40 00 00 00 06 00 00 00 "
                                    "E8 03 00 00 01 00 00 00 00 00 00 00 FA 00 2D 05"));
    EXPECT_EQ(chunk(32, 32), fromHex("FE FF FF FF 07 00 00 00 46 00 00 00 05 00 00 00 "
                                     "E8 03 00 00 00 00 00 00 00 00 00 00 1B 01 52 05"));
    EXPECT_EQ(chunk(64, 12), std::string("abcdefghijk\0", 12));
}

TEST(RecordingWriter, RowTellsARecordingStreamFromAFinishedOne) {
    World world;
    Card card(world);
    StreamSettings settings = stream(0, 400);
    settings.frameSet = 0;
    EXPECT_EQ(card.writer().beginStream(settings), 1u);
    const uint32_t start = at("12:00:00").seconds();
    DB_STREAM row = card.row(1);
    EXPECT_EQ(row.status, DB_STATUS_RECORDING);
    EXPECT_EQ(row.chunkSize, 0u);
    EXPECT_EQ(row.recSize, 0u);
    EXPECT_EQ(row.startDate, start);
    EXPECT_EQ(row.startMSec, 900);
    for (uint32_t n = 0; n < 301; ++n) card.writer().addPicture({"picture", 1'000'000 + n * 100 / 3, n == 0});
    card.writer().finishStream();
    row = card.row(1);
    EXPECT_EQ(row.status, 0u);
    EXPECT_EQ(row.chunkSize, 302u * 32);
    EXPECT_EQ(row.endDate, start + 10);
    EXPECT_EQ(row.endMSec, 900) << "the last picture's time";
    EXPECT_EQ(row.recSize / (row.endDate - row.startDate) * 10, 300u)
        << "the frame rate as playback derives it";

    EXPECT_EQ(card.writer().beginStream(stream(0, 1)), 2u);
    card.writer().finishStream(atMs("12:30:00.001"));
    EXPECT_EQ(card.row(2).endDate, at("12:30:00").seconds());
    EXPECT_EQ(card.row(2).endMSec, 1);
}

TEST(RecordingWriter, FillsChunkAfterChunkWithoutEverOverwriting) {
    World world;
    Card card(world, 8192);
    const auto data = [](uint32_t id, uint32_t n) {
        return std::string(40 + (id * 31 + n * 17) % 200, static_cast<char>('A' + (id * 5 + n) % 57));
    };
    uint32_t last = 0;
    std::vector<uint32_t> pictures{0};
    bool wrapped = false;
    for (; last == 0 || card.row(last).chunkID < 4; wrapped |= card.writer().placement().wrapped) {
        last = card.writer().beginStream(stream(0, 20));
        while (card.writer().addPicture({data(last, card.writer().pictures()), 1'000'000, true})) continue;
        pictures.push_back(card.writer().pictures());
        card.writer().finishStream();
    }
    EXPECT_TRUE(wrapped);
    for (uint32_t id = 1; id <= last; ++id) {
        const std::string chunk = readFile(card.chunkPath(id));
        const std::string ring = chunk + chunk;
        EXPECT_EQ(card.streamHeader(id).pictures, pictures[id]);
        EXPECT_EQ(card.streamHeader(id).cs, headerChecksum(card.streamHeader(id)));
        for (uint32_t n = 0; n < pictures[id]; ++n) {
            const PICTURE_HEADER header = card.pictureHeader(id, n);
            EXPECT_EQ(header.cs, headerChecksum(header));
            EXPECT_EQ(ring.substr(header.offset, header.size), data(id, n)) << id << "/" << n;
        }
    }
}

TEST(RecordingWriter, NamesTheFileThatCannotBeWritten) {
    World world;
    Card card(world, 4096);
    card.stream(3).from("12:00:00").pictures(2).closed();
    const std::string notADatabase = world.root() + "/text";
    writeFile(notADatabase, std::string(1000, 'x'));
    const std::string huge(kMaxPictureBytes + 1, 'x');
    const struct {
        const char* what;
        std::function<void()> act;
        std::string names;
    } cases[] = {
        {"id in use", [&] { card.writer().beginStream(stream(3, 1)); }, paths().index},
        {"headers larger than a chunk", [&] { card.writer().beginStream(stream(4, 128)); }, "4096"},
        {"picture too large",
         [&] {
             card.writer().beginStream(stream(5, 1));
             card.writer().addPicture({huge, 0, true});
         },
         "chunk0000"},
        {"no index",
         [&] {
             RecordingWriter({paths().card, notADatabase});
         },
         notADatabase},
        {"no card",
         [&] {
             RecordingWriter({world.root() + "/none", paths().index});
         },
         "/none"},
    };
    for (const auto& testCase : cases) {
        try {
            testCase.act();
            ADD_FAILURE() << testCase.what << " passes";
        } catch (const RecordingError& error) {
            EXPECT_NE(std::string(error.what()).find(testCase.names), std::string::npos) << error.what();
        }
    }
}

} // namespace
} // namespace test

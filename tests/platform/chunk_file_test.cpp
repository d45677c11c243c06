#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <tuple>

#include "platform/paths.h"
#include "platform/zuvo_chunk.h"
#include "stream/records.h"
#include "tests/support/world.h"

namespace {

namespace fs = std::filesystem;
using std::operator""s;

struct ChunkFile : testing::Test {
    test::World world;
    const std::string card = paths().card + "/"s, path = card + "chunk00007";
    CZUVOStreamChunk chunk{0};

    int open(uint32_t offset, uint16_t id = 7) {
        CHUNK_EVENT area{id, CHUNK_KIND_STREAM, offset, 9};
        return chunk.openChunkFile(&area);
    }
    /// What one read of `length` gives; "-" for a failure.
    std::string read(long length) {
        std::string bytes(static_cast<size_t>(length), '?');
        const long got = chunk.read(bytes.data(), length);
        return got == -1 ? "-" : bytes.substr(0, static_cast<size_t>(got));
    }
};

TEST_F(ChunkFile, ReadsRoundTheRingAndNeverMoreThanOnce) {
    test::writeFile(path, "0123456789");
    ASSERT_NE(open(6), -1);
    for (const auto& [length, bytes] : {std::pair{3, "678"}, {4, "9012"}, {100, "3456789012"}})
        EXPECT_EQ(read(length), bytes);
    EXPECT_EQ(chunk.seekEvent(9, 0), 0);
    EXPECT_EQ(read(2), "56");
    for (const long position : {-1L, 10L, 1L << 30}) EXPECT_EQ(chunk.seekEvent(position, 0), -1) << position;
    EXPECT_EQ(read(1), "7") << "a refused seek moves nothing";

    fs::resize_file(path, 9);
    EXPECT_EQ(read(10), "-") << "shrunk under the reader";
    test::patchFile(path, 0xFFFFFFFC, "end"); // sparse
    ASSERT_NE(open(0xFFFFFFFD), -1) << "as large as a 32-bit word can tell";
    EXPECT_EQ(read(4), "nd01");
}

TEST_F(ChunkFile, OpensAnAreaOfTheChunkAsItIsNowAndKeepsADescriptorNoLongerThanItsThread) {
    const auto before = test::openFiles();
    mkfifo((card + "chunk00010").c_str(), 0600);
    fs::create_directory(card + "chunk00011");
    const std::tuple<const char*, uint32_t, uint16_t> refused[] = {
        {"a pipe", 0, 10}, {"a directory", 0, 11}, {"behind the end", 10, 7}};
    const auto areas = [&] {
        test::writeFile(path, "0123456789");
        for (const auto& [what, offset, id] : refused) {
            ASSERT_NE(open(9), -1);
            EXPECT_EQ(open(offset, id), -1) << what;
            EXPECT_TRUE(read(1) == "-" && chunk.getChunkSize() == 0) << what << ": what was open is closed";
        }
        test::writeFile(path + ".new", "replaced by a longer one");
        fs::rename(path + ".new", path);
        EXPECT_TRUE(open(0) != -1 && read(99) == "replaced by a longer one");
        fs::resize_file(path, 5);
        EXPECT_TRUE(open(0) != -1 && chunk.getChunkSize() == 5);
        fs::remove(path);
        EXPECT_EQ(open(0), -1) << "removed under the descriptor";
    };
    areas();
    EXPECT_EQ(test::openFiles(), before) << "the first thread, which never ends, keeps none";
    std::thread([&] {
        areas();
        test::writeFile(path, "back");
        CZUVOStreamChunk other{1};
        CHUNK_EVENT size{7, CHUNK_KIND_STREAM, 0, 1}, area{7, CHUNK_KIND_STREAM, 1, 3};
        EXPECT_TRUE(chunk.openChunkFile(&size) != -1 && open(0) != -1 && other.openChunkFile(&area) != -1);
        EXPECT_EQ(test::openFiles(), before + 1) << "one for both areas of a stream";
        fs::remove(path);
        EXPECT_EQ(other.openChunkFile(&area), -1) << "the look at the size served its two areas";
    }).join();
    EXPECT_EQ(read(9), "back") << "removed, but open";
}

} // namespace

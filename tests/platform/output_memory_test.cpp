#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "platform/kw_com.h"
#include "platform/output_reader.h"
#include "platform/output_words.h"
#include "platform/paths.h"
#include "tests/support/worked_example.h"
#include "tests/support/world.h"

namespace {

using namespace std::chrono_literals;

struct OutputMemory : testing::Test {
    test::World world;
    const char* const keyFile = paths().ipcKey;
    KW_SHM shm{};
    OutputReader reader;
    OutputBlock block;

    ~OutputMemory() override { shm_destroy(&shm); }

    int create(unsigned long dataBytes, int blocks = 30, unsigned long blockBytes = 0) {
        return shm_create(keyFile, kOutputMemoryProject, &shm, 1, blockBytes ? blockBytes : dataBytes,
                          dataBytes, blocks, 0);
    }
    bool attach() { return reader.attach(keyFile, kOutputMemoryProject); }
    int write(const std::string& data, uint32_t timestamp = 0) {
        return shm_write_data(&shm, data.data(), data.size(), 0, 0, 0, timestamp, 0);
    }
    ReadResult next(std::chrono::milliseconds timeout = 20ms) { return reader.next(block, timeout); }
    std::string read() const { return {block.data.begin(), block.data.end()}; }

    /// The segment as a hostile or broken writer could change it; stays attached.
    char* bytes() const { return static_cast<char*>(shmat(shmget(world.outputKey(), 0, 0), nullptr, 0)); }
};

TEST_F(OutputMemory, LiesInTheSegmentAsTheLayoutSaysAndTakesNothingElse) {
    EXPECT_TRUE(write("x") < 0 && shm_destroy(&shm) < 0) << "before shm_create";
    EXPECT_TRUE(create(0) < 0 && create(1ul << 31) < 0 && create(10, 0) < 0 && create(10, 3, 11) < 0);
    EXPECT_EQ(shmget(world.outputKey(), 0, 0) + semget(world.outputKey(), 0, 0), -2) << "nothing left behind";
    EXPECT_TRUE(!attach() && errno == ENOENT);
    ASSERT_EQ(create(16, 3), 0);
    EXPECT_TRUE(write(std::string(kPauseBlock), 90) == 0 && write("0123456789ab", 3090) == 0);
    EXPECT_TRUE(write("") < 0 && write("0123456789abcdefg") < 0);
    const auto* const base = bytes();
    EXPECT_EQ(std::string(base, 144), test::exampleBytes("output-memory.md", "output-memory", 144));
    shmid_ds segment{};
    shmctl(static_cast<int>(shm.shmId), IPC_STAT, &segment);
    EXPECT_EQ(segment.shm_perm.mode & 0777, 0640);
    for (const size_t length : {16u, 5u, 5u, 8u, 8u}) EXPECT_EQ(write(std::string(length, 'x')), 0);
    EXPECT_EQ(base[36], 6) << "two of eight bytes fill the ring";
    EXPECT_EQ(shm_destroy(&shm), 0);
    EXPECT_EQ(base[32] + base[44], kOutputEnded + 8) << "the end rings too";
}

TEST_F(OutputMemory, AReaderIsToldWhatItMissedAndWokenByEachBlockAndByTheEnd) {
    ASSERT_EQ(create(10, 3), 0);
    auto* const header = reinterpret_cast<OutputHeader*>(bytes());
    header->newest = UINT32_MAX - 2; // the numbers wrap
    header->oldest = UINT32_MAX - 1;
    write("before");
    ASSERT_TRUE(attach());
    rusage before{}, after{};
    getrusage(RUSAGE_THREAD, &before);
    EXPECT_EQ(next(), ReadResult::timeout) << "it starts behind the newest";
    getrusage(RUSAGE_THREAD, &after);
    EXPECT_GT(after.ru_nvcsw, before.ru_nvcsw) << "and sleeps";
    for (uint32_t i = 0; i < 5; ++i) write(std::to_string(i), i);
    EXPECT_TRUE(next() == ReadResult::block && block.missed == 2 && read() == "2") << "three are held";
    std::atomic<uint32_t> seen = 3;
    std::thread writer([&] {
        for (uint32_t i = 5; i < 30; ++i) {
            while (seen < i) std::this_thread::yield(); // until it is about to sleep
            write(std::to_string(i), i);
        }
        shm_destroy(&shm);
    });
    const auto begin = std::chrono::steady_clock::now();
    for (uint32_t i = 3; next(60s) == ReadResult::block; seen = ++i)
        EXPECT_TRUE(block.sequence == i - 1 && block.timestamp == i && read() == std::to_string(i)) << i;
    EXPECT_EQ(seen.exchange(UINT32_MAX), 30u); // the writer goes on, whatever went wrong
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 8s) << "half a second each when it only looks";
    writer.join();
}

TEST_F(OutputMemory, OneWriterLivesAtATimeAndADeadOneIsReplaced) {
    const pid_t writer = fork();
    if (writer == 0) {
        if (create(1000) == 0 && write("last") == 0) pause();
        _exit(1);
    }
    while (!attach()) ASSERT_EQ(waitpid(writer, nullptr, WNOHANG), 0);
    reader.rewind();
    EXPECT_EQ(next(60s), ReadResult::block);
    EXPECT_TRUE(create(1000) < 0 && errno == EAGAIN);
    kill(writer, SIGKILL);
    waitpid(writer, nullptr, 0);
    EXPECT_EQ(next(), ReadResult::abandoned);
    EXPECT_FALSE(OutputReader().attach(keyFile, kOutputMemoryProject)) << "nobody starts on its memory";
    ASSERT_EQ(create(1000), 0);
    EXPECT_EQ(next(), ReadResult::abandoned) << "the claim taken now is another memory's";
    EXPECT_TRUE(attach());
}

TEST_F(OutputMemory, AThousandKilledReadersSeeNoTornBlockAndLeaveTheWriterAndTheNextReaderAlone) {
    ASSERT_EQ(create(500'000), 0);
    const auto data = [](uint32_t n) {
        return std::string(n * 30'011 % 90'000 + 1, static_cast<char>('a' + n % 26));
    };
    uint32_t written = 0;
    for (useconds_t kills = 0; kills < (TAVIRN_SANITIZED ? 100 : 1000); ++kills) {
        const pid_t child = fork();
        if (child == 0) {
            ualarm(1 + kills * 7919 % 2000, 0); // kills it
            for (attach(); next(60s) != ReadResult::block || read() == data(block.sequence);) reader.rewind();
            _exit(1);
        }
        int end = 0;
        do ASSERT_EQ(write(data(++written)), 0);
        while (waitpid(child, &end, WNOHANG) == 0);
        ASSERT_TRUE(WIFSIGNALED(end)) << "has seen a torn block";
        ASSERT_TRUE(attach());
        for (reader.rewind(); next(0ms) == ReadResult::block;) ASSERT_EQ(read(), data(block.sequence));
        EXPECT_EQ(block.sequence, written);
    }
}

TEST_F(OutputMemory, AReaderTrustsNothingItFinds) {
    ASSERT_EQ(create(16, 3), 0);
    ASSERT_EQ(write("one"), 0);
    char* const base = bytes();
    const std::string whole(base, 144);
    const std::pair<size_t, uint32_t> damages[] = {
        {0, 0},         {4, 2},         {8, 145}, {12, 1u << 30},   {16, 0},  {20, 17},
        {24, 1u << 31}, {28, 3},        {32, 9},                                                // the header
        {36, 3},        {36, 1u << 31}, {40, 4},  {40, UINT32_MAX},                             // numbers
        {80, 2},        {84, 0},        {84, 17}, {84, UINT32_MAX}, {92, 16}, {92, UINT32_MAX}, // its slot
    };
    for (const auto& [offset, value] : damages) {
        ASSERT_TRUE(attach());
        reader.rewind();
        std::memcpy(base + offset, &value, sizeof value);
        EXPECT_EQ(next(), ReadResult::damaged) << offset << " while attached";
        EXPECT_EQ(attach(), offset >= 36) << offset;
        std::memcpy(base, whole.data(), whole.size());
    }
    shmctl(shmget(world.outputKey(), 0, 0), IPC_RMID, nullptr);
    ASSERT_NE(shmget(world.outputKey(), 143, IPC_CREAT | 0600), -1);
    std::memcpy(bytes(), whole.data(), whole.size()); // within the page
    EXPECT_TRUE(!attach() && errno == EPROTO) << "speaks of more than the segment";
}

} // namespace

// An index that is damaged, replaced, locked, or left behind by a recorder that was killed.
#include <csignal>
#include <filesystem>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/api_db.h"
#include "tests/campaigns/session.h"
#include "tools/recording/index_writer.h"

namespace test {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using namespace std::chrono_literals;

/// Longer than any query is allowed: three in a row.
constexpr auto kLongest = 7s;

class IndexCampaign : public CampaignTest {
protected:
    IndexCampaign() { EXPECT_EQ(engine.preGetData(), 1); }

    /// Whether every query fails, and within its time.
    bool fails(milliseconds longest = kLongest) {
        const auto begin = Clock::now();
        DB_STREAM row{};
        const bool failed = CApiDb().setSql("SELECT * FROM STREAM") != 0 && held.selectStream(1, &row) == 0;
        EXPECT_LT(Clock::now() - begin, longest);
        return failed;
    }
    static void run(sqlite3* index, const std::string& sql) {
        EXPECT_EQ(sqlite3_exec(index, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sql;
    }

    CApiDb held; ///< whose connection outlives the damages
};

TEST_F(IndexCampaign, BytesThatFlipNeverLeadAstray) {
    for (int damage = 0; damage < kDamages && !HasFailure(); ++damage) {
        SCOPED_TRACE("seed " + std::to_string(seed) + ", damage " + std::to_string(damage));
        std::string index = soundIndex;
        const size_t reach = damage % 3 == 0 ? 100 : index.size(); // its header, or anywhere
        for (uint32_t flips = 1 + below(8); flips > 0; --flips)
            index[below(reach)] ^= static_cast<char>(1u << below(8));
        writeFile(paths().index, index);
        useEverything();
        fails(); // or not, but in time
        writeFile(paths().index, soundIndex);
        ASSERT_TRUE(works());
    }
}

TEST_F(IndexCampaign, AFileCutAnywhereHasFailedUntilItIsWhole) {
    for (size_t size = 0; size < soundIndex.size(); size += size < 4096 ? 1 : 4096) {
        writeFile(paths().index, soundIndex.substr(0, size));
        ASSERT_TRUE(fails()) << size;
        if (size % 128 == 0) useEverything();
    }
    writeFile(paths().index, soundIndex);
    EXPECT_TRUE(works());
}

TEST_F(IndexCampaign, RemovedAndReplacedFilesAreNoticedAtTheNextQuestion) {
    const std::string index = paths().index;
    for (int round = 0; round < 50; ++round) {
        EXPECT_FALSE(fails());
        std::filesystem::rename(index, index + ".old");
        useEverything();
        EXPECT_TRUE(fails());
        if (round % 2 == 0) {
            writeFile(index, std::string(8192, 'n'));
            EXPECT_TRUE(fails()) << "no database";
            std::filesystem::remove(index);
            mkfifo(index.c_str(), 0600);
            EXPECT_TRUE(fails()) << "a pipe would wait for a writer";
        }
        sqlite3* other = nullptr;
        sqlite3_open((index + ".old").c_str(), &other);
        run(other, "UPDATE STREAM SET bitrateSet = " + std::to_string(round));
        sqlite3_close(other);
        std::filesystem::remove(index);
        writeFile(index, soundIndex);
        EXPECT_TRUE(works()) << round;
        std::filesystem::rename(index + ".old", index); // over the one that is open
        DB_STREAM row{};
        EXPECT_EQ(held.selectStream(1, &row), 1);
        EXPECT_EQ(row.bitrateSet, static_cast<uint32_t>(round));
        EXPECT_TRUE(works()) << round;
    }
}

TEST_F(IndexCampaign, AWriterThatHoldsTheLockOrDiesWithItCostsSecondsAtMost) {
    for (const std::string mode : {"DELETE", "WAL"}) {
        sqlite3* recorder = nullptr;
        ASSERT_EQ(sqlite3_open(paths().index, &recorder), SQLITE_OK);
        run(recorder, "PRAGMA journal_mode=" + mode + "; BEGIN EXCLUSIVE");
        EXPECT_EQ(fails(1s), mode == "DELETE") << "a log is read beside the writer";
        engine.play({{"Jump", "oldest"}}); // waits a while, and stays
        run(recorder, "COMMIT");
        EXPECT_TRUE(works());
        sqlite3_close(recorder);
        for (int kills = 0; kills < 10; ++kills) {
            const pid_t killed = fork();
            if (killed == 0) { // spills into the file before it is through
                sqlite3_open(paths().index, &recorder);
                sqlite3_exec(
                    recorder,
                    "PRAGMA cache_size=1; BEGIN; UPDATE STREAM SET startDate=7; WITH RECURSIVE n(i) AS "
                    "(SELECT 100 UNION ALL SELECT i+1 FROM n WHERE i<9000) INSERT INTO EVENT "
                    "SELECT i,7,0,8,0,512 FROM n",
                    nullptr, nullptr, nullptr);
                raise(SIGKILL);
            }
            waitpid(killed, nullptr, 0);
            EXPECT_EQ(fails(), mode == "DELETE") << "only a writer may roll back";
            useEverything();
            IndexWriter(paths().index).nextStreamId(); // the recorder is back
            EXPECT_TRUE(works()) << mode << kills;
        }
    }
}

} // namespace
} // namespace test

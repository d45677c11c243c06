#include <chrono>
#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/api_db.h"
#include "platform/paths.h"
#include "stream/records.h"
#include "tests/support/world.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

/// The other side: holds its connection, as the recorder does.
class Recorder {
public:
    explicit Recorder(const std::string& path) { EXPECT_EQ(sqlite3_open(path.c_str(), &m_index), SQLITE_OK); }
    ~Recorder() { sqlite3_close(m_index); }
    int run(const std::string& sql) { return sqlite3_exec(m_index, sql.c_str(), nullptr, nullptr, nullptr); }

private:
    sqlite3* m_index = nullptr;
};

constexpr char kSchema[] = "CREATE TABLE STREAM (endMSec, note TEXT, STREAMID INTEGER PRIMARY KEY, recSize, "
                           "startDate, startMSec, frameSet, status)";
constexpr char kAll[] = "SELECT * FROM STREAM";

std::string insert(uint32_t id, const std::string& values = "1, 100, 0, 0") {
    return "INSERT INTO STREAM (streamID, recSize, startDate, startMSec, status) VALUES (" +
           std::to_string(id) + ", " + values + ")";
}

struct SqliteIndex : testing::Test {
    test::World world;
    const std::string path = paths().index;
    CApiDb db;
    DB_STREAM row{};

    uint32_t oldest() { return db.selectStreamOldestTime(&row) == 1 ? row.streamID : 0; }
};

TEST_F(SqliteIndex, FindsValuesByNameAndReadsEachAtItsWidth) {
    Recorder recorder(path);
    recorder.run(kSchema);
    recorder.run("INSERT INTO STREAM VALUES (NULL, 'x', 4294967295, '12cd', 3e9, 65537, -1, NULL)");
    ASSERT_EQ(db.setSql(kAll), 0);
    EXPECT_EQ(db.getNTuple(), 1);
    row.chunkOffset = 7;
    db.getStreamValue(0, &row);
    EXPECT_EQ(row.streamID, 4294967295u);
    EXPECT_EQ(row.recSize, 12u);
    EXPECT_EQ(row.startDate, 3000000000u);
    EXPECT_EQ(row.startMSec, 1);
    EXPECT_EQ(row.frameSet, 0xFFFF);
    EXPECT_EQ(row.endMSec + row.status + row.chunkOffset, 0u) << "NULL, and no such column";
    EXPECT_EQ(db.getValue(0, 2), 4294967295u);
    for (const auto& [r, c] : {std::pair{1L, 2L}, {0L, 8L}, {-1L, 0L}, {0L, -1L}})
        EXPECT_EQ(db.getValue(r, c), 0u);
    EXPECT_NE(db.selectStream(4294967295u, &row), 0);
    EXPECT_EQ(db.selectStream(5, &row), 0);

    recorder.run("CREATE TABLE EVENT (extTrg, endDate, startMSec, startDate, eventID)");
    recorder.run("INSERT INTO EVENT VALUES (512, 4, 3, 2, 1)");
    ASSERT_EQ(db.setSql("SELECT * FROM EVENT"), 0);
    DB_EVENT event{};
    db.getEventValue(0, &event);
    EXPECT_TRUE(event.eventID == 1 && event.startDate == 2 && event.startMSec == 3 && event.endDate == 4 &&
                event.endMSec == 0 && event.extTrg == 512);
}

TEST_F(SqliteIndex, TheOldestStreamIsTheEarliestWithDataOrUnderRecording) {
    Recorder recorder(path);
    recorder.run(kSchema);
    using Row = std::pair<const char*, uint32_t>; // recSize, start and status of the next id; the oldest then
    uint32_t id = 0;
    for (const auto& [values, expected] : {Row{"0, 50, 0, 0", 0}, Row{"9, 100, 500, 0", 2},
                                           Row{"9, 100, 20, 0", 3}, Row{"0, 99, 999, 1", 4}}) {
        recorder.run(insert(++id, values));
        EXPECT_EQ(oldest(), expected);
    }
}

TEST_F(SqliteIndex, AWordBeyond32BitsIsDamageWhereStatementsCompareIt) {
    Recorder recorder(path);
    recorder.run(kSchema);
    recorder.run(insert(5));
    for (const char* damage : {"streamID=4294967301", "streamID=-1", "startDate=-1", "recSize=1e10"}) {
        recorder.run(std::string("UPDATE STREAM SET ") + damage);
        EXPECT_NE(db.setSql(kAll), 0) << damage;
        EXPECT_EQ(oldest(), 0u) << damage;
        recorder.run("UPDATE STREAM SET streamID=5, startDate=100, recSize=1");
        EXPECT_EQ(oldest(), 5u);
    }
}

TEST_F(SqliteIndex, RefusesWhatAHostileFileOrTextCouldRun) {
    const auto begin = Clock::now();
    for (const char* fake : {"CREATE VIEW STREAM AS SELECT 1 AS streamID, 1 AS recSize, 0 AS startDate",
                             "CREATE VIRTUAL TABLE STREAM USING fts3tokenize(simple)",
                             "CREATE TABLE STREAM (streamID, found AS (instr('ab', 'b')))",
                             "CREATE TABLE STREAM (streamID, text DEFAULT (hex(zeroblob(5001))))"}) {
        std::filesystem::remove(path);
        Recorder recorder(path);
        ASSERT_EQ(recorder.run(fake), SQLITE_OK) << fake;
        recorder.run("INSERT INTO STREAM (streamID) VALUES (1)");
        EXPECT_NE(db.setSql(kAll), 0) << fake;
    }
    std::filesystem::remove(path);
    Recorder recorder(path);
    recorder.run(kSchema);
    recorder.run("CREATE TRIGGER oldest AFTER INSERT ON STREAM BEGIN "
                 "DELETE FROM STREAM WHERE streamID < (SELECT max(streamID) FROM STREAM) - 30; END");
    recorder.run("BEGIN");
    for (uint32_t id = 1; id <= 30; ++id) recorder.run(insert(id));
    recorder.run("COMMIT");
    for (const char* text :
         {"", "DELETE FROM STREAM", "BEGIN", "SELECT 1; SELECT 2", " -- ", "ATTACH ':memory:' AS two",
          "PRAGMA locking_mode=EXCLUSIVE", "SELECT abs(1)",
          "SELECT 1 FROM STREAM a, STREAM, STREAM, STREAM, STREAM, STREAM b WHERE a.status+b.status>0",
          "SELECT 1 FROM STREAM, STREAM, STREAM"})
        EXPECT_NE(db.setSql(text), 0) << text;
    EXPECT_EQ(db.setSql("SELECT * FROM STREAM ; -- and nothing else\n"), 0);

    ASSERT_EQ(mkfifo((path + "-journal").c_str(), 0600), 0);
    EXPECT_EQ(oldest(), 0u) << "opening a pipe would wait for ever";
    std::filesystem::remove(path + "-journal");
    EXPECT_EQ(oldest(), 1u);
    EXPECT_LT(Clock::now() - begin, 60s);
}

TEST_F(SqliteIndex, IsReadAnewWhenItWasReplacedAndGivenUpWhileItIsLocked) {
    for (uint32_t id : {1, 2}) {
        Recorder(path + ".next").run(kSchema + (";" + insert(id)));
        std::filesystem::rename(path + ".next", path);
        EXPECT_EQ(oldest(), id) << "over the one that is open";
    }
    std::filesystem::rename(path, path + ".away");
    EXPECT_NE(db.setSql(kAll), 0);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_NE(db.setSql(kAll), 0) << "a pipe would wait for a writer";
    std::filesystem::remove(path);
    const std::string sound = test::readFile(path + ".away");
    for (size_t size = 0; size <= 4096; size += 16) { // the second page is missing
        test::writeFile(path, sound.substr(0, size));
        EXPECT_NE(db.setSql(kAll), 0) << "cut at " << size;
    }
    test::writeFile(path, sound);
    EXPECT_EQ(oldest(), 2u);

    for (const std::string mode : {"DELETE", "WAL"}) {
        Recorder recorder(path);
        recorder.run("PRAGMA journal_mode=" + mode + "; PRAGMA cache_size=1; BEGIN EXCLUSIVE");
        const auto begin = Clock::now();
        EXPECT_EQ(oldest(), mode == "WAL" ? 2u : 0u) << "a log is read beside the writer";
        EXPECT_LT(Clock::now() - begin, 2s);
        recorder.run("COMMIT");
        EXPECT_EQ(oldest(), 2u);
        const pid_t killed = fork();
        if (killed == 0) { // once it has spilled into the file
            recorder.run(
                "BEGIN; UPDATE STREAM SET startDate=7; WITH RECURSIVE n(i) AS (SELECT 9 UNION ALL SELECT i+1 "
                "FROM n WHERE i<9000) INSERT INTO STREAM (streamID, note) SELECT i, 'a row' FROM n");
            raise(SIGKILL);
        }
        waitpid(killed, nullptr, 0);
        EXPECT_EQ(oldest(), mode == "WAL" ? 2u : 0u) << "only a writer may roll back";
        Recorder(path).run(kAll);
        EXPECT_EQ(oldest(), 2u);
    }
}

} // namespace

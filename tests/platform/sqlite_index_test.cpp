#include <chrono>
#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/api_db.h"
#include "platform/paths.h"
#include "stream/records.h"
#include "tests/support/world.h"

namespace {

using namespace std::chrono_literals;
using std::operator""s;

/// The other side: holds its connection, as the recorder does.
struct Recorder {
    explicit Recorder(const std::string& path) { sqlite3_open(path.c_str(), &index); }
    ~Recorder() { sqlite3_close(index); }
    void run(const std::string& sql) {
        EXPECT_EQ(sqlite3_exec(index, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sql;
    }
    sqlite3* index = nullptr;
};

constexpr char kSchema[] = "CREATE TABLE STREAM (endMSec, note TEXT, STREAMID INTEGER PRIMARY KEY, recSize, "
                           "startDate, startMSec, frameSet, status, inTrg, bitrateSet, chunkID, chunkSize, "
                           "endDate, backOffset);"
                           "CREATE TABLE EVENT (extTrg, endDate, startMSec, startDate, eventID)";
constexpr char kAll[] = "SELECT * FROM STREAM";

struct SqliteIndex : testing::Test {
    test::World world;
    const std::string path = paths().index;
    CApiDb db;
    DB_STREAM row{};

    void run(const std::string& sql) const { Recorder(path).run(sql); }
    uint32_t oldest() { return db.selectStreamOldestTime(&row) == 1 ? row.streamID : 0; }
};

TEST_F(SqliteIndex, FindsValuesByNameAndReadsEachAtItsWidth) {
    run(kSchema);
    run("INSERT INTO STREAM VALUES (NULL, 'x', 4294967295, '12cd', 3e9, 65537, -1, NULL, 2, 3, 4, 5, 6, 7);"
        "INSERT INTO EVENT VALUES (512, 4, 3, 2, 1)");
    ASSERT_EQ(db.setSql(kAll), 0);
    EXPECT_EQ(db.getNTuple(), 1);
    EXPECT_EQ(db.getValue(0, 2), 4294967295u);
    for (const auto& [r, c] : {std::pair{1L, 2L}, {0L, 14L}}) EXPECT_EQ(db.getValue(r, c), 0u);
    db.getStreamValue(0, &row);
    EXPECT_TRUE(row.recSize == 12 && row.startDate == 3000000000 && row.startMSec == 0xFFFF &&
                row.frameSet == 0xFFFF);
    EXPECT_TRUE(row.inTrg == 2 && row.bitrateSet == 3 && row.chunkID == 4 && row.chunkSize == 5 &&
                row.endDate == 6 && row.backOffset == 7);
    EXPECT_EQ(row.endMSec + row.status + row.chunkOffset, 0u) << "NULL, and no such column";
    EXPECT_TRUE(db.selectStream(4294967295u, &row) != 0 && row.streamID == 4294967295u);
    EXPECT_EQ(db.selectStream(5, &row), 0);
    ASSERT_EQ(db.setSql("SELECT * FROM EVENT"), 0);
    DB_EVENT event{};
    db.getEventValue(0, &event);
    EXPECT_TRUE(event.eventID == 1 && event.startDate == 2 && event.startMSec == 3 && event.endDate == 4 &&
                event.endMSec == 0 && event.extTrg == 512);
}

TEST_F(SqliteIndex,
       TheOldestStreamIsTheEarliestWithDataOrUnderRecordingAndWordsOutsideTheirRangeAreTheNearestInside) {
    run(kSchema);
    const std::pair<std::string, uint32_t> rows[] = {
        // id, recSize, startDate, startMSec, status; the oldest then
        {"1, 0, 50, 0, 0", 0},     {"2, 9, 100, 500, 0", 2},       {"3, 9, 100, 20, 0", 3},
        {"4, 0, 99, 999, 1", 4},   {"5, 9, -1, 0, 0", 5},          {"4294967301, 9, 10, 0, 0", 4294967295},
        {"6, -1, 10, 0, 1e10", 6}, {"7, 9, 10, 4294967296, 0", 7},
    };
    for (const auto& [values, expected] : rows) {
        run("DELETE FROM STREAM WHERE streamID > 4; INSERT INTO STREAM "
            "(streamID, recSize, startDate, startMSec, status) VALUES (" +
            values + ")");
        EXPECT_EQ(oldest(), expected) << values;
    }
}

TEST_F(SqliteIndex, RefusesWhatAHostileFileOrTextCouldRun) {
    const std::string filled = ";INSERT INTO STREAM DEFAULT VALUES";
    for (const std::string& fake :
         {"CREATE VIEW STREAM AS SELECT 1 AS streamID, 1 AS recSize, 0 AS startDate"s,
          "CREATE VIRTUAL TABLE STREAM USING fts3tokenize(simple)"s,
          "CREATE TABLE STREAM (id DEFAULT 1, found AS (instr('ab', 'b')))" + filled,
          "CREATE TABLE STREAM (text DEFAULT (hex(zeroblob(5001))))" + filled}) {
        std::filesystem::remove(path);
        run(fake);
        EXPECT_NE(db.setSql(kAll), 0) << fake;
    }
    std::filesystem::remove(path);
    run(kSchema);
    run("CREATE TRIGGER few AFTER INSERT ON STREAM BEGIN DELETE FROM STREAM WHERE streamID < "
        "(SELECT max(streamID) FROM STREAM) - 30; END");
    for (int i = 1; i <= 30; ++i) run("INSERT INTO STREAM (recSize) VALUES (1)");
    for (const char* text : // the last one goes on for ever
         {"", "DELETE FROM STREAM", "BEGIN", "SELECT 1; SELECT 2", " -- ", "ATTACH ':memory:' AS two",
          "PRAGMA locking_mode=EXCLUSIVE", "SELECT abs(1)", "SELECT 1 FROM STREAM, STREAM, STREAM",
          "SELECT 1 FROM STREAM a, STREAM, STREAM, STREAM, STREAM, STREAM b WHERE a.recSize+b.recSize<0"})
        EXPECT_NE(db.setSql(text), 0) << text;
    EXPECT_EQ(db.setSql("SELECT * FROM STREAM ; -- and nothing else\n"), 0);
}

TEST_F(SqliteIndex, IsReadAsItStandsNowAndGivenUpWhenItIsNoSoundFile) {
    for (const std::string id : {"1", "2"}) {
        Recorder(path + ".next")
            .run(kSchema + (";INSERT INTO STREAM (streamID, recSize) VALUES (" + id + ", 1)"));
        std::filesystem::rename(path + ".next", path);
        EXPECT_EQ(std::to_string(oldest()), id) << "over the one that is open";
    }
    for (const std::string& pipe : {path + "-journal", path}) {
        mkfifo(pipe.c_str(), 0600);
        EXPECT_NE(db.setSql(kAll), 0) << pipe << " would wait for a writer";
        std::filesystem::remove(path);
        EXPECT_NE(db.setSql(kAll), 0) << "missing";
    }
}

TEST_F(SqliteIndex, IsReadBesideAWriterOnlyWithALogAndNeverRolledBack) {
    run(kSchema + ";INSERT INTO STREAM (streamID, recSize) VALUES (2, 1)"s);
    for (const std::string mode : {"DELETE", "WAL"}) {
        const uint32_t found = mode == "WAL" ? 2 : 0; // a log is read beside the writer
        Recorder recorder(path);
        recorder.run("PRAGMA journal_mode=" + mode + "; PRAGMA cache_size=1; BEGIN EXCLUSIVE");
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(oldest(), found) << "locked";
        EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
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
        EXPECT_EQ(oldest(), found) << "only a writer may roll back";
        Recorder(path).run(kAll);
        EXPECT_EQ(oldest(), 2u);
    }
}

} // namespace

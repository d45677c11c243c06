#include "tools/recording/index_writer.h"

#include <initializer_list>
#include <sqlite3.h>

#include "tools/recording/recording_writer.h"
#include "tools/recording/schema.h"

namespace {

/// Playback holds its read lock for one query; whoever holds it this long is a fault to be reported.
constexpr int kBusyMs = 30000;

} // namespace

/// One prepared statement, run to its end.
class IndexWriter::Statement {
public:
    Statement(const IndexWriter& index, const char* sql, std::initializer_list<int64_t> values = {})
        : m_index(index) {
        if (sqlite3_prepare_v2(index.m_database, sql, -1, &m_statement, nullptr) != SQLITE_OK) fail();
        int place = 0;
        for (const int64_t value : values) sqlite3_bind_int64(m_statement, ++place, value);
    }
    ~Statement() { sqlite3_finalize(m_statement); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    void finish() {
        if (sqlite3_step(m_statement) != SQLITE_DONE) fail();
    }
    bool nextRow() {
        const int result = sqlite3_step(m_statement);
        if (result != SQLITE_ROW && result != SQLITE_DONE) fail();
        return result == SQLITE_ROW;
    }
    int64_t number(int column = 0) { return sqlite3_column_int64(m_statement, column); }

private:
    [[noreturn]] void fail() {
        const std::string reason = sqlite3_errmsg(m_index.m_database);
        sqlite3_finalize(m_statement);
        m_statement = nullptr;
        throw RecordingError("cannot write the index " + m_index.m_path + ": " + reason +
                             "; check that it is a recording index and that nothing keeps it locked");
    }

    const IndexWriter& m_index;
    sqlite3_stmt* m_statement = nullptr;
};

IndexWriter::IndexWriter(const std::string& path) : m_path(path) {
    if (sqlite3_open(path.c_str(), &m_database) != SQLITE_OK) {
        const std::string reason = sqlite3_errmsg(m_database);
        sqlite3_close(m_database);
        throw RecordingError("cannot open the index " + path + ": " + reason +
                             "; check the directory and its permissions");
    }
    try {
        sqlite3_busy_timeout(m_database, kBusyMs);
        // The index lives in /tmp, which a power cut empties: syncing would cost and save nothing. A killed
        // recorder does no harm either way.
        run("PRAGMA synchronous = OFF");
        run(kRecorderSchema);
    } catch (...) {
        sqlite3_close(m_database);
        throw;
    }
}

IndexWriter::~IndexWriter() {
    sqlite3_close(m_database);
}

void IndexWriter::run(const char* sql) {
    char* message = nullptr;
    if (sqlite3_exec(m_database, sql, nullptr, nullptr, &message) == SQLITE_OK) return;
    const std::string reason = message ? message : "unknown error";
    sqlite3_free(message);
    throw RecordingError("cannot use the index " + m_path + ": " + reason +
                         "; remove the file or name another place");
}

uint32_t IndexWriter::lastChunk() {
    return singleNumber("SELECT ifnull(max(chunkID), 0) FROM STREAM");
}

uint32_t IndexWriter::nextStreamId() {
    return singleNumber("SELECT ifnull(max(streamID), 0) + 1 FROM STREAM");
}

uint32_t IndexWriter::singleNumber(const char* sql) {
    Statement statement(*this, sql);
    return statement.nextRow() ? static_cast<uint32_t>(statement.number()) : 0;
}

std::vector<DB_STREAM> IndexWriter::unfinishedStreams() {
    std::vector<DB_STREAM> rows;
    Statement statement(*this, "SELECT streamID, chunkID, chunkOffset, startDate, startMSec FROM STREAM"
                               " WHERE status = 1");
    while (statement.nextRow()) {
        DB_STREAM row{};
        row.streamID = static_cast<uint32_t>(statement.number(0));
        row.chunkID = static_cast<uint32_t>(statement.number(1));
        row.chunkOffset = static_cast<uint32_t>(statement.number(2));
        row.startDate = static_cast<uint32_t>(statement.number(3));
        row.startMSec = static_cast<uint16_t>(statement.number(4));
        rows.push_back(row);
    }
    return rows;
}

void IndexWriter::addStream(const DB_STREAM& row) {
    Statement(*this,
              "INSERT INTO STREAM (streamID, inTrg, frameSet, bitrateSet, recSize, chunkID,"
              " chunkOffset, chunkSize, status, startDate, endDate, startMSec, endMSec, backOffset)"
              " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
              {row.streamID, row.inTrg, row.frameSet, row.bitrateSet, row.recSize, row.chunkID,
               row.chunkOffset, row.chunkSize, row.status, row.startDate, row.endDate, row.startMSec,
               row.endMSec, row.backOffset})
        .finish();
}

void IndexWriter::finishStream(const DB_STREAM& row) {
    Statement(*this,
              "UPDATE STREAM SET recSize = ?, chunkSize = ?, status = ?, endDate = ?, endMSec = ?"
              " WHERE streamID = ?",
              {row.recSize, row.chunkSize, row.status, row.endDate, row.endMSec, row.streamID})
        .finish();
}

void IndexWriter::removeStream(uint32_t streamId) {
    Statement(*this, "DELETE FROM STREAM WHERE streamID = ?", {streamId}).finish();
}

uint64_t IndexWriter::newestEndMs() {
    Statement statement(*this, "SELECT ifnull(max(endDate * 1000 + endMSec), 0) FROM STREAM");
    return statement.nextRow() ? static_cast<uint64_t>(statement.number()) : 0;
}

uint32_t IndexWriter::olderStreamWithin(uint64_t startMs, uint64_t endMs, uint32_t streamId) {
    Statement statement(*this,
                        "SELECT streamID FROM STREAM WHERE streamID < ? AND startDate * 1000 + startMSec <= ?"
                        " AND endDate * 1000 + endMSec >= ? ORDER BY streamID LIMIT 1",
                        {streamId, static_cast<int64_t>(endMs), static_cast<int64_t>(startMs)});
    return statement.nextRow() ? static_cast<uint32_t>(statement.number()) : 0;
}

uint32_t IndexWriter::addEvent(const DB_EVENT& row) {
    Statement(*this,
              "INSERT INTO EVENT (startDate, startMSec, endDate, endMSec, extTrg) VALUES (?, ?, ?, ?, ?)",
              {row.startDate, row.startMSec, row.endDate, row.endMSec, row.extTrg})
        .finish();
    return static_cast<uint32_t>(sqlite3_last_insert_rowid(m_database));
}

void IndexWriter::finishEvent(const DB_EVENT& row) {
    Statement(*this, "UPDATE EVENT SET endDate = ?, endMSec = ? WHERE eventID = ?",
              {row.endDate, row.endMSec, row.eventID})
        .finish();
}

// The index over SQLite. Every query is bounded in time and memory, whatever the file holds
// (index_connection.h). Rows are copied and the statement is finished before a query returns: between queries
// this side holds no lock. After a failed query the connection is closed; the next one starts afresh.
#include "platform/api_db.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <new>
#include <optional>
#include <sqlite3.h>
#include <sys/stat.h>
#include <utility>
#include <vector>

#include "platform/host/index_connection.h"
#include "platform/paths.h"
#include "stream/records.h"

namespace {

using Clock = std::chrono::steady_clock;

/// After this a query is given up, however the file is built. The clock is looked at between SQLite's own
/// instructions; what the connection allows takes each of them milliseconds at the most.
constexpr std::chrono::seconds kQueryTime{2};
constexpr int kStepsBetweenLooks = 100;

/// More rows than this are a failed query. The daemon's texts ask for one row.
constexpr size_t kMaxRows = 4096;

constexpr char kStreamById[] = "SELECT * FROM STREAM WHERE streamID = ?";
constexpr char kOldestStream[] = "SELECT * FROM STREAM WHERE recSize<>0 OR status=1 "
                                 "ORDER BY startDate, startMSec, streamID LIMIT 1";

constexpr sqlite3_int64 kWraps = -1;

struct Column {
    char name[16];         ///< cut, if it is longer than any of ours
    sqlite3_int64 highest; ///< value of a cell, or kWraps
};

/// Those that statements compare. SQLite does so in 64 bits, this side reads 32, of milliseconds 16: a cell
/// outside them is read as the nearest value inside, so that the order stays the one it was found by, and no
/// damaged row hides the others. Any other cell wraps.
constexpr Column kCompared[] = {
    {"streamID", UINT32_MAX}, {"eventID", UINT32_MAX},   {"recSize", UINT32_MAX},
    {"status", UINT32_MAX},   {"extTrg", UINT32_MAX},    {"startDate", UINT32_MAX},
    {"endDate", UINT32_MAX},  {"startMSec", UINT16_MAX}, {"endMSec", UINT16_MAX},
};

/// A result in memory. Cells are what SQLite makes of them as integers; NULL is 0.
struct Rows {
    std::vector<Column> columns;
    std::vector<sqlite3_int64> cells; ///< row by row

    size_t count() const { return columns.empty() ? 0 : cells.size() / columns.size(); }

    /// Values wrap at 32 bits, as on the target.
    uint32_t at(long row, long column) const {
        if (row < 0 || column < 0) return 0;
        if (static_cast<size_t>(row) >= count() || static_cast<size_t>(column) >= columns.size()) return 0;
        return static_cast<uint32_t>(
            cells[static_cast<size_t>(row) * columns.size() + static_cast<size_t>(column)]);
    }

    uint32_t named(long row, const char* name) const {
        for (size_t i = 0; i < columns.size(); ++i) {
            if (sqlite3_stricmp(columns[i].name, name) == 0) return at(row, static_cast<long>(i));
        }
        return 0;
    }
    uint16_t named16(long row, const char* name) const { return static_cast<uint16_t>(named(row, name)); }
};

DB_STREAM streamOf(const Rows& rows, long row) {
    DB_STREAM stream{};
    stream.streamID = rows.named(row, "streamID");
    stream.inTrg = rows.named16(row, "inTrg");
    stream.frameSet = rows.named16(row, "frameSet");
    stream.bitrateSet = rows.named(row, "bitrateSet");
    stream.recSize = rows.named(row, "recSize");
    stream.chunkID = rows.named(row, "chunkID");
    stream.chunkOffset = rows.named(row, "chunkOffset");
    stream.chunkSize = rows.named(row, "chunkSize");
    stream.status = rows.named(row, "status");
    stream.startDate = rows.named(row, "startDate");
    stream.endDate = rows.named(row, "endDate");
    stream.startMSec = rows.named16(row, "startMSec");
    stream.endMSec = rows.named16(row, "endMSec");
    stream.backOffset = rows.named(row, "backOffset");
    return stream;
}

DB_EVENT eventOf(const Rows& rows, long row) {
    DB_EVENT event{};
    event.eventID = rows.named(row, "eventID");
    event.startDate = rows.named(row, "startDate");
    event.startMSec = rows.named16(row, "startMSec");
    event.endDate = rows.named(row, "endDate");
    event.endMSec = rows.named16(row, "endMSec");
    event.extTrg = rows.named(row, "extTrg");
    return event;
}

Column columnOf(const char* name) {
    Column column{"", kWraps};
    std::snprintf(column.name, sizeof column.name, "%s", name);
    for (const Column& compared : kCompared)
        if (sqlite3_stricmp(compared.name, name) == 0) column.highest = compared.highest;
    return column;
}

/// Nothing when there are too many.
std::optional<Rows> allRows(sqlite3_stmt* statement) {
    Rows rows;
    const int columns = sqlite3_column_count(statement);
    for (int i = 0; i < columns; ++i) {
        const char* name = sqlite3_column_name(statement, i);
        if (name == nullptr) return std::nullopt; // out of memory
        rows.columns.push_back(columnOf(name));
    }
    int step;
    while ((step = sqlite3_step(statement)) == SQLITE_ROW) {
        if (rows.count() >= kMaxRows) return std::nullopt;
        for (int i = 0; i < columns; ++i) {
            const sqlite3_int64 cell = sqlite3_column_int64(statement, i);
            const sqlite3_int64 highest = rows.columns[static_cast<size_t>(i)].highest;
            rows.cells.push_back(highest == kWraps ? cell : std::clamp<sqlite3_int64>(cell, 0, highest));
        }
    }
    if (step != SQLITE_DONE) return std::nullopt;
    return rows;
}

} // namespace

struct CApiDb::Index {
    Connection connection;
    dev_t device = 0; ///< of the file the connection reads
    ino_t inode = 0;
    Clock::time_point queryEnd; ///< while a query runs
    Rows rows;                  ///< of the last setSql

    /// Every row of the text, whose parameter (if it has one) is `parameter`. Nothing on failure.
    std::optional<Rows> query(const char* sql, uint32_t parameter = 0) {
        if (sql == nullptr) return std::nullopt;
        try {
            std::optional<Rows> result = run(sql, parameter);
            if (!result) connection.reset();
            return result;
        } catch (const std::bad_alloc&) {
            connection.reset();
            return std::nullopt;
        }
    }

private:
    std::optional<Rows> run(const char* sql, uint32_t parameter) {
        if (!connect()) return std::nullopt;
        queryEnd = Clock::now() + kQueryTime;
        const Statement statement = prepareOnly(connection.get(), sql);
        if (!statement) return std::nullopt;
        if (sqlite3_bind_parameter_count(statement.get()) > 0 &&
            sqlite3_bind_int64(statement.get(), 1, parameter) != SQLITE_OK) {
            return std::nullopt;
        }
        return allRows(statement.get());
    }

    /// Makes the connection read the file that stands at the path now.
    bool connect() {
        struct stat file {};
        if (!isFileAmongFiles(paths().index, file)) {
            connection.reset();
            return false;
        }
        if (connection && file.st_dev == device && file.st_ino == inode) return true;
        connection = openIndex(paths().index);
        if (!connection) return false;
        // Noted from before the opening: a file put in place meanwhile is noticed at the next query.
        device = file.st_dev;
        inode = file.st_ino;
        sqlite3_progress_handler(
            connection.get(), kStepsBetweenLooks,
            [](void* self) { return Clock::now() >= static_cast<Index*>(self)->queryEnd ? 1 : 0; }, this);
        return true;
    }
};

// Without memory for its state the object exists all the same, and each query fails.
CApiDb::CApiDb() : m_index(new (std::nothrow) Index) {}

CApiDb::~CApiDb() = default;

int CApiDb::setSql(const char* sql) {
    if (!m_index) return -1;
    std::optional<Rows> rows = m_index->query(sql);
    m_index->rows = rows ? std::move(*rows) : Rows{};
    return rows ? 0 : -1;
}

int CApiDb::getNTuple() {
    return m_index ? static_cast<int>(m_index->rows.count()) : 0;
}

unsigned long CApiDb::getValue(long row, long column) {
    return m_index ? m_index->rows.at(row, column) : 0;
}

void CApiDb::getStreamValue(long row, DB_STREAM* stream) {
    if (m_index && stream != nullptr) *stream = streamOf(m_index->rows, row);
}

void CApiDb::getEventValue(long row, DB_EVENT* event) {
    if (m_index && event != nullptr) *event = eventOf(m_index->rows, row);
}

int CApiDb::selectStream(unsigned long streamId, DB_STREAM* stream) {
    if (!m_index || stream == nullptr) return 0;
    const std::optional<Rows> rows = m_index->query(kStreamById, static_cast<uint32_t>(streamId));
    if (!rows || rows->count() == 0) return 0;
    *stream = streamOf(*rows, 0);
    return 1;
}

int CApiDb::selectStreamOldestTime(DB_STREAM* stream) {
    if (!m_index || stream == nullptr) return 0;
    const std::optional<Rows> rows = m_index->query(kOldestStream);
    if (!rows || rows->count() == 0) return 0;
    *stream = streamOf(*rows, 0);
    return 1;
}

#include "platform/host/index_connection.h"

#include <climits>
#include <cstdio>
#include <string>
#include <utility>

namespace {

/// A recorder's transaction is over sooner; a playback pass must not wait longer.
constexpr int kBusyMs = 250;

/// SQLite's memory in this process, most of it its page cache. A key as long as the file, in pages that
/// follow each other in a circle, is otherwise copied whole for each comparison.
constexpr sqlite3_int64 kHeapBytes = 8 << 20;

/// Nothing but reading tables: no transaction that stays open, no other file, no pragma, no recursion, and no
/// function.
int allowReading(void*, int action, const char*, const char*, const char*, const char*) {
    return action == SQLITE_SELECT || action == SQLITE_READ ? SQLITE_OK : SQLITE_DENY;
}

/// What the daemon's texts need with room to spare; a file's schema meets the same limits.
void setLimits(sqlite3* connection) {
    static constexpr std::pair<int, int> kLimits[] = {
        {SQLITE_LIMIT_LENGTH, 10'000},      {SQLITE_LIMIT_SQL_LENGTH, 10'000},
        {SQLITE_LIMIT_COLUMN, 100},         {SQLITE_LIMIT_EXPR_DEPTH, 32},
        {SQLITE_LIMIT_COMPOUND_SELECT, 3},  {SQLITE_LIMIT_VDBE_OP, 5'000},
        {SQLITE_LIMIT_FUNCTION_ARG, 8},     {SQLITE_LIMIT_ATTACHED, 0},
        {SQLITE_LIMIT_VARIABLE_NUMBER, 10}, {SQLITE_LIMIT_LIKE_PATTERN_LENGTH, 50},
        {SQLITE_LIMIT_TRIGGER_DEPTH, 10},
    };
    for (const auto& [limit, value] : kLimits) sqlite3_limit(connection, limit, value);
}

void refuseCall(sqlite3_context* context, int, sqlite3_value**) {
    sqlite3_result_error(context, "no function is called here", -1);
}

/// Thrown where SQLite does not tell all its functions.
struct Untold {};

/// The names of all that SQLite has, a NUL behind each: the same for every connection.
std::string functionNames(sqlite3* connection) {
    const Statement list = prepareOnly(connection, "PRAGMA function_list");
    std::string names;
    int step = SQLITE_ERROR;
    while (list && (step = sqlite3_step(list.get())) == SQLITE_ROW) {
        const unsigned char* name = sqlite3_column_text(list.get(), 0);
        if (name == nullptr) throw Untold();
        names.append(reinterpret_cast<const char*>(name)) += '\0';
    }
    if (step != SQLITE_DONE || names.empty()) throw Untold();
    return names;
}

/// Puts a function that only fails in place of each of SQLite's. The authorizer sees the calls of a text, not
/// those of a generated column, and a call is one instruction however long it takes. Their names stay known:
/// a recorder's schema may use them in defaults, checks and triggers, none of which is run for reading.
bool refuseFunctions(sqlite3* connection) try {
    static const std::string names = functionNames(connection); // asked anew after a failure
    for (size_t at = 0; at < names.size(); at = names.find('\0', at) + 1) {
        if (sqlite3_create_function(connection, &names[at], -1,
                                    SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS, nullptr,
                                    refuseCall, nullptr, nullptr) != SQLITE_OK) {
            return false;
        }
    }
    return true;
} catch (const Untold&) {
    return false;
}

/// The settings for a file that isn't trusted, before anything of it is read.
bool secure(sqlite3* connection) {
    static constexpr std::pair<int, int> kSettings[] = {
        {SQLITE_DBCONFIG_DEFENSIVE, 1},
        {SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0},
        {SQLITE_DBCONFIG_ENABLE_TRIGGER, 0},
        {SQLITE_DBCONFIG_ENABLE_VIEW, 0},
        {SQLITE_DBCONFIG_ENABLE_LOAD_EXTENSION, 0},
    };
    for (const auto& [setting, value] : kSettings) {
        if (sqlite3_db_config(connection, setting, value, nullptr) != SQLITE_OK) return false;
    }
    setLimits(connection);
    sqlite3_drop_modules(connection, nullptr); // no table with code behind it
    // Without a mapping a file that shrinks is a read error and no signal.
    if (!refuseFunctions(connection) ||
        sqlite3_exec(connection, "PRAGMA cell_size_check=ON; PRAGMA mmap_size=0; PRAGMA query_only=ON",
                     nullptr, nullptr, nullptr) != SQLITE_OK) {
        return false;
    }
    sqlite3_set_authorizer(connection, allowReading, nullptr);
    sqlite3_busy_timeout(connection, kBusyMs);
    return true;
}

} // namespace

bool isFileAmongFiles(const char* path, struct stat& file) {
    if (stat(path, &file) != 0 || !S_ISREG(file.st_mode)) return false;
    for (const char* suffix : {"-journal", "-wal", "-shm"}) {
        char name[PATH_MAX];
        std::snprintf(name, sizeof name, "%s%s", path, suffix);
        struct stat beside {};
        if (stat(name, &beside) == 0 && !S_ISREG(beside.st_mode)) return false;
    }
    return true;
}

Connection openIndex(const char* path) {
    sqlite3_hard_heap_limit64(kHeapBytes);
    sqlite3* raw = nullptr;
    const int result = sqlite3_open_v2(path, &raw, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr);
    Connection connection(raw); // there is one to close even after a failure
    if (result != SQLITE_OK || !secure(raw)) return nullptr;
    return connection;
}

Statement prepareOnly(sqlite3* connection, const char* sql) {
    sqlite3_stmt* raw = nullptr;
    const char* rest = nullptr;
    if (sqlite3_prepare_v2(connection, sql, -1, &raw, &rest) != SQLITE_OK) return nullptr;
    Statement statement(raw);
    while (statement && *rest != '\0') {
        if (sqlite3_prepare_v2(connection, rest, -1, &raw, &rest) != SQLITE_OK) return nullptr;
        if (Statement(raw)) return nullptr;
    }
    return statement;
}

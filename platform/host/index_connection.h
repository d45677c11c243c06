// Opening the index as a file that isn't trusted: it comes from a removable card. What a connection allows is
// what the daemon's statements need, so that no single instruction of SQLite's takes long, whatever the file
// holds.
#pragma once

#include <memory>
#include <sqlite3.h>
#include <sys/stat.h>

struct CloseConnection {
    void operator()(sqlite3* connection) const { sqlite3_close(connection); }
};
using Connection = std::unique_ptr<sqlite3, CloseConnection>;

struct FinishStatement {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, FinishStatement>;

/// Whether a file stands at the path, told in `file`, and nothing but files where SQLite looks for its
/// journals: a pipe would hold whoever opens it for ever.
bool isFileAmongFiles(const char* path, struct stat& file);

/// A connection that only reads, and waits a quarter of a second for a writer. Null on failure. May throw
/// std::bad_alloc. Limits SQLite's memory to 8 MB from then on, that of all connections of the process.
Connection openIndex(const char* path);

/// One statement, with nothing but blanks and comments behind it; null for anything else.
Statement prepareOnly(sqlite3* connection, const char* sql);

// The recording index, as the platform's closed library offers it. platform/host/ implements it over SQLite:
// read-only, with the settings SQLite recommends for files it does not trust, rows copied and each statement
// finished at once, so that the recorder's writes never wait for this side. A failed query is a result,
// never an exception.
#pragma once

#include <memory>

struct DB_STREAM;
struct DB_EVENT;

/// One query object; one thread at a time. Opens the index at the first query and again when the file has
/// been replaced.
class CApiDb {
public:
    CApiDb();
    ~CApiDb();
    CApiDb(const CApiDb&) = delete;
    CApiDb& operator=(const CApiDb&) = delete;

    /// Runs the text and keeps its rows; 0 = success. A failure leaves no rows.
    int setSql(const char* sql);

    /// Rows of the last result.
    int getNTuple();

    /// A cell of the last result as an unsigned number; 0 when it is NULL, no number, or not there.
    unsigned long getValue(long row, long column);

    /// Copies a row of the last result, columns found by name; a missing or NULL cell is 0.
    void getStreamValue(long row, DB_STREAM* stream);
    void getEventValue(long row, DB_EVENT* event);

    /// Loads the STREAM row with that streamID; 0 = not loaded.
    int selectStream(unsigned long streamId, DB_STREAM* stream);

    /// Loads the row with the earliest start among the streams that hold data or are being recorded;
    /// 1 = loaded.
    int selectStreamOldestTime(DB_STREAM* stream);

private:
    struct Index;
    std::unique_ptr<Index> m_index;
};

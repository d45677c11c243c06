// The recording index as streams and sessions ask it: one query object, one kind of result.
#pragma once

#include <atomic>

#include "platform/api_db.h"
#include "stream/error_flags.h"
#include "stream/records.h"
#include "stream/statements.h"

enum class QueryResult {
    found,
    noRow,   ///< no error
    refused, ///< the index could not answer
    noIndex, ///< the file is not there
};

/// One thread at a time.
class RecordingIndex {
public:
    /// `errorFlags` outlives it; only the index's own kind is set there.
    explicit RecordingIndex(ErrorFlags& errorFlags) : m_errorFlags(errorFlags) {}

    /// Once `wanted`, which outlives it, no longer holds, every query is refused at once.
    void askWhile(const std::atomic<bool>& wanted) { m_wanted = &wanted; }

    // A text over STREAM or EVENT. Query and outcome are logged, and the error flag tells whether the index
    // could answer.

    QueryResult m_setSql(const SqlText& sql);
    /// The first row of the text found last; once the stream stood on is left.
    DB_STREAM foundStream();
    /// The first row; `event` is filled only when one was found.
    QueryResult m_setSqlEvent(const SqlText& sql, DB_EVENT* event);

    /// The first cell of the first row, without a word in the log: found, noRow or refused.
    QueryResult firstNumber(const SqlText& sql, uint32_t* number);

    /// False: `row` is as it was.
    bool selectStream(unsigned long id, DB_STREAM* row) {
        return isWanted() && m_apiDb.selectStream(id, row) != 0;
    }
    bool selectOldestStream(DB_STREAM* row) { return isWanted() && m_apiDb.selectStreamOldestTime(row) == 1; }

private:
    bool isWanted() const { return m_wanted == nullptr || *m_wanted; }
    QueryResult run(const SqlText& sql);
    QueryResult runLogged(const char* operation, const SqlText& sql);

    CApiDb m_apiDb;
    const std::atomic<bool>* m_wanted = nullptr; ///< null = for ever
    ErrorFlags& m_errorFlags;
};

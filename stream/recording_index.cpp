#include "stream/recording_index.h"

#include <sys/stat.h>

#include "platform/log.h"
#include "platform/paths.h"

namespace {

bool indexFileExists() {
    struct stat status;
    return stat(paths().index, &status) == 0;
}

} // namespace

QueryResult RecordingIndex::m_setSql(const SqlText& sql) {
    return runLogged(__func__, sql);
}

DB_STREAM RecordingIndex::foundStream() {
    DB_STREAM row{};
    m_apiDb.getStreamValue(0, &row);
    logNamed(LOG_INFO, "m_setSql", "apiDB setSql found stream ID = %lu", asLu(row.streamID));
    return row;
}

QueryResult RecordingIndex::m_setSqlEvent(const SqlText& sql, DB_EVENT* event) {
    const QueryResult result = runLogged(__func__, sql);
    if (result != QueryResult::found) return result;

    m_apiDb.getEventValue(0, event);
    logAt(LOG_INFO, "apiDB setSql found eventID = %lu", asLu(event->eventID));
    return result;
}

QueryResult RecordingIndex::firstNumber(const SqlText& sql, uint32_t* number) {
    const QueryResult result = run(sql);
    // A 32-bit word, whatever a damaged index holds.
    if (result == QueryResult::found) *number = static_cast<uint32_t>(m_apiDb.getValue(0, 0));
    return result;
}

QueryResult RecordingIndex::runLogged(const char* operation, const SqlText& sql) {
    if (!isWanted()) return QueryResult::refused; // no fault of the index
    logNamed(LOG_INFO, operation, "%s", sql.text);
    m_errorFlags.setErrorflag(kErrorKindIndex, 0);
    const QueryResult result = indexFileExists() ? run(sql) : QueryResult::noIndex;
    if (result == QueryResult::noIndex || result == QueryResult::refused) {
        m_errorFlags.setErrorflag(kErrorKindIndex, 1);
        logNamed(LOG_ERR, operation, "apiDB setSql error");
    }
    if (result == QueryResult::noRow) logNamed(LOG_INFO, operation, "apiDB setSql not found record");
    return result;
}

QueryResult RecordingIndex::run(const SqlText& sql) {
    if (!isWanted() || m_apiDb.setSql(sql.text) != 0) return QueryResult::refused;
    return m_apiDb.getNTuple() == 0 ? QueryResult::noRow : QueryResult::found;
}

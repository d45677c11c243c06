// What the recording index holds, as a table for people or as JSON for scripts.
#pragma once

#include <string>
#include <vector>

#include "stream/records.h"

struct IndexListing {
    std::vector<DB_STREAM> streams; ///< by streamID
    std::vector<DB_EVENT> alarms;   ///< by eventID
};

/// When a row's stream or alarm began and ended, in milliseconds since the epoch.
template <class Row> uint64_t startMs(const Row& row) {
    return uint64_t{row.startDate} * 1000 + row.startMSec;
}
template <class Row> uint64_t endMs(const Row& row) {
    return uint64_t{row.endDate} * 1000 + row.endMSec;
}
/// Then the end is not known yet.
inline bool goesOn(const DB_STREAM& stream) {
    return stream.status == DB_STATUS_RECORDING;
}
inline bool goesOn(const DB_EVENT& alarm) {
    return alarm.endDate == 0;
}

/// Reads both tables of paths().index. Throws std::runtime_error with one sentence that names the file.
IndexListing readIndex();

std::string asTable(const IndexListing& listing);
std::string asJson(const IndexListing& listing);

// What the recording index holds, as a table for people or as JSON for scripts.
#pragma once

#include <string>
#include <vector>

#include "stream/records.h"

struct IndexListing {
    std::vector<DB_STREAM> streams; ///< by streamID
    std::vector<DB_EVENT> alarms;   ///< by eventID
};

/// Reads both tables of paths().index. Throws std::runtime_error with one sentence that names the file.
IndexListing readIndex();

std::string asTable(const IndexListing& listing);
std::string asJson(const IndexListing& listing);

// What the recording index holds, drawn along a scale of time.
#pragma once

#include <cstdint>
#include <string>

#include "tools/ctl/index_listing.h"

/// Lines of at most `columns` characters, 40 or more: a scale in local time; the streams, each begun by its
/// number (or | where that does not fit), a dot for what is not recorded, > where the recorder is; the alarms
/// from ! on; and now, in milliseconds since the epoch. Empty when nothing is recorded.
std::string asTimeline(const IndexListing& listing, uint64_t nowMs, unsigned columns);

// Every text that is sent to the index, a function each. They are sent to the letter, blanks included: also
// brackets that seem to be missing are meant. "Earlier" is spelled out as a < b OR a = b AND ..., relying on
// AND binding tighter than OR.
#pragma once

#include <cstdint>
#include <optional>

#include "stream/stream_time.h"

/// One statement, without the heap. The longest one, with every number at its longest, has 235 characters.
struct SqlText {
    char text[320];
};

namespace statements {

// ---- crossing: `left` is the stream that is no answer; none when a clock time is located ----

using Left = std::optional<uint32_t>;

/// The stream whose span holds the time, start included and end excluded; the lowest of several.
SqlText forwardHolding(PB_STREAM_TIME time, Left left);
/// The lowest stream that starts at the time or after it. The exclusion binds to the equal second only.
SqlText forwardAfter(PB_STREAM_TIME time, Left left);
/// The stream whose span holds the time, start excluded and end included; the highest of several.
SqlText backwardHolding(PB_STREAM_TIME time, Left left);
/// The highest stream with data that ended at the time or before it.
SqlText backwardBefore(PB_STREAM_TIME time, Left left);
/// The stream under recording, when it started at the time or before it.
SqlText recordingSince(PB_STREAM_TIME time);
/// Any stream that started at the time or before it: none means that the time lies before every recording.
SqlText startedBefore(PB_STREAM_TIME time);

// ---- skipping ----

SqlText newestStream();
SqlText newestStreamWithData();
/// The ended alarm after the time, and beyond the event landed on last (0 = none).
SqlText nextAlarm(PB_STREAM_TIME time, uint32_t lastEventId);
/// The ended alarm before the time, and below the event landed on last (0 = none).
SqlText previousAlarm(PB_STREAM_TIME time, uint32_t lastEventId);
/// The stream whose span holds an alarm's start, start included and end excluded.
SqlText alarmHolding(PB_STREAM_TIME start);
/// The stream under recording, when it started at an alarm's start or before it.
SqlText alarmRecording(PB_STREAM_TIME start);

// ---- where a session starts ----

/// The newest stream that holds data, up to an id or without a bound.
SqlText newestCompleted(std::optional<unsigned long> upTo);
SqlText streamOfId(uint32_t id);

} // namespace statements

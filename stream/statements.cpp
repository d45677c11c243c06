#include "stream/statements.h"

#include <cstdarg>
#include <cstdio>

#include "platform/log.h"

namespace statements {
namespace {

/// External triggers of the events that count as alarms: from the first up to, not including, the second.
constexpr int kFirstAlarmTrigger = 512;
constexpr int kEndAlarmTrigger = 2048;

[[gnu::format(printf, 1, 2)]] SqlText sqlText(const char* format, ...) {
    SqlText sql;
    va_list values;
    va_start(values, format);
    std::vsnprintf(sql.text, sizeof sql.text, format, values);
    va_end(values);
    return sql;
}

SqlText exclusion(Left left) {
    return left ? sqlText("AND streamID<>%lu", asLu(*left)) : SqlText{};
}

/// What stands between the exclusion and the order, where the two are not apart without one.
const char* blankAfter(Left left) {
    return left ? " " : "";
}

} // namespace

SqlText forwardHolding(PB_STREAM_TIME time, Left left) {
    const unsigned long sec = asLu(time.seconds());
    const unsigned mSec = time.mSec;
    return sqlText("SELECT * FROM STREAM WHERE (startDate < %lu OR startDate = %lu AND startMSec <= %u) "
                   "AND  (%lu < endDate OR %lu = endDate AND %u < endMSec) %s "
                   "ORDER BY streamID ASC LIMIT 1",
                   sec, sec, mSec, sec, sec, mSec, exclusion(left).text);
}

SqlText forwardAfter(PB_STREAM_TIME time, Left left) {
    const unsigned long sec = asLu(time.seconds());
    return sqlText("SELECT * FROM STREAM WHERE %lu < startDate OR %lu = startDate AND %u <= startMSec "
                   "%s%sORDER BY streamID ASC LIMIT 1",
                   sec, sec, unsigned{time.mSec}, exclusion(left).text, blankAfter(left));
}

SqlText backwardHolding(PB_STREAM_TIME time, Left left) {
    const unsigned long sec = asLu(time.seconds());
    const unsigned mSec = time.mSec;
    return sqlText("SELECT * FROM STREAM WHERE (startDate < %lu OR startDate = %lu AND startMSec < %u) "
                   "AND  (%lu < endDate OR %lu = endDate AND %u <= endMSec) %s "
                   "ORDER BY streamID DESC LIMIT 1",
                   sec, sec, mSec, sec, sec, mSec, exclusion(left).text);
}

SqlText backwardBefore(PB_STREAM_TIME time, Left left) {
    const unsigned long sec = asLu(time.seconds());
    return sqlText("SELECT * FROM STREAM WHERE (endDate < %lu OR endDate = %lu AND endMSec <= %u) "
                   "AND recSize<>0 %s%sORDER BY streamID DESC LIMIT 1",
                   sec, sec, unsigned{time.mSec}, exclusion(left).text, blankAfter(left));
}

SqlText recordingSince(PB_STREAM_TIME time) {
    const unsigned long sec = asLu(time.seconds());
    return sqlText("SELECT * FROM STREAM WHERE (%lu > startDate OR (%lu = startDate AND %u >= startMSec)) "
                   "AND status=1 ORDER BY streamID ASC LIMIT 1",
                   sec, sec, unsigned{time.mSec});
}

SqlText startedBefore(PB_STREAM_TIME time) {
    const unsigned long sec = asLu(time.seconds());
    return sqlText("SELECT * FROM STREAM WHERE %lu > startDate OR %lu = startDate AND %u >= startMSec "
                   "ORDER BY streamID ASC LIMIT 1",
                   sec, sec, unsigned{time.mSec});
}

SqlText newestStream() {
    return sqlText("SELECT * FROM STREAM ORDER BY streamID DESC LIMIT 1");
}

SqlText newestStreamWithData() {
    return sqlText("SELECT * FROM STREAM WHERE recSize<>0 ORDER BY streamID DESC LIMIT 1");
}

SqlText nextAlarm(PB_STREAM_TIME time, uint32_t lastEventId) {
    const unsigned long sec = asLu(time.seconds());
    const SqlText beyondLast =
        lastEventId != 0 ? sqlText("AND ( eventID > %lu ) ", asLu(lastEventId)) : SqlText{};
    return sqlText("SELECT * FROM EVENT  WHERE (%lu < startDate OR %lu = startDate AND %u < startMSec) "
                   "AND ( endDate <> 0 ) AND ( %d <= extTrg AND extTrg < %d ) %s"
                   "ORDER BY eventID ASC, startDate ASC LIMIT 1",
                   sec, sec, unsigned{time.mSec}, kFirstAlarmTrigger, kEndAlarmTrigger, beyondLast.text);
}

SqlText previousAlarm(PB_STREAM_TIME time, uint32_t lastEventId) {
    const unsigned long sec = asLu(time.seconds());
    const SqlText belowLast =
        lastEventId != 0 ? sqlText("AND ( eventID < %lu ) ", asLu(lastEventId)) : SqlText{};
    return sqlText("SELECT * FROM EVENT  WHERE (startDate < %lu OR startDate = %lu AND startMSec < %u) "
                   "AND ( endDate <> 0 ) AND ( %d <= extTrg AND extTrg < %d ) %s"
                   "ORDER BY eventID DESC, startDate DESC LIMIT 1",
                   sec, sec, unsigned{time.mSec}, kFirstAlarmTrigger, kEndAlarmTrigger, belowLast.text);
}

SqlText alarmHolding(PB_STREAM_TIME start) {
    const unsigned long sec = asLu(start.seconds());
    const unsigned mSec = start.mSec;
    return sqlText("SELECT * FROM STREAM WHERE (startDate < %lu OR startDate = %lu AND startMSec <= %u) "
                   "AND  (%lu < endDate OR %lu = endDate AND %u < endMSec)  "
                   "ORDER BY startDate DESC LIMIT 1",
                   sec, sec, mSec, sec, sec, mSec);
}

SqlText alarmRecording(PB_STREAM_TIME start) {
    const unsigned long sec = asLu(start.seconds());
    return sqlText("SELECT * FROM STREAM WHERE (startDate < %lu OR startDate = %lu AND startMSec <= %u) "
                   "AND (status = 1)  ORDER BY startDate DESC LIMIT 1",
                   sec, sec, unsigned{start.mSec});
}

SqlText newestCompleted(std::optional<unsigned long> upTo) {
    if (!upTo) return sqlText("SELECT * FROM STREAM  WHERE recSize <> 0 ORDER BY streamID DESC LIMIT 1");
    return sqlText("SELECT * FROM STREAM  WHERE streamID <= %lu AND recSize <> 0 "
                   "ORDER BY streamID DESC LIMIT 1",
                   *upTo);
}

SqlText streamOfId(uint32_t id) {
    return sqlText("SELECT * FROM STREAM  WHERE streamID = %lu", asLu(id));
}

} // namespace statements

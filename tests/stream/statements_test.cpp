// What is sent to the index, word for word: statements.txt has a line for each, every number at its longest.
#include <gtest/gtest.h>

#include "stream/statements.h"
#include "tests/support/world.h"

namespace {

TEST(Statements, AreThoseOfTheFile) {
    using namespace statements;
    const PB_STREAM_TIME time(0xFFFFFFFF, 0xFFFF);
    const uint32_t id = 4'000'000'007;
    std::string sent;
    const auto add = [&](const SqlText& sql) { sent.append(sql.text).append("\n"); };
    for (const auto crossing : {forwardHolding, forwardAfter, backwardHolding, backwardBefore})
        for (const Left left : {Left(id), Left()}) add(crossing(time, left));
    for (const auto alarm : {nextAlarm, previousAlarm})
        for (const uint32_t last : {id, 0u}) add(alarm(time, last));
    for (const auto at : {recordingSince, startedBefore, alarmHolding, alarmRecording}) add(at(time));
    for (const auto newest : {newestStream, newestStreamWithData}) add(newest());
    for (const auto upTo : {std::optional<unsigned long>(id), {}}) add(newestCompleted(upTo));
    add(streamOfId(id));
    EXPECT_EQ(sent, test::readFile(TAVIRN_STATEMENTS));
}

} // namespace

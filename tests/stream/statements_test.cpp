// What is sent to the index, word for word: statements.txt has a line for each, every number at its longest.
#include <fstream>
#include <gtest/gtest.h>
#include <string>

#include "stream/statements.h"

namespace {

TEST(Statements, AreThoseOfTheFile) {
    using namespace statements;
    const PB_STREAM_TIME time(0xFFFFFFFF, 0xFFFF);
    const uint32_t id = 4'000'000'007;
    const SqlText texts[] = {
        forwardHolding(time, id),
        forwardHolding(time, {}),
        forwardAfter(time, id),
        forwardAfter(time, {}),
        backwardHolding(time, id),
        backwardHolding(time, {}),
        backwardBefore(time, id),
        backwardBefore(time, {}),
        recordingSince(time),
        startedBefore(time),
        newestStream(),
        newestStreamWithData(),
        nextAlarm(time, id),
        nextAlarm(time, 0),
        previousAlarm(time, id),
        previousAlarm(time, 0),
        alarmHolding(time),
        alarmRecording(time),
        newestCompleted(id),
        newestCompleted({}),
        streamOfId(id),
    };
    std::ifstream file(TAVIRN_STATEMENTS);
    std::string line;
    for (const SqlText& sql : texts) {
        ASSERT_TRUE(std::getline(file, line));
        EXPECT_EQ(sql.text, line);
    }
    EXPECT_FALSE(std::getline(file, line)) << line;
}

} // namespace

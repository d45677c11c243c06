#include <gtest/gtest.h>

#include "stream/stream_time.h"

namespace {

using Time = PB_STREAM_TIME;

TEST(StreamTime, Arithmetic) {
    const struct {
        const char* what;
        Time got, expected;
    } rows[] = {
        {"one carry only", Time(0, 1500) + Time(0, 1500), {1, 2000}},
        {"seconds wrap", Time(0xFFFFFFFF, 999) + Time(0, 1), {0, 0}},
        {"saturates on milliseconds alone", Time(5, 100) - Time(5, 101), {0, 0}},
        {"seconds have no sign", Time(0x80000000, 0) - Time(0x7FFFFFFF, 999), {0, 1}},
        {"product carries all seconds", Time(3, 500) * 10, {35, 0}},
        {"quotient carries the remainder", Time(7, 0) / 2, {3, 500}},
        {"quotient of late seconds", Time(0xFFFFFFFF, 0) / 2, {0x7FFFFFFF, 500}},
        {"division by 0", Time(7, 7) / 0, {0, 0}},
    };
    for (const auto& row : rows)
        EXPECT_TRUE(row.got == row.expected) << row.what << ": " << row.got.sec << " s " << row.got.mSec;
}

} // namespace

#include "platform/clock.h"

#include <chrono>
#include <gtest/gtest.h>
#include <limits>
#include <thread>

TEST(Clock, ASleepEndsInTimeOrWhenItIsNoLongerWanted) {
    std::atomic<bool> wanted{true};
    wallclock::wakeSleeper(); // while nobody sleeps
    const auto begin = std::chrono::steady_clock::now();
    wallclock::sleepWhile(wanted, {.tv_sec = 0, .tv_usec = 20000});
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(20));

    const timeval forEver{.tv_sec = std::numeric_limits<time_t>::max(), .tv_usec = 0};
    std::thread sleeper([&] { wallclock::sleepWhile(wanted, forEver); });
    wanted = false;
    wallclock::wakeSleeper();
    sleeper.join();
    wallclock::sleepWhile(wanted, forEver);
}

#include "daemon/signals.h"

#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>
#include <unistd.h>

#include "platform/kw_com.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "tests/support/log_recorder.h"
#include "tests/support/world.h"

namespace {

/// In a process of its own, since it changes the process's signals; prints what does not hold.
[[noreturn]] void checkSignals() {
    const test::LogRecorder log;
    sigset_t mask;
    sigfillset(&mask);
    sigprocmask(SIG_BLOCK, &mask, nullptr); // as a parent might leave it
    EXPECT_EQ(setSignal(), 0);
    sigprocmask(SIG_BLOCK, nullptr, &mask);
    for (const int open : {SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2, SIGPIPE, SIGSEGV})
        EXPECT_EQ(sigismember(&mask, open), 0) << open;
    for (const int shut : {SIGHUP, SIGALRM, SIGCHLD, SIGWINCH, SIGRTMIN, SIGRTMAX})
        EXPECT_EQ(sigismember(&mask, shut), 1) << shut;

    errno = EBADF;
    raise(SIGPIPE);
    raise(SIGUSR1);
    EXPECT_EQ(g_formatFlag, 1);
    raise(SIGUSR2);
    EXPECT_EQ(g_formatFlag, 0);
    for (const int stop : {SIGINT, SIGQUIT, SIGTERM, SIGTERM}) {
        g_loopFlag = kLoopRun;
        raise(stop);
        EXPECT_EQ(g_loopFlag, kLoopStop) << stop;
    }
    EXPECT_EQ(errno, EBADF);
    EXPECT_TRUE(log.lines().empty()) << "the handler must not log";
    logCaughtSignals();
    logCaughtSignals();
    EXPECT_EQ(log.lines().size(), 6u) << log.dump();
    EXPECT_TRUE(log.has(LOG_INFO, "catch SIGUSR1 (10)", "sigcatch"));
    EXPECT_TRUE(log.has(LOG_INFO, "catch SIGUSR2 (12)", "sigcatch"));
    EXPECT_TRUE(log.has(LOG_INFO, "catch SIGINT|SIGTERM|SIGQUIT (3)", "sigcatch"));
    EXPECT_EQ(log.count(LOG_INFO, "catch SIGINT|SIGTERM|SIGQUIT (15)", "sigcatch"), 2);
    _exit(testing::Test::HasFailure());
}

TEST(Signals, AreAcceptedCaughtAndReported) {
    EXPECT_EXIT(checkSignals(), testing::ExitedWithCode(0), "");
}

TEST(Signals, AStopBeforeAcceptIsNotLost) {
    const test::World world;
    const int listening = s_create_serv_socket(paths().controlSocket);
    setStopSocket(listening);
    sigcatch(SIGTERM);
    EXPECT_LT(s_accept_client(listening), 0) << "the loop had tested its flag before the signal came";
    setStopSocket(-1);
    close(listening);
    logCaughtSignals();
}

} // namespace

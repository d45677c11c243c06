// The daemon's whole life in a process of its own, and each step of its start-up failing.
#include <cerrno>
#include <csignal>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include "daemon/daemon.h"
#include "platform/paths.h"
#include "tests/support/log_recorder.h"
#include "tests/support/world.h"

namespace {
bool g_daemonFails = false;
bool g_sigactionFails = false;
bool g_stopAtOnce = false;
} // namespace

// In place of the C library's, for this program.
extern "C" int daemon(int, int) noexcept {
    errno = EAGAIN;
    return g_daemonFails ? -1 : 0;
}
extern "C" int sigaction(int signal, const struct sigaction* action, struct sigaction* old) noexcept {
    using Sigaction = int (*)(int, const struct sigaction*, struct sigaction*);
    static const auto real = reinterpret_cast<Sigaction>(dlsym(RTLD_NEXT, "sigaction"));
    if (g_sigactionFails) {
        errno = EINVAL;
        return -1;
    }
    const int result = real(signal, action, old);
    if (g_stopAtOnce && signal == SIGUSR2) raise(SIGTERM); // installed last: start-up has just begun
    return result;
}

namespace {

[[noreturn]] void live() {
    const test::LogRecorder log;
    const int code = runDaemon();
    fputs(log.dump().c_str(), stderr);
    _exit(code);
}

TEST(StartUp, EndsWithTheCodeOfTheStepThatFailed) {
    const struct {
        int code;
        const char* message;
        void (*spoil)(const test::World&);
    } steps[] = {
        {kExitDetach, "daemon error", [](const test::World&) { g_daemonFails = true; }},
        {kExitSignals, "setSignal error", [](const test::World&) { g_sigactionFails = true; }},
        {kExitPidFile, "createPidFile error",
         [](const test::World&) { test::writeFile(paths().pidFile, std::to_string(getpid())); }},
        {kExitSocket, "create server socket error",
         [](const test::World&) { mkdir(paths().controlSocket, 0700); }},
        {kExitStatusSegment, "create shared memory error",
         [](const test::World& world) { shmget(world.statusKey(), 16, IPC_CREAT | 0600); }},
    };
    for (const auto& [code, message, spoil] : steps) {
        const test::World world;
        const auto spoiled = [&, spoil = spoil] {
            spoil(world);
            live();
        };
        EXPECT_EXIT(spoiled(), testing::ExitedWithCode(code), std::string("main\\([0-9]+\\) ") + message)
            << code;
        // Nothing is undone.
        EXPECT_EQ(test::fileExists(paths().pidFile), code >= kExitPidFile);
        EXPECT_EQ(test::fileExists(paths().controlSocket), code >= kExitSocket);
        EXPECT_EQ(semget(world.statusKey(), 1, 0) != -1, code == kExitStatusSegment);
    }
}

TEST(StartUp, HonoursAStopAndTakesEverythingDown) {
    const test::World world;
    const auto stopped = [] {
        g_stopAtOnce = true;
        live();
    };
    EXPECT_EXIT(stopped(), testing::ExitedWithCode(0), "shmserver=0x");
    EXPECT_FALSE(test::fileExists(paths().pidFile));
    EXPECT_FALSE(test::fileExists(paths().controlSocket));
    EXPECT_EQ(shmget(world.statusKey(), 0, 0), -1);
    EXPECT_EQ(semget(world.statusKey(), 1, 0), -1);
}

} // namespace

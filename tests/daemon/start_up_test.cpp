// The daemon as a process: its pid file, its signals, and each step of its start-up failing.
#include <cerrno>
#include <csignal>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include "daemon/daemon.h"
#include "daemon/pid_file.h"
#include "daemon/signals.h"
#include "platform/paths.h"
#include "tests/daemon/said.h"
#include "tests/support/world.h"

static int g_failingStep = 0; ///< its exit code
static int g_killError = 0, g_unlinkError = 0;

// In place of the C library's, for this program.
extern "C" int daemon(int, int) noexcept {
    return g_failingStep == kExitDetach ? -1 : 0;
}
extern "C" int sigaction(int signal, const struct sigaction* action, struct sigaction* old) noexcept {
    static const auto real = reinterpret_cast<decltype(&sigaction)>(dlsym(RTLD_NEXT, "sigaction"));
    return g_failingStep == kExitSignals ? -1 : real(signal, action, old);
}
extern "C" int kill(pid_t pid, int signal) noexcept {
    static const auto real = reinterpret_cast<decltype(&kill)>(dlsym(RTLD_NEXT, "kill"));
    errno = g_killError;
    return g_killError != 0 ? -1 : real(pid, signal);
}
extern "C" int unlink(const char* path) noexcept {
    static const auto real = reinterpret_cast<decltype(&unlink)>(dlsym(RTLD_NEXT, "unlink"));
    errno = g_unlinkError;
    return g_unlinkError != 0 ? -1 : real(path);
}

namespace {

/// Lets the step with that exit code fail; 0 is a stop that arrives during start-up.
[[noreturn]] void startUp(int code, const test::World& world) {
    const test::LogRecorder log;
    g_failingStep = code;
    if (code == kExitPidFile) test::writeFile(paths().pidFile, std::to_string(getpid()));
    if (code == kExitSocket) mkdir(paths().controlSocket, 0700);
    if (code == kExitStatusSegment) shmget(world.statusKey(), 16, IPC_CREAT | 0600);
    if (code == 0) sigcatch(SIGTERM);
    const int result = runDaemon();
    fputs(said(log).c_str(), stderr);
    _exit(result);
}

TEST(StartUp, EndsWithTheCodeOfTheStepThatFailedAndUndoesNothing) {
    for (const auto& [code, message] : {std::pair(3, "3 main.. daemon error"),
                                        {4, "3 main.. setSignal error"},
                                        {5, "3 main.. createPidFile error"},
                                        {6, "3 main.. create server socket error"},
                                        {7, "3 main.. create shared memory error"},
                                        {0, "6 main.. shmserver=0x"}}) {
        const test::World world;
        EXPECT_EXIT(startUp(code, world), testing::ExitedWithCode(code), message);
        EXPECT_EQ(test::fileExists(paths().pidFile), code >= kExitPidFile);
        EXPECT_EQ(test::fileExists(paths().controlSocket), code >= kExitSocket);
        EXPECT_EQ(semget(world.statusKey(), 1, 0) != -1, code == kExitStatusSegment);
    }
}

TEST(PidFile, IsWrittenWholeUnlessAnotherInstanceMayRun) {
    const std::string mine = std::to_string(getpid()), said3 = "3 createPidFile() ";
    const struct {
        std::string before;
        int result;
        std::string message = "";
        int killError = 0, unlinkError = 0;
    } cases[] = {
        {"2147483647 and more than sixteen bytes", 0},
        {std::to_string(0x1'0000'0000 + getpid()), 0}, // beyond every pid, not to be narrowed to one
        {" " + mine + "xyz", -1},
        {"", -1, said3 + "fread error(Success)\n"},
        {"letters", -2},
        {"0\n", -2},
        {std::string(16, ' ') + mine, -2}, // behind the bytes read
        {"1", -3, said3 + "kill error(Operation not permitted)\n", EPERM},
        {"2147483647", -5, said3 + "unlink error(Read-only file system)\n", 0, EROFS},
    };
    const test::World world;
    const std::string pidFile = paths().pidFile;
    for (const auto& [before, result, message, killError, unlinkError] : cases) {
        const test::LogRecorder log;
        test::writeFile(pidFile, before);
        g_killError = killError;
        g_unlinkError = unlinkError;
        EXPECT_EQ(createPidFile(), result) << before;
        g_killError = g_unlinkError = 0;
        EXPECT_EQ(test::readFile(pidFile), result == 0 ? mine + "\n" : before);
        EXPECT_EQ(said(log), message);
    }
    unlink(paths().pidFile);
    const test::LogRecorder log;
    const std::string target = world.root() + "/victim";
    ASSERT_EQ(symlink(target.c_str(), paths().pidFile), 0);
    EXPECT_EQ(createPidFile(), -6) << "not through a link";
    EXPECT_FALSE(test::fileExists(target));
    unlink(paths().pidFile);

    signal(SIGXFSZ, SIG_IGN);
    rlimit size{};
    getrlimit(RLIMIT_FSIZE, &size);
    const rlimit oneByte{.rlim_cur = 1, .rlim_max = size.rlim_max}; // as a disk that is full behind it
    setrlimit(RLIMIT_FSIZE, &oneByte);
    EXPECT_EQ(createPidFile(), -6);
    setrlimit(RLIMIT_FSIZE, &size);
    EXPECT_FALSE(test::fileExists(pidFile)) << "it would keep every later start away";
    EXPECT_EQ(said(log), said3 + "fopen error(Too many levels of symbolic links)\n" + said3 +
                             "fwrite error(File too large)\n");
}

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
    for (const int signal : {SIGPIPE, SIGUSR1, SIGUSR2, SIGINT, SIGQUIT, SIGTERM, SIGTERM}) raise(signal);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(g_loopFlag, kLoopStop);
    EXPECT_EQ(g_formatFlag, 0);
    EXPECT_EQ(said(log), "") << "the handler must not log";
    logCaughtSignals();
    logCaughtSignals();
    const std::string stop = "6 sigcatch() catch SIGINT|SIGTERM|SIGQUIT ";
    EXPECT_EQ(said(log), stop + "(2)\n" + stop + "(15)\n" + stop + "(15)\n" + stop + "(3)\n" +
                             "6 sigcatch() catch SIGUSR1 (10)\n6 sigcatch() catch SIGUSR2 (12)\n");
    _exit(testing::Test::HasFailure());
}

TEST(Signals, AreAcceptedCaughtAndReported) {
    EXPECT_EXIT(checkSignals(), testing::ExitedWithCode(0), "");
}

} // namespace

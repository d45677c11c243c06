// The daemon as a process: its pid file, its signals, and each step of its start-up failing.
#include <csignal>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <thread>

#include "daemon/daemon.h"
#include "daemon/pid_file.h"
#include "tests/daemon/request_loop_fixture.h"

/// A daemon that could not start leaves its part of the status segment as it is. A process has one; this one
/// has many.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:runDaemon";
}

namespace test {
namespace {

/// Clients that do not behave and one that does, and signals, for the daemon that runs in this process. What
/// a signal is told with comes without another client.
void meetDaemon(const LogRecorder& log) {
    const std::string unknown(sizeof(rtsp_request), '\0');
    for (const std::string& bytes : {std::string(), std::string("short"), unknown, unknown + "x"}) {
        const int client = s_create_client_socket();
        EXPECT_TRUE(eventually([&] { return s_connect_serv(client, paths().controlSocket) >= 0; }));
        EXPECT_GE(s_write_data(client, bytes.data(), static_cast<int>(bytes.size())), 0);
        close(client);
    }
    const auto answer = exchange(paths().controlSocket, ControlRequest(RTSP_REQ_STATUS).record);
    EXPECT_EQ(readStatusAnswer(answer.value_or("")), "init");
    for (const int blockedOrIgnored : {SIGHUP, SIGALRM, SIGRTMAX, SIGPIPE}) kill(getpid(), blockedOrIgnored);
    for (const auto& [signal, message] : {std::pair(SIGUSR1, "catch SIGUSR1 (10)"),
                                          {SIGUSR2, "catch SIGUSR2 (12)"},
                                          {SIGTERM, "catch SIGINT|SIGTERM|SIGQUIT (15)"}}) {
        kill(getpid(), signal);
        EXPECT_TRUE(eventually([&, text = message] { return log.has(LOG_INFO, text, "sigcatch"); }));
    }
}

TEST(StartUp, EndsWithTheCodeOfTheStepThatFailedOrOnAStop) {
    failing::t_product = true;
    sigset_t mask;
    sigfillset(&mask);
    for (const auto& [code, message] : {std::pair(3, "daemon error"),
                                        {4, "setSignal error"},
                                        {5, "createPidFile error"},
                                        {6, "create server socket error"},
                                        {7, "create shared memory error"},
                                        {-1, "SIGQUIT (2)"}, // a stop that arrives during start-up
                                        {0, "s_read_data error"}}) {
        const World world;
        const LogRecorder log;
        const auto before = openFiles();
        g_loopFlag = kLoopNotBegun;
        simulated::takeSleepsUs();
        pthread_sigmask(SIG_BLOCK, &mask, nullptr); // as a parent might leave it, and for the client's thread
        std::thread client([&, meets = code == 0] {
            if (meets) meetDaemon(log);
        });
        if (code == kExitDetach) failing::arm("daemon");
        if (code == kExitSignals) failing::arm("sigaction");
        if (code == kExitPidFile) writeFile(paths().pidFile, std::to_string(getpid()));
        if (code == kExitSocket) mkdir(paths().controlSocket, 0700);
        if (code == kExitStatusSegment) shmget(world.statusKey(), 16, IPC_CREAT | 0600);
        if (code == -1) sigcatch(SIGINT);
        EXPECT_EQ(runDaemon(code == kExitDetach ? Detach::yes : Detach::no), std::max(code, 0));
        client.join();
        EXPECT_NE(log.dump().find(message), std::string::npos) << log.dump();
        EXPECT_EQ(log.count(LOG_INFO, "catch SIGUSR1 (10)", "sigcatch"), code == 0 ? 1 : 0);
        EXPECT_TRUE(code > 0 || openFiles() == before);
        const size_t rests =
            simulated::takeSleepsUs().size(); // behind a client that sent too little, a signal
        EXPECT_TRUE(code == 0 ? rests >= 3 : rests == 0) << rests;
        EXPECT_EQ(fileExists(paths().pidFile), code >= kExitPidFile); // what was made stays behind a failure
        EXPECT_EQ(fileExists(paths().controlSocket), code >= kExitSocket);
        EXPECT_EQ(semget(world.statusKey(), 1, 0) != -1, code == kExitStatusSegment);
    }
}

TEST(PidFile, IsWrittenWholeAndInItsPlaceUnlessAnotherInstanceMayRun) {
    const std::string mine = std::to_string(getpid());
    const struct {
        std::string before;
        int result;
        std::string message = "";
        const char* call = nullptr; ///< that fails
    } cases[] = {
        {"2147483647 and more than sixteen bytes", 0},
        {std::to_string(0x1'0000'0000 + getpid()), 0}, // beyond every pid, not to be narrowed to one
        {" " + mine + "xyz", -1},
        {"", -1, "fread error(Success)"},
        {"letters", -2},
        {std::string(16, ' ') + mine, -2}, // behind the bytes read
        {"1", -3, "kill error(Input/output error)", "kill"},
        {"2147483647", -5, "unlink error(Input/output error)", "unlink"},
    };
    const World world;
    LogRecorder log;
    const std::string pidFile = paths().pidFile;
    failing::t_product = true;
    for (const auto& [before, result, message, call] : cases) {
        log.clear();
        writeFile(pidFile, before);
        if (call != nullptr) failing::arm(call);
        EXPECT_EQ(createPidFile(), result) << before;
        EXPECT_EQ(readFile(pidFile), result == 0 ? mine + "\n" : before);
        EXPECT_TRUE(message.empty() ? log.dump().empty() : log.has(LOG_ERR, message, "createPidFile"));
    }
    unlink(pidFile.c_str());
    EXPECT_EQ(symlink("victim", pidFile.c_str()), 0);
    EXPECT_EQ(createPidFile(), -6);
    EXPECT_FALSE(fileExists(pidFile)) << "a link leads the write nowhere";
    unlink(pidFile.c_str());
    failing::arm("close"); // as on a disk that turns out to be full
    EXPECT_EQ(createPidFile(), -6);
    EXPECT_FALSE(fileExists(pidFile)) << "it would keep every later start away";
    EXPECT_TRUE(log.has(LOG_ERR, "fwrite error(Input/output error)", "createPidFile")) << log.dump();
}

} // namespace
} // namespace test

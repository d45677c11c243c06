#include "tests/support/process.h"

#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <set>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/world.h"

namespace test {
namespace {

/// In the child: becomes the program, or ends with 127.
[[noreturn]] void become(const std::vector<std::string>& words, const std::string& root,
                         const std::string& files) {
    std::vector<char*> arguments;
    for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    setenv("TAVIRN_ROOT", root.c_str(), 1);
    const int out = open((files + ".out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int err = open((files + ".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    execv(arguments[0], arguments.data());
    _exit(127);
}

bool servesSocket(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool connected = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    if (connected) { // a whole record of type 0, so that the daemon does not take it for a failure
        const std::string record(21052, '\0');
        EXPECT_EQ(send(fd, record.data(), record.size(), MSG_NOSIGNAL), static_cast<ssize_t>(record.size()));
        char byte;
        while (read(fd, &byte, 1) > 0) {
        }
    }
    close(fd);
    return connected;
}

/// Daemons that an object looks after already.
std::set<pid_t>& daemonsKnown() {
    static std::set<pid_t> pids;
    return pids;
}

/// -1 while there is none; a daemon that starts may be replacing it at this moment.
pid_t pidFromFile(const std::string& root) {
    pid_t pid = -1;
    std::ifstream(root + "/var/run/tavirn.pid") >> pid;
    return pid > 0 ? pid : -1;
}

} // namespace

void shortPause() {
    const timespec pause{0, 2'000'000};
    nanosleep(&pause, nullptr);
}

int waitForEnd(pid_t pid, int timeoutMs) {
    int status = 0;
    const bool ended = eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; }, timeoutMs);
    if (!ended) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

Process::Process(const std::vector<std::string>& words, const std::string& root) {
    static int count = 0;
    m_files = root + "/process" + std::to_string(++count);
    m_pid = fork();
    if (m_pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        become(words, root, m_files);
    }
}

Process::~Process() {
    if (m_pid <= 0) return;
    signal(SIGKILL);
    waitpid(m_pid, nullptr, 0);
}

void Process::signal(int number) const {
    kill(m_pid, number);
}

int Process::wait(int timeoutMs) {
    const int code = waitForEnd(m_pid, timeoutMs);
    if (code >= 0) m_pid = -1;
    return code;
}

std::string Process::output() const {
    return readFile(m_files + ".out");
}
std::string Process::errors() const {
    return readFile(m_files + ".err");
}

std::string runTool(const std::vector<std::string>& words, const std::string& root, int expected) {
    Process process(words, root);
    EXPECT_EQ(process.wait(), expected) << words[0] << ": " << process.errors();
    return process.output();
}

DaemonProcess::DaemonProcess(const std::string& root) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return;
    m_keeperPipe = ends[1];
    m_keeper = fork();
    if (m_keeper == 0) { // sees the end of the pipe when the test has gone, however it went
        close(ends[1]);
        char byte;
        while (read(ends[0], &byte, 1) > 0) {
        }
        const pid_t daemon = pidFromFile(root);
        if (daemon > 1) kill(daemon, SIGKILL);
        _exit(0);
    }
    close(ends[0]);

    const pid_t starter = fork();
    if (starter == 0) become({TAVIRN_ROOTED}, root, root + "/daemon");
    waitForEnd(starter, 20000); // daemon() has detached the rest

    eventually([&] {
        int status = 0;
        for (pid_t ended; (ended = waitpid(-1, &status, WNOHANG)) > 0;) {
            if (ended == m_keeper) continue;
            m_exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return true;
        }
        const pid_t named = pidFromFile(root); // by a daemon refused, the one that was there before
        if (named <= 0 || daemonsKnown().contains(named) || !servesSocket(root + "/tmp/tavirn")) return false;
        m_pid = named;
        return true;
    });
    daemonsKnown().insert(m_pid);
}

int DaemonProcess::stop(int signal, int timeoutMs) {
    if (m_pid <= 0) return m_exitCode;
    kill(m_pid, signal);
    m_exitCode = waitForEnd(m_pid, timeoutMs);
    if (m_exitCode >= 0) m_pid = -1;
    return m_exitCode;
}

DaemonProcess::~DaemonProcess() {
    if (m_pid > 0 && stop(SIGTERM) < 0) stop(SIGKILL);
    if (m_keeper > 0) {
        kill(m_keeper, SIGKILL);
        waitpid(m_keeper, nullptr, 0);
    }
    close(m_keeperPipe);
}

} // namespace test

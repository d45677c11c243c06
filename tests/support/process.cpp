#include "tests/support/process.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tools/client/control_client.h"

namespace test {
namespace {

int exitCodeOf(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

pid_t pidFromFile(const std::string& root) {
    pid_t pid = -1;
    std::ifstream(root + "/var/run/tavirn.pid") >> pid;
    return pid > 0 ? pid : -1;
}

} // namespace

int waitForEnd(pid_t pid, int timeoutMs) {
    int status = 0;
    const bool ended = eventually([&] { return waitpid(pid, &status, WNOHANG) == pid; }, timeoutMs);
    return ended ? exitCodeOf(status) : -1;
}

Process::Process(const std::vector<std::string>& words, const std::string& root) {
    static int count = 0;
    m_files = root + "/process" + std::to_string(++count);
    std::vector<char*> arguments;
    for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    m_pid = fork();
    if (m_pid != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL); // a daemon that detaches forks, and so is free of it
    setenv("TAVIRN_ROOT", root.c_str(), 1);
    dup2(creat((m_files + ".out").c_str(), 0600), STDOUT_FILENO);
    dup2(creat((m_files + ".err").c_str(), 0600), STDERR_FILENO);
    execv(arguments[0], arguments.data());
#ifdef TAVIRN_EMULATOR // the target's programs run in it; tools of this machine's own ran above
    if (errno == ENOEXEC) {
        char shell[] = "/bin/sh", option[] = "-c", run[] = "exec " TAVIRN_EMULATOR " \"$0\" \"$@\"";
        arguments.insert(arguments.begin(), {shell, option, run});
        execv(shell, arguments.data());
    }
#endif
    _exit(127);
}

Process::~Process() {
    if (m_pid <= 0) return;
    signal(SIGKILL);
    waitpid(m_pid, nullptr, 0);
}

int Process::wait(int timeoutMs) {
    const int code = waitForEnd(m_pid, timeoutMs);
    if (code >= 0) m_pid = -1;
    return code;
}

std::string runTool(const std::vector<std::string>& words, const std::string& root, int expected) {
    Process process(words, root);
    EXPECT_EQ(process.wait(), expected) << words[0] << ": " << process.errors();
    return process.output();
}

std::string runnable(const std::string& program, [[maybe_unused]] const std::string& root) {
#ifdef TAVIRN_EMULATOR
    const std::string script = root + '/' + std::filesystem::path(program).filename().string();
    writeFile(script, "#!/bin/sh\nexec " TAVIRN_EMULATOR " " + program + " \"$@\"\n");
    std::filesystem::permissions(script, std::filesystem::perms::owner_all);
    return script;
#else
    return program;
#endif
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
        while (read(ends[0], &byte, 1) > 0) continue;
        const pid_t daemon = pidFromFile(root);
        if (daemon > 1) kill(daemon, SIGKILL);
        _exit(0);
    }
    close(ends[0]);

    m_exitCode = Process({TAVIRN_ROOTED}, root).wait();
    if (m_exitCode != 0) return; // refused, before it detached
    m_exitCode = -1;

    eventually([&] {
        int status = 0;
        for (pid_t ended; (ended = waitpid(-1, &status, WNOHANG)) > 0;) {
            if (ended == m_keeper) continue;
            m_exitCode = exitCodeOf(status);
            return true;
        }
        const pid_t named = pidFromFile(root);
        const bool serves =
            named > 0 && exchange((root + "/tmp/tavirn").c_str(), ControlRequest(0).record).has_value();
        if (serves) m_pid = named;
        return serves;
    });
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

#include "tests/support/process.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/paths.h"
#include "tools/client/control_client.h"

namespace test {
Process::Process(const std::vector<std::string>& words, const std::string& root) {
    static int count = 0;
    m_files = root + "/process" + std::to_string(++count);
    std::vector<char*> arguments;
    for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    m_pid = fork();
    if (m_pid != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL); // should the test be killed
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
    stop(SIGKILL);
}

int Process::wait(int timeoutMs) {
    int status = 0;
    if (m_pid <= 0 || !eventually([&] { return waitpid(m_pid, &status, WNOHANG) == m_pid; }, timeoutMs))
        return m_code;
    m_pid = -1;
    return m_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
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

DaemonProcess::DaemonProcess(const std::string& root) : Process({TAVIRN_ROOTED, "--foreground"}, root) {
    const std::string socket = root + kFixedPaths.controlSocket;
    eventually([&] {
        m_serving = exchange(socket.c_str(), ControlRequest(0).record).has_value();
        return m_serving || wait(0) >= 0;
    });
}

} // namespace test

#include "tools/tour/processes.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/ipc.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "platform/paths.h"
#include "platform/paths_rooted.h"
#include "tools/client/control_client.h"
#include "tools/common/command_line.h"
#include "tools/common/stop_signals.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kLookInterval{10};
constexpr std::chrono::seconds kComesUp{20};
constexpr std::chrono::seconds kLeave{5}; ///< to end when all has failed

/// The last line of a log, where a program says why it ends.
std::string lastLine(const std::string& log) {
    std::ifstream file(log);
    std::string last;
    for (std::string line; std::getline(file, line);)
        if (!line.empty()) last = line;
    return last.empty() ? "" : ": " + last;
}

} // namespace

void checkInterrupted() {
    if (g_stop) throw Failure(kFailed, "interrupted");
}

bool waitUntil(std::chrono::milliseconds atMost, const std::function<bool()>& condition) {
    for (const Clock::time_point end = Clock::now() + atMost; !condition();) {
        if (Clock::now() >= end) return false;
        checkInterrupted();
        std::this_thread::sleep_for(kLookInterval);
    }
    return true;
}

Child::Child(const std::vector<std::string>& words, const std::string& log)
    : m_name(std::filesystem::path(words[0]).filename()), m_log(log) {
    std::vector<char*> arguments;
    for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    std::fflush(stdout);
    const pid_t parent = getpid();
    m_pid = fork();
    if (m_pid == -1) throw Failure(kFailed, std::string("cannot start a process: ") + std::strerror(errno));
    if (m_pid != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGTERM); // should the tour be killed
    if (getppid() != parent) _exit(1);
    const int file = log.empty() ? -1 : open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    for (const int stream : {STDOUT_FILENO, STDERR_FILENO})
        if (file != -1) dup2(file, stream);
    execvp(arguments[0], arguments.data());
    std::fprintf(stderr, "%s: %s\n", arguments[0], std::strerror(errno));
    _exit(127);
}

Child::~Child() {
    if (hasEnded()) return;
    kill(m_pid, SIGTERM);
    const Clock::time_point end = Clock::now() + kLeave; // whatever else has been signalled
    while (!hasEnded() && Clock::now() < end) std::this_thread::sleep_for(kLookInterval);
    if (hasEnded()) return;
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
}

bool Child::hasEnded() {
    int status = 0;
    if (m_code == -1 && waitpid(m_pid, &status, WNOHANG) == m_pid)
        m_code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return m_code != -1;
}

void Child::finish(std::chrono::seconds atMost) {
    if (!waitUntil(atMost, [&] { return hasEnded(); }))
        throw Failure(kFailed, m_name + " does not end" + lastLine(m_log));
    if (m_code != 0)
        throw Failure(kFailed, m_name + " ended with exit code " + std::to_string(m_code) + lastLine(m_log));
}

void Child::stop(std::chrono::seconds atMost) {
    if (hasEnded())
        throw Failure(kFailed, m_name + " has ended by itself, with exit code " + std::to_string(m_code) +
                                   lastLine(m_log));
    kill(m_pid, SIGTERM);
    finish(atMost);
}

void awaitService(Child& daemon) {
    const auto serves = [] { return exchange(paths().controlSocket, ControlRequest(0).record).has_value(); };
    if (waitUntil(kComesUp, [&] { return daemon.hasEnded() || serves(); }) && !daemon.hasEnded()) return;
    daemon.stop(kLeave);
    throw Failure(kFailed, std::string("the daemon does not serve ") + paths().controlSocket);
}

World::World() : m_kept(pathsAreRooted()) {
    if (m_kept) {
        const std::string card = paths().card;
        m_root = std::filesystem::absolute(card.substr(0, card.size() - std::strlen(kFixedPaths.card)));
        if (std::filesystem::exists(paths().index))
            throw Failure(kFailed, m_root + " holds a recording already; name another directory");
    } else {
        m_root = std::filesystem::temp_directory_path() / "tavirn-XXXXXX";
        if (!mkdtemp(m_root.data()))
            throw Failure(kFailed, "cannot make " + m_root + ": " + std::strerror(errno));
    }
    setPathsRoot(m_root.c_str());
    setenv("TAVIRN_ROOT", m_root.c_str(), 1); // for what is started
}

World::~World() {
    for (const int project : {kStatusSegmentProject, kOutputMemoryProject}) {
        const key_t key = ftok(paths().ipcKey, project);
        if (key == -1) continue;
        if (const int id = shmget(key, 0, 0); id != -1) shmctl(id, IPC_RMID, nullptr);
        if (const int id = semget(key, 0, 0); id != -1) semctl(id, 0, IPC_RMID);
    }
    std::error_code ignored;
    if (!m_kept)
        std::filesystem::remove_all(m_root, ignored);
    else
        std::printf("kept: %s\n", m_root.c_str());
}

std::string World::left() const {
    std::string all;
    const auto add = [&](bool there, const std::string& what) {
        if (there) all += (all.empty() ? "" : ", ") + what;
    };
    for (const char* path : {paths().controlSocket, paths().pidFile})
        add(std::filesystem::exists(path), std::string("the file ") + path);
    for (const auto& [project, what] : {std::pair(kStatusSegmentProject, "the status segment"),
                                        {kOutputMemoryProject, "the output memory"}}) {
        const key_t key = ftok(paths().ipcKey, project);
        add(shmget(key, 0, 0) != -1 || semget(key, 0, 0) != -1, what);
    }
    return all;
}

// Programs run by a test: started with a list of words, waited for, and never left behind.
#pragma once

#include <csignal>
#include <string>
#include <sys/types.h>
#include <unistd.h>
#include <vector>

#include "tests/support/world.h"

namespace test {

/// A child process with its standard output and error in files of the world's directory.
class Process {
public:
    /// Starts `words` (the program's path first), TAVIRN_ROOT set to `root`.
    Process(const std::vector<std::string>& words, const std::string& root);
    ~Process(); ///< kills it when it still runs
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const { return m_pid; }
    /// Unless it has been waited for.
    void signal(int number) const {
        if (m_pid > 0) kill(m_pid, number);
    }
    /// Signals and waits.
    int stop(int number) { return signal(number), wait(20000); }
    /// The exit code; 128 + the signal's number for a killed one; -1 when it does not end in time.
    int wait(int timeoutMs = 60000);
    std::string output() const { return readFile(m_files + ".out"); }
    std::string errors() const { return readFile(m_files + ".err"); }

private:
    pid_t m_pid = -1;
    int m_code = -1;     ///< of one that has ended
    std::string m_files; ///< path that ".out" and ".err" are appended to
};

/// Runs to the end; fails the test with the program's errors unless it exits with `expected`. Its output.
std::string runTool(const std::vector<std::string>& words, const std::string& root, int expected = 0);

/// What another program can start `program` by, also where programs of the target need the emulator: then it
/// is a script in `root`.
std::string runnable(const std::string& program, const std::string& root);

/// Polls until `condition` holds; false when it does not within the time.
template <class Condition> bool eventually(Condition condition, int timeoutMs = 20000) {
    for (int waited = 0; !condition(); waited += 2, usleep(2000))
        if (waited >= timeoutMs) return false;
    return true;
}

/// The rooted daemon in the foreground.
class DaemonProcess : public Process {
public:
    /// Starts it and waits until it serves its socket or has ended.
    explicit DaemonProcess(const std::string& root);
    ~DaemonProcess() { stop(SIGTERM); }

    bool serving() const { return m_serving; }

private:
    bool m_serving = false;
};

} // namespace test

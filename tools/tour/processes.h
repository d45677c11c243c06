// What the tour starts, and the world it lives in. Nothing of it outlives the program, however that ends.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

/// Throws Failure once a signal has asked the program to end.
void checkInterrupted();

/// Looks again and again until `condition` holds; false when it does not in time. Throws Failure when the
/// program is to end meanwhile.
bool waitUntil(std::chrono::milliseconds atMost, const std::function<bool()>& condition);

/// A program that has been started.
class Child {
public:
    /// `words`: the program's path first. Into `log` goes what it says; empty: where this program's goes.
    /// Throws Failure.
    Child(const std::vector<std::string>& words, const std::string& log);
    ~Child(); ///< ends it when it still runs
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t pid() const { return m_pid; }
    bool hasEnded();
    /// Waits for it to end by itself. Throws Failure unless it does in time, and with exit code 0.
    void finish(std::chrono::seconds atMost);
    /// The same after a SIGTERM; one that has ended before is a failure too.
    void stop(std::chrono::seconds atMost);

private:
    const std::string m_name, m_log;
    pid_t m_pid = -1;
    int m_code = -1;
};

/// Waits until the daemon answers in the world of paths(); throws Failure, which says why if it has ended.
void awaitService(Child& daemon);

/// The rooted world: a temporary one of its own, or the one that --root names, which stays.
class World {
public:
    /// Throws Failure when a recording is there already.
    World();
    ~World(); ///< nothing is left of it but a directory that is to be kept
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    const std::string& root() const { return m_root; }
    void keep() { m_kept = true; }
    /// What a daemon that has ended in order would have removed; empty: nothing is there.
    std::string left() const;

private:
    std::string m_root;
    bool m_kept;
};

// Stands in for syslog in every test program: the log is kept instead of sent.
#pragma once

#include <string>

namespace test {

/// While one exists, what is logged by any thread is kept in it; at most one at a time.
class LogRecorder {
public:
    LogRecorder();
    ~LogRecorder();
    LogRecorder(const LogRecorder&) = delete;
    LogRecorder& operator=(const LogRecorder&) = delete;

    /// All that was logged, a line each: the priority, a space and the text, "%m" expanded.
    std::string dump() const;
    void clear();

    /// Lines of that priority that are `text`, or "name(line) " followed by it where `name` is given.
    int count(int priority, const std::string& text, const std::string& name = "") const;
    bool has(int priority, const std::string& text, const std::string& name = "") const {
        return count(priority, text, name) > 0;
    }

private:
    std::string m_lines;
};

} // namespace test

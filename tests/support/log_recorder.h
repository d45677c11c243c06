// Stands in for syslog in every test program: the log is kept instead of sent.
#pragma once

#include <string>
#include <vector>

namespace test {

struct LogLine {
    int priority;
    std::string format; ///< as passed to syslog
    std::string text;   ///< formatted, "%m" expanded
};

/// While one exists, what is logged by any thread is kept in it; at most one at a time.
class LogRecorder {
public:
    LogRecorder();
    ~LogRecorder();
    LogRecorder(const LogRecorder&) = delete;
    LogRecorder& operator=(const LogRecorder&) = delete;

    std::vector<LogLine> lines() const;
    void clear();

    /// Lines of that priority whose text is `text`, or "name(line) " followed by it where `name` is given.
    int count(int priority, const std::string& text, const std::string& name = "") const;
    bool has(int priority, const std::string& text, const std::string& name = "") const {
        return count(priority, text, name) > 0;
    }
    /// All texts, one per line, for failure messages.
    std::string dump() const;

private:
    std::vector<LogLine> m_lines;
};

} // namespace test

#include "tests/support/log_recorder.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <sstream>

// The formats pass through here; their callers have had them checked.
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

namespace test {
namespace {

std::mutex mutex;                ///< other threads may log until the process has gone: nothing ends it
std::string* recorded = nullptr; ///< the living recorder's

void keep(int priority, const char* format, va_list arguments) {
    const int error = errno; // what "%m" says, and what the caller goes on with
    const std::lock_guard lock(mutex);
    if (recorded == nullptr) return;
    char text[4096];
    errno = error;
    std::vsnprintf(text, sizeof text, format, arguments);
    recorded->append(std::to_string(priority) + " ").append(text).append("\n");
    errno = error;
}

} // namespace

LogRecorder::LogRecorder() {
    const std::lock_guard lock(mutex);
    recorded = &m_lines;
}

LogRecorder::~LogRecorder() {
    const std::lock_guard lock(mutex);
    recorded = nullptr;
}

std::string LogRecorder::dump() const {
    const std::lock_guard lock(mutex);
    return m_lines;
}

void LogRecorder::clear() {
    const std::lock_guard lock(mutex);
    m_lines.clear();
}

int LogRecorder::count(int priority, const std::string& text, const std::string& name) const {
    std::istringstream lines(dump());
    int found = 0;
    for (std::string line; std::getline(lines, line);)
        found += line.starts_with(std::to_string(priority) + " " + name) && line.ends_with(" " + text);
    return found;
}

} // namespace test

// The C library's own name, and the one that fortified code calls. Declared here, since <syslog.h> turns
// some of its functions into inline ones.
extern "C" {
void syslog(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    test::keep(priority, format, arguments);
    va_end(arguments);
}
void __syslog_chk(int priority, int, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    test::keep(priority, format, arguments);
    va_end(arguments);
}
}

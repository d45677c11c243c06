#include "tests/support/log_recorder.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <type_traits>

// The formats pass through here; their callers have had them checked.
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

namespace test {
namespace {

std::mutex mutex; ///< other threads may log until the process has gone: nothing ends it
static_assert(std::is_trivially_destructible_v<std::mutex>);
std::vector<LogLine>* recorded = nullptr; ///< the living recorder's

bool says(const LogLine& line, const std::string& text, const std::string& name) {
    if (name.empty()) return line.text == text;
    const size_t end = line.text.find_first_not_of("0123456789", name.size() + 1);
    return line.text.starts_with(name + "(") && end != std::string::npos &&
           line.text.substr(end) == ") " + text;
}

void keep(int priority, const char* format, va_list arguments) {
    const int error = errno; // what "%m" says, and what the caller goes on with
    const std::lock_guard lock(mutex);
    if (recorded == nullptr) return;
    char text[4096];
    errno = error;
    std::vsnprintf(text, sizeof text, format, arguments);
    recorded->push_back({priority, format, text});
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

std::vector<LogLine> LogRecorder::lines() const {
    const std::lock_guard lock(mutex);
    return m_lines;
}

void LogRecorder::clear() {
    const std::lock_guard lock(mutex);
    m_lines.clear();
}

int LogRecorder::count(int priority, const std::string& text, const std::string& name) const {
    int found = 0;
    for (const LogLine& line : lines()) found += line.priority == priority && says(line, text, name);
    return found;
}

std::string LogRecorder::dump() const {
    std::string all;
    for (const LogLine& line : lines()) all += std::to_string(line.priority) + " " + line.text + "\n";
    return all;
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

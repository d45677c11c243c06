#include "tools/view/view_output.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "tools/common/command_line.h"

namespace {

[[noreturn]] void cannot(const char* what, const std::string& name) {
    throw Failure(kFailed, std::string("cannot ") + what + " " + name + ": " + std::strerror(errno));
}

} // namespace

ViewOutput::~ViewOutput() {
    if (m_made) unlink(m_name.c_str());
    if (m_file > STDERR_FILENO) close(m_file);
}

void ViewOutput::open(const std::string& name) {
    if (name.empty()) return;
    m_name = name == "-" ? "standard output" : name;
    if (name == "-") {
        m_file = STDOUT_FILENO;
        return;
    }
    constexpr int kFlags = O_WRONLY | O_CREAT | O_CLOEXEC;
    m_file = ::open(name.c_str(), kFlags | O_EXCL, 0644);
    m_made = m_file != -1;
    if (!m_made) m_file = ::open(name.c_str(), kFlags, 0644);
    if (m_file == -1) cannot("create", name);
}

void ViewOutput::begin() {
    m_made = false;
    if (m_file == -1 || isStandardOutput()) return;
    if (ftruncate(m_file, 0) != 0 && errno != EINVAL) cannot("empty", m_name); // a pipe or device: EINVAL
}

bool ViewOutput::isStandardOutput() const {
    return m_file == STDOUT_FILENO;
}

bool ViewOutput::readerGone() const {
    pollfd entry{m_file, 0, 0}; // errors and a hang-up are told unasked; -1 is passed over
    return poll(&entry, 1, 0) == 1;
}

bool ViewOutput::write(std::string_view data) {
    for (size_t done = 0; m_file != -1 && done < data.size();) {
        const ssize_t written = ::write(m_file, data.data() + done, data.size() - done);
        if (written == -1 && (errno == EPIPE || errno == EINTR)) return false;
        if (written == -1) cannot("write to", m_name);
        done += static_cast<size_t>(written);
    }
    return true;
}

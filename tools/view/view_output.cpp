#include "tools/view/view_output.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

ViewOutput::~ViewOutput() {
    if (m_file > STDERR_FILENO) close(m_file);
}

bool ViewOutput::open(const std::string& name) {
    if (name.empty()) return true;
    m_file =
        name == "-" ? STDOUT_FILENO : ::open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    return m_file != -1;
}

bool ViewOutput::isStandardOutput() const {
    return m_file == STDOUT_FILENO;
}

ViewOutput::Result ViewOutput::write(std::string_view data) {
    for (size_t done = 0; m_file != -1 && done < data.size();) {
        const ssize_t written = ::write(m_file, data.data() + done, data.size() - done);
        if (written == -1) return errno == EPIPE ? Result::readerGone : Result::failed;
        done += static_cast<size_t>(written);
    }
    return Result::written;
}

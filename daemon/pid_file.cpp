#include "daemon/pid_file.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <optional>
#include <unistd.h>

#include "platform/log.h"
#include "platform/paths.h"

namespace {

constexpr size_t kMaxPidText = 16;

/// The number at the start of the open file's first bytes, 0 when there is none; nothing when it is empty.
std::optional<pid_t> readPid(int file) {
    char text[kMaxPidText + 1]{};
    errno = 0; // reading nothing is no error of its own
    if (read(file, text, kMaxPidText) <= 0) {
        logNamed(LOG_ERR, "createPidFile", "fread error(%m)");
        return std::nullopt;
    }
    // Taken as a 32-bit long would be, whatever the machine's.
    const long number = strtol(text, nullptr, 10);
    return static_cast<pid_t>(std::clamp<long>(number, INT32_MIN, INT32_MAX));
}

/// 0 when the pid file there was is out of the way, else createPidFile's result.
int removeStaleFile(int file) {
    const std::optional<pid_t> pid = readPid(file);
    close(file);
    if (!pid) return -1;
    if (*pid == 0) return -2;
    if (kill(*pid, 0) == 0) return -1;
    if (errno != ESRCH) {
        logNamed(LOG_ERR, "createPidFile", "kill error(%m)");
        return -3;
    }
    if (unlink(paths().pidFile) < 0) {
        logNamed(LOG_ERR, "createPidFile", "unlink error(%m)");
        return -5;
    }
    return 0;
}

} // namespace

int createPidFile() {
    const int existing = open(paths().pidFile, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (existing >= 0)
        if (const int result = removeStaleFile(existing); result != 0) return result;

    // Made anew: of two starts at once one has it, and a link somebody put there leads the write nowhere.
    const int file = open(paths().pidFile, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (file < 0) {
        logAt(LOG_ERR, "fopen error(%m)");
        return -6;
    }
    const pid_t pid = getpid();
    if (pid < 0) logAt(LOG_ERR, "getpid error(%m)");
    const bool isTaken = dprintf(file, "%u\n", static_cast<unsigned>(pid)) > 0;
    if (close(file) == 0 && isTaken) return 0; // some file systems say only now that they are full
    logAt(LOG_ERR, "fwrite error(%m)");
    unlink(paths().pidFile); // what was written of it would keep every later start away
    return -6;
}

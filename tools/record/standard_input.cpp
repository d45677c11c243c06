#include "tools/record/standard_input.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/recording/recording_error.h"

namespace {

constexpr const char* kHelp = "; check it, and the room in the directory for temporary files (TMPDIR)";

[[noreturn]] void fail(const std::string& what) {
    throw RecordingError("cannot " + what + ": " + std::strerror(errno) + kHelp);
}

void writeAll(int file, const char* data, size_t bytes) {
    while (bytes > 0) {
        const ssize_t written = write(file, data, bytes);
        if (written == -1) fail("copy standard input");
        data += written;
        bytes -= static_cast<size_t>(written);
    }
}

} // namespace

std::string standardInputAsFile(const std::atomic<bool>& stop) {
    struct stat status {};
    if (fstat(STDIN_FILENO, &status) == -1) fail("read standard input");
    if (S_ISREG(status.st_mode)) return "/proc/self/fd/0";

    std::string path = std::filesystem::temp_directory_path() / "tavirn-record-XXXXXX";
    const int file = mkstemp(path.data());
    if (file == -1) fail("copy standard input to " + path);
    unlink(path.c_str());
    std::array<char, 64 << 10> data{};
    while (!stop) {
        const ssize_t bytes = read(STDIN_FILENO, data.data(), data.size());
        if (bytes == 0) break;
        if (bytes == -1 && errno != EINTR) fail("read standard input");
        if (bytes > 0) writeAll(file, data.data(), static_cast<size_t>(bytes));
    }
    return "/proc/self/fd/" + std::to_string(file);
}

#include "tools/record/record_place.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/file.h>
#include <system_error>

#include "platform/paths.h"
#include "tools/recording/recording_writer.h"

namespace {

void makeDirectory(const std::filesystem::path& directory) {
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (error)
        throw RecordingError("cannot create the directory " + directory.string() + ": " + error.message() +
                             "; check its permissions or name another --root");
}

void makeFile(const std::filesystem::path& path, const char* content) {
    std::error_code error;
    if (std::filesystem::exists(path, error)) return;
    makeDirectory(path.parent_path());
    std::ofstream file(path);
    file << content;
    if (!file.flush())
        throw RecordingError("cannot create the file " + path.string() +
                             "; check its permissions or name another --root");
}

} // namespace

void makePlace(bool rooted) {
    if (std::error_code error; !rooted && !std::filesystem::exists(paths().cardDetect, error))
        throw RecordingError("this is no device; name a directory with --root");
    makeDirectory(paths().card);
    makeDirectory(std::filesystem::path(paths().index).parent_path());
    makeFile(paths().ipcKey, "");
    if (!rooted) return;
    makeDirectory(std::filesystem::path(paths().pidFile).parent_path());
    makeFile(paths().cardDetect, "1\n");
    makeFile(paths().cardReadOnly, "0\n");
}

void lockPlace() {
    // Of the place's files the one that nobody else locks: SQLite locks the index, and a directory for
    // temporary files may be locked by who tidies it up. A file system without locks is taken as it is.
    const int keyFile = open(paths().ipcKey, O_RDONLY | O_CLOEXEC);
    if (keyFile == -1)
        throw RecordingError("cannot open the file " + std::string(paths().ipcKey) +
                             "; check its permissions");
    if (flock(keyFile, LOCK_EX | LOCK_NB) == -1 && errno == EWOULDBLOCK)
        throw RecordingError(
            "another tavirn-record writes to this world; wait for it, or name another --root");
}

#include "tools/record/record_place.h"

#include <filesystem>
#include <fstream>
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
    makeDirectory(paths().card);
    makeDirectory(std::filesystem::path(paths().index).parent_path());
    makeFile(paths().ipcKey, "");
    if (!rooted) return;
    makeDirectory(std::filesystem::path(paths().pidFile).parent_path());
    makeFile(paths().cardDetect, "1\n");
    makeFile(paths().cardReadOnly, "0\n");
}

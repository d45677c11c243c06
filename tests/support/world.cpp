#include "tests/support/world.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

#include "platform/paths.h"
#include "platform/paths_rooted.h"

namespace test {
namespace {

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

bool isUsed(key_t key) {
    return shmget(key, 0, 0) != -1 || errno != ENOENT || semget(key, 0, 0) != -1 || errno != ENOENT;
}

/// Keeps other worlds off the keys until the descriptor is closed or the process has gone: an abstract
/// socket name leaves nothing behind, whatever ends the test. -1 when the keys are taken.
int claim(key_t key) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string name = "tavirn-test-key-" + std::to_string(key);
    name.copy(address.sun_path + 1, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd == -1) fail("socket");
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
    close(fd);
    return -1;
}

} // namespace

World::World() : m_root(std::filesystem::temp_directory_path() / "tavirn-XXXXXX") {
    if (!mkdtemp(m_root.data())) fail("mkdtemp " + m_root);
    for (const char* directory : {"/tmp", "/var/run", "/mnt/card", "/sys/devices/platform/dw_mmc.0"})
        std::filesystem::create_directories(m_root + directory);
    setPathsRoot(m_root.c_str());
    setCardState('1', '0');

    // ftok keeps 16 bits of the inode. Rejected files stay until the end, or their inode would come again.
    for (int attempt = 0; m_claim == -1; ++attempt) {
        if (attempt == 100) throw std::runtime_error("no free IPC keys below " + m_root);
        if (attempt > 0) std::filesystem::rename(paths().ipcKey, paths().ipcKey + std::to_string(attempt));
        writeFile(paths().ipcKey, "");
        if (!isUsed(statusKey()) && !isUsed(outputKey())) m_claim = claim(statusKey());
    }
}

World::~World() {
    for (const key_t key : {statusKey(), outputKey()}) {
        if (key == -1) continue; // the key file has gone
        shmctl(shmget(key, 0, 0), IPC_RMID, nullptr);
        semctl(semget(key, 0, 0), 0, IPC_RMID);
    }
    close(m_claim);
    std::error_code ignored;
    std::filesystem::remove_all(m_root, ignored);
}

key_t World::statusKey() const {
    return ftok((m_root + kFixedPaths.ipcKey).c_str(), kStatusSegmentProject);
}

key_t World::outputKey() const {
    return ftok((m_root + kFixedPaths.ipcKey).c_str(), kOutputMemoryProject);
}

void World::setCardState(char cardDetect, char readOnly) {
    writeFile(m_root + kFixedPaths.cardDetect, std::string(cardDetect != 0, cardDetect));
    writeFile(m_root + kFixedPaths.cardReadOnly, std::string(readOnly != 0, readOnly));
}

void writeFile(const std::string& path, const std::string& content) {
    if (!(std::ofstream(path, std::ios::binary) << content << std::flush)) fail("write " + path);
}

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) fail("read " + path);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool fileExists(const std::string& path) {
    return std::filesystem::exists(path);
}

std::ptrdiff_t openFiles() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

void patchFile(const std::string& path, std::streamoff position, const std::string& bytes) {
    std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
    if (!(file.seekp(position) << bytes << std::flush)) fail("patch " + path);
}

} // namespace test

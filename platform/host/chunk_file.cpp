// Chunks as plain files: chunk n is <card>/chunkNNNNN, its size the ring's length. Bytes come from pread
// only, so that a file which shrinks or fails under the reader is a failed read and never a signal.
#include "platform/zuvo_chunk.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/paths.h"
#include "stream/records.h"

namespace {

/// Positions inside a chunk are 32-bit words.
constexpr uint64_t kMaxChunkBytes = UINT32_MAX;

int openFile(unsigned chunkId) {
    char path[PATH_MAX];
    const int length = std::snprintf(path, sizeof path, kChunkFile, paths().card, chunkId);
    if (length < 0 || static_cast<size_t>(length) >= sizeof path) return -1;
    int file;
    // Non-blocking, so that a pipe in a chunk's place can't hold the opener; files don't care.
    do {
        file = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    } while (file < 0 && errno == EINTR);
    return file;
}

/// All of it or failure: the size was checked at the opening, so an early end means that the file shrank.
bool readWhole(int file, char* buffer, size_t length, uint64_t position) {
    while (length > 0) {
        const ssize_t got = pread(file, buffer, length, static_cast<off_t>(position));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        buffer += got;
        position += static_cast<uint64_t>(got);
        length -= static_cast<size_t>(got);
    }
    return true;
}

} // namespace

CZUVOChunkBase::~CZUVOChunkBase() {
    closeChunkFile();
}

int CZUVOChunkBase::openChunkFile(CHUNK_EVENT* event) {
    closeChunkFile();
    if (event == nullptr || event->kind != CHUNK_KIND_STREAM) return -1;
    const int file = openFile(event->chunkID);
    if (file < 0) return -1;
    struct stat status {};
    if (fstat(file, &status) != 0 || !S_ISREG(status.st_mode) || status.st_size <= 0 ||
        static_cast<uint64_t>(status.st_size) > kMaxChunkBytes ||
        event->offset >= static_cast<uint64_t>(status.st_size)) {
        close(file);
        return -1;
    }
    m_file = file;
    m_chunkSize = static_cast<unsigned long>(status.st_size);
    m_areaOffset = event->offset;
    m_position = 0;
    return 0;
}

int CZUVOChunkBase::closeChunkFile() {
    if (m_file < 0) return -1;
    close(m_file);
    m_file = -1;
    m_chunkSize = m_areaOffset = m_position = 0;
    return 0;
}

unsigned long CZUVOChunkBase::getChunkSize() {
    return m_chunkSize;
}

int CZUVOChunkBase::seekEvent(long position, int origin) {
    // Compared as unsigned: refuses what is negative, and with a 32-bit long still reaches the upper half
    // of a chunk above 2 GiB.
    const auto target = static_cast<unsigned long>(position);
    if (m_file < 0 || origin != 0 || target >= m_chunkSize) return -1;
    m_position = target;
    return 0;
}

long CZUVOChunkBase::read(void* buffer, long length) {
    if (m_file < 0 || length < 0 || (buffer == nullptr && length > 0)) return -1;
    const uint64_t size = m_chunkSize;
    const uint64_t start = (uint64_t{m_areaOffset} + m_position) % size;
    const uint64_t wanted = std::min(static_cast<uint64_t>(length), size);
    const uint64_t untilEnd = std::min(wanted, size - start);
    const auto bytes = static_cast<char*>(buffer);
    if (!readWhole(m_file, bytes, static_cast<size_t>(untilEnd), start)) return -1;
    if (!readWhole(m_file, bytes + untilEnd, static_cast<size_t>(wanted - untilEnd), 0)) return -1;
    m_position = static_cast<unsigned long>((m_position + wanted) % size);
    return static_cast<long>(wanted);
}

// Header and picture-data areas are read alike here.
CZUVOStreamChunk::CZUVOStreamChunk(unsigned char) {}

CZUVOStreamChunk::~CZUVOStreamChunk() = default;

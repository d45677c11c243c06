#include "tools/recording/chunk_ring.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <system_error>
#include <unistd.h>

#include "platform/chunk_name.h"
#include "stream/records.h"
#include "tools/recording/recording_writer.h"

namespace {

constexpr uint32_t kLastChunk = 0xFFFF; // a locator carries 16 bits

[[noreturn]] void fail(const std::string& what, const std::string& path, const std::string& help) {
    const int error = errno;
    throw RecordingError("cannot " + what + " " + path + ": " + std::strerror(error) + "; " + help);
}

uint32_t highestChunk(const std::string& directory) {
    uint32_t highest = 0;
    std::error_code error;
    std::filesystem::directory_iterator entry(directory, error);
    for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename();
        const size_t digits = std::min(name.find_first_of("0123456789"), name.size());
        const auto number = static_cast<uint32_t>(std::strtoul(&name[digits], nullptr, 10));
        if (number <= kLastChunk && entry->path() == chunkPath(entry->path().parent_path(), number))
            highest = std::max(highest, number);
    }
    if (error)
        throw RecordingError("cannot read the card directory " + directory + ": " + error.message() +
                             "; create it or name another place");
    return highest;
}

/// Playback has to find its way round the end of a chunk, so recordings made here have to lead it there. A
/// chunk in the field has been through rounds before and is seldom filled from its first byte; starting
/// close to the end does the same without any round before, and early enough for a short recording.
uint32_t firstFill(uint32_t chunkBytes) {
    return (chunkBytes - chunkBytes / 32) / kHeaderBytes * kHeaderBytes;
}

} // namespace

std::string chunkPath(const std::string& cardDirectory, uint32_t number) {
    char path[PATH_MAX];
    std::snprintf(path, sizeof path, kChunkPath, cardDirectory.c_str(), number);
    return path;
}

ChunkRing::ChunkRing(const std::string& cardDirectory, uint32_t chunkBytes, uint32_t lastUsed)
    : m_directory(cardDirectory), m_chunkBytes(chunkBytes),
      m_number(std::max(lastUsed, highestChunk(cardDirectory))) {}

ChunkRing::~ChunkRing() {
    if (m_file != -1) close(m_file);
}

void ChunkRing::next() {
    if (m_number >= kLastChunk)
        throw RecordingError("the card " + m_directory + " has used chunk number 65535, the last there is; " +
                             "record to an empty place");
    ++m_number;
    m_path = pathOf(m_number);
    if (m_file != -1) close(m_file);
    m_file = open(m_path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (m_file == -1) fail("create", m_path, "check the directory and its permissions");
    // A reader takes the file's size for the ring's length, so it never grows later. Sparse: a chunk costs
    // what has been written to it.
    if (ftruncate(m_file, m_chunkBytes) == -1) fail("size", m_path, "choose a smaller chunk size");
    m_fill = firstFill(m_chunkBytes);
    m_taken = 0;
}

std::string ChunkRing::pathOf(uint32_t number) const {
    return chunkPath(m_directory, number);
}

uint32_t ChunkRing::take(uint32_t bytes) {
    const uint32_t position = m_fill;
    m_fill = static_cast<uint32_t>((uint64_t{m_fill} + bytes) % m_chunkBytes);
    m_taken += bytes;
    return position;
}

void ChunkRing::alignFill() {
    const uint32_t past = m_fill % kHeaderBytes;
    if (past != 0) take(std::min(kHeaderBytes - past, free()));
}

void ChunkRing::write(uint32_t position, const void* data, uint32_t bytes) {
    const char* from = static_cast<const char*>(data);
    const uint32_t toEnd = std::min(bytes, m_chunkBytes - position);
    writeFlat(position, from, toEnd);
    if (bytes > toEnd) writeFlat(0, from + toEnd, bytes - toEnd);
}

void ChunkRing::writeFlat(uint32_t position, const char* data, uint32_t bytes) {
    while (bytes > 0) {
        const ssize_t written = pwrite(m_file, data, bytes, static_cast<off_t>(position));
        if (written == -1 && errno == EINTR) continue;
        if (written <= 0) fail("write to", m_path, "free some space or record to another place");
        const auto step = static_cast<uint32_t>(written);
        position += step;
        data += step;
        bytes -= step;
    }
}

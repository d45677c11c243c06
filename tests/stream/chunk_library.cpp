#include "tests/stream/chunk_library.h"

#include <algorithm>
#include <fcntl.h>
#include <new>
#include <unistd.h>

#include "platform/chunk_name.h"
#include "platform/paths.h"
#include "platform/zuvo_chunk.h"
#include "stream/records.h"

using test::chunkLibrary;

class ChunkFile {
public:
    explicit ChunkFile(const std::string& path) : descriptor(open(path.c_str(), O_RDONLY)) {}
    ~ChunkFile() { close(descriptor); }
    ChunkFile(const ChunkFile&) = delete;
    ChunkFile& operator=(const ChunkFile&) = delete;

    const int descriptor;
};

CZUVOStreamChunk::CZUVOStreamChunk(unsigned char mode) {
    if (chunkLibrary.noMemory) throw std::bad_alloc();
    chunkLibrary.asked += "mode " + std::to_string(mode) + " ";
}
CZUVOStreamChunk::~CZUVOStreamChunk() = default;
CZUVOChunkBase::~CZUVOChunkBase() = default;

int CZUVOChunkBase::openChunkFile(CHUNK_EVENT* event) {
    chunkLibrary.atOpen();
    chunkLibrary.asked += std::to_string(event->size) + " ";
    if (m_file || event->kind != CHUNK_KIND_STREAM || event->size == 0) return -1;
    auto file = std::make_shared<const ChunkFile>(chunkPath(paths().card, event->chunkID));
    if (file->descriptor == -1) return -1;
    m_chunkSize = static_cast<unsigned long>(lseek(file->descriptor, 0, SEEK_END));
    m_areaOffset = event->offset;
    m_file = std::move(file);
    ++chunkLibrary.areasOpen;
    return m_areaOffset < m_chunkSize ? 0 : -1;
}
int CZUVOChunkBase::closeChunkFile() {
    if (!m_file) return -1;
    m_file.reset();
    --chunkLibrary.areasOpen;
    return 0;
}
unsigned long CZUVOChunkBase::getChunkSize() {
    return m_chunkSize;
}
int CZUVOChunkBase::seekEvent(long position, int origin) {
    m_position = static_cast<unsigned long>(position);
    return chunkLibrary.seekFails || !m_file || origin != 0 || m_position >= m_chunkSize ? -1 : 0;
}
long CZUVOChunkBase::read(void* buffer, long length) {
    ++chunkLibrary.reads;
    const long bytes = std::min(length, chunkLibrary.readLimit);
    for (long done = 0; done < bytes;) { // round the ring
        const auto place = static_cast<off_t>((m_areaOffset + m_position) % m_chunkSize);
        const ssize_t got = pread(m_file->descriptor, static_cast<char*>(buffer) + done,
                                  static_cast<size_t>(bytes - done), place);
        if (got <= 0) return -1;
        done += got;
        m_position += static_cast<unsigned long>(got);
    }
    return bytes;
}

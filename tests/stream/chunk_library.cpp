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

CZUVOStreamChunk::CZUVOStreamChunk(unsigned char mode) {
    if (chunkLibrary.noMemory) throw std::bad_alloc();
    chunkLibrary.asked += "mode " + std::to_string(mode) + " ";
}
CZUVOStreamChunk::~CZUVOStreamChunk() = default;
CZUVOChunkBase::~CZUVOChunkBase() = default;

int CZUVOChunkBase::openChunkFile(CHUNK_EVENT* event) {
    chunkLibrary.atOpen();
    chunkLibrary.asked += std::to_string(event->size) + " ";
    if (m_file != -1 || event->kind != CHUNK_KIND_STREAM || event->size == 0) return -1;
    m_file = open(chunkPath(paths().card, event->chunkID).c_str(), O_RDONLY);
    m_chunkSize = static_cast<unsigned long>(std::max<off_t>(0, lseek(m_file, 0, SEEK_END)));
    m_areaOffset = event->offset;
    chunkLibrary.areasOpen += m_file != -1;
    return m_areaOffset < m_chunkSize ? 0 : -1;
}
int CZUVOChunkBase::closeChunkFile() {
    chunkLibrary.areasOpen -= m_file != -1;
    const int result = close(m_file);
    m_file = -1;
    return result;
}
unsigned long CZUVOChunkBase::getChunkSize() {
    return m_chunkSize;
}
int CZUVOChunkBase::seekEvent(long position, int origin) {
    m_position = static_cast<unsigned long>(position);
    return chunkLibrary.seekFails || m_file == -1 || origin != 0 || m_position >= m_chunkSize ? -1 : 0;
}
long CZUVOChunkBase::read(void* buffer, long length) {
    ++chunkLibrary.reads;
    const long bytes = std::min(length, chunkLibrary.readLimit);
    for (long done = 0; done < bytes;) { // round the ring
        const auto place = static_cast<off_t>((m_areaOffset + m_position) % m_chunkSize);
        const ssize_t got =
            pread(m_file, static_cast<char*>(buffer) + done, static_cast<size_t>(bytes - done), place);
        if (got <= 0) return -1;
        done += got;
        m_position += static_cast<unsigned long>(got);
    }
    return bytes;
}

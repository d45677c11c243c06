// The card's chunk file system, as its closed library offers it: one object reads one area of one chunk.
// platform/host/ implements it over plain files, chunk n being <card>/chunkNNNNN. The private members are the
// host's: a build against the vendor's library finds the vendor's declaration of the two classes first
// (TAVIRN_VENDOR_HEADERS).
#pragma once

#include <memory>

class ChunkFile;
struct CHUNK_EVENT;

/// One contiguous area of a chunk, open for reading. A chunk is a ring: an area that reaches the chunk's end
/// goes on at its start. Results are -1 on failure. One thread per object.
class CZUVOChunkBase {
public:
    virtual ~CZUVOChunkBase();
    CZUVOChunkBase(const CZUVOChunkBase&) = delete;
    CZUVOChunkBase& operator=(const CZUVOChunkBase&) = delete;

    /// Opens the area `event` describes and positions at its start; an area open before is closed.
    int openChunkFile(CHUNK_EVENT* event);
    int closeChunkFile();

    /// Bytes of the whole chunk, which is the ring's length; valid after a successful open, 0 before.
    unsigned long getChunkSize();

    /// `position` is relative to the area's start; `origin` is always 0.
    int seekEvent(long position, int origin);

    /// Reads at the position and advances it; the bytes read, at most the chunk's length.
    long read(void* buffer, long length);

protected:
    CZUVOChunkBase() = default;

private:
    std::shared_ptr<const ChunkFile> m_chunk; ///< none while closed
    unsigned long m_chunkSize = 0;
    unsigned long m_areaOffset = 0;
    unsigned long m_position = 0; ///< relative to the area's start
};

class CZUVOStreamChunk : public CZUVOChunkBase {
public:
    /// Mode 0 for a header area, 1 for a picture-data area.
    explicit CZUVOStreamChunk(unsigned char mode);
    ~CZUVOStreamChunk() override;
};

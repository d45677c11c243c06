// The reader over the chunk library: learns the size of a growing area, and turns absolute chunk positions
// into area positions, round the ring's end where needed.
#pragma once

#include "platform/zuvo_chunk.h"
#include "stream/records.h"
#include "stream/stream_read.h"

class CStreamReadZuvo : public CStreamRead {
public:
    /// Mode 0 for a header area, 1 for a picture-data area.
    explicit CStreamReadZuvo(unsigned char mode);

    int open(CHUNK_EVENT* event) override;
    int close() override;
    int seek(long position, int origin) override;
    int seekEvent(long position, int origin) override;
    long read(void* buffer, long length) override;

private:
    CZUVOStreamChunk m_zuvo;
    CHUNK_EVENT m_event{}; ///< the area open now, its size filled in
};

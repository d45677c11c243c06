#include "platform/zuvo_chunk.h"

CZUVOChunkBase::~CZUVOChunkBase() = default;
int CZUVOChunkBase::openChunkFile(CHUNK_EVENT*) {
    return -1;
}
int CZUVOChunkBase::closeChunkFile() {
    return -1;
}
unsigned long CZUVOChunkBase::getChunkSize() {
    return 0;
}
int CZUVOChunkBase::seekEvent(long, int) {
    return -1;
}
long CZUVOChunkBase::read(void*, long) {
    return -1;
}

CZUVOStreamChunk::CZUVOStreamChunk(unsigned char) {}
CZUVOStreamChunk::~CZUVOStreamChunk() = default;

// Stands for the vendor's own declaration of the chunk classes: the same operations, other members. A build
// with -DTAVIRN_PLATFORM=vendor finds it in place of the host's.
#pragma once

struct CHUNK_EVENT;

class CZUVOChunkBase {
public:
    virtual ~CZUVOChunkBase();
    virtual int openChunkFile(CHUNK_EVENT* event);
    virtual int closeChunkFile();
    virtual unsigned long getChunkSize();
    virtual int seekEvent(long position, int origin);
    virtual long read(void* buffer, long length);

protected:
    CZUVOChunkBase() = default;

private:
    [[maybe_unused]] void* m_library[4]{};
};

class CZUVOStreamChunk : public CZUVOChunkBase {
public:
    explicit CZUVOStreamChunk(unsigned char mode);
    ~CZUVOStreamChunk() override;
};

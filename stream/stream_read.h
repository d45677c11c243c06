// CStreamRead: how the stream access object reaches one area of a chunk. Not here: what the bytes mean.
#pragma once

struct CHUNK_EVENT;

/// A reader over one area of a chunk. Every operation returns -1 for failure; any other value is success.
class CStreamRead {
public:
    virtual ~CStreamRead() = default;

    /// Opens the area; a locator of size 0 (still growing) takes the chunk's size.
    virtual int open(CHUNK_EVENT* event) = 0;
    virtual int close() = 0;
    /// Positions at an absolute byte position of the chunk; the second argument is not used.
    virtual int seek(long position, int origin) = 0;
    /// Positions relative to the area's start; the second argument is 0.
    virtual int seekEvent(long position, int origin) = 0;
    /// Reads up to `length` bytes; the number read.
    virtual long read(void* buffer, long length) = 0;
};

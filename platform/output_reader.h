// Reading the output memory from another process: what the RTSP server does on the host platform, and what
// the tools and tests use. The layout is output_layout.h's. Not linked into the daemon, but part of the
// library for clients. Nothing here throws but std::bad_alloc.
#pragma once

#include <chrono>
#include <cstdint>
#include <vector>

#include "platform/output_layout.h"

/// One block as it was written.
struct OutputBlock {
    uint32_t sequence = 0;  ///< counts every block, wraps at 32 bits
    uint32_t timestamp = 0; ///< 90 units per millisecond, wraps at 32 bits
    uint32_t missed = 0;    ///< blocks overwritten between the one read before and this one
    std::vector<char> data; ///< a coded picture in Annex B form, or the five bytes "PAUSE"
};

/// The daemon has no new picture to show: it is paused, or fast play has not moved on.
bool isPauseBlock(const OutputBlock& block);

/// Decoding can begin with this picture: it has a sequence parameter set before its first slice, or that
/// slice is an IDR picture's.
bool isIPicture(const OutputBlock& block);

enum class ReadResult {
    block,     ///< one whole block was read
    timeout,   ///< nothing new in time
    ended,     ///< the session has ended, and every block been read
    abandoned, ///< the same, but the daemon has died, or somebody else has removed the memory
    damaged,   ///< the memory's content contradicts its layout
};

/// A reader of its own position; attaches read-only, so that it can be killed at any instruction without the
/// writer noticing. One thread per object.
class OutputReader {
public:
    OutputReader() = default;
    ~OutputReader();
    OutputReader(const OutputReader&) = delete;
    OutputReader& operator=(const OutputReader&) = delete;

    /// Attaches to the memory of ftok(keyFile, project), positioned behind the newest block: what is read is
    /// what is written from now on. FixedPaths::ipcKey and kOutputMemoryProject are the daemon's. False,
    /// with errno: ENOENT while no session is open or there is no key file, EACCES for whoever is neither the
    /// daemon's user nor in its group, EPROTO when the memory's layout is another. One that was attached
    /// before is let go in any case.
    bool attach(const char* keyFile, char project);
    /// Lets the memory go; `next` then gives `ended`.
    void detach();
    bool attached() const { return m_base != nullptr; }

    /// Moves back to the oldest block still held, so that nothing that is there is passed over.
    void rewind();

    /// Number of the newest block there is, read or not; to be asked only while attached, from any thread.
    uint32_t newest() const;

    /// Waits, without spinning, for the next block and copies it; `block.data` keeps its capacity.
    /// A block already there is returned whatever the time, also with a timeout of 0. After `ended`,
    /// `abandoned` and `damaged` only a new attach helps. `block` is of use only when the result is `block`.
    ReadResult next(OutputBlock& block, std::chrono::milliseconds timeout);

private:
    enum class Attempt { block, none, overtaken, damaged };

    const OutputHeader& header() const;
    bool describes(const OutputGeometry& geometry) const;
    Attempt locate();
    Attempt copy(OutputBlock& block);
    bool writerGone() const;

    const char* m_base = nullptr;
    OutputGeometry m_geometry{}; ///< checked against the segment's size when attaching
    uint32_t m_next = 0;         ///< sequence of the block to read next
    uint32_t m_missed = 0;       ///< overwritten since the last block read
    int m_shmId = -1;
    int m_semId = -1;
};

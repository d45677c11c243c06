// The output memory: what two processes share, byte for byte. The daemon writes one block per picture, any
// number of readers follow. Nobody else's memory, no pointers, 32-bit words in the machine's own order.
//
// Keys     ftok(key file, project) names a System V segment and a set of one semaphore, both mode 0640. The
//          segment is never resized; a new writer makes a new one.
//
//          0                64                        64 + 16 * slots          totalBytes
//          +----------------+-------------------------+------------------------+
//          | OutputHeader   | OutputSlot[slots]       | bytes[dataBytes]       |
//          +----------------+-------------------------+------------------------+
//
// Blocks   are numbered from 1 and wrap at 32 bits. Those held are `oldest` to `newest`, at most `blocks`;
//          none when newest + 1 == oldest. Block n is described by slot n mod slots (slots is a power of two,
//          so the rule survives the wrap). Its bytes begin at `start` of the byte ring, each block right
//          behind the one before; one that reaches the ring's end goes on at byte 0.
//
// Writer   alone stores anything here, and never waits. Per block, in this order:
//            1. `oldest` moves past every block whose slot or bytes are needed      (release)
//            2. release fence: whoever sees a byte of step 3 also sees step 1
//            3. the bytes, then the slot                                            (relaxed)
//            4. `newest` = n                                                        (release)
//            5. `bell` + 1 (release), and FUTEX_WAKE on it for all
//          At its end: `state` = ended, step 5, then segment and set are removed.
//
// Reader   maps the segment read-only and loads `bell`, `state`, `oldest`, `newest` (acquire). It copies
//          block n (relaxed), fences (acquire) and loads `oldest` again: when that has passed n, the copy is
//          worthless and the reader goes on with the oldest. With nothing to read it waits with FUTEX_WAIT
//          on the `bell` it loaded first. Nothing it does, and no way of dying, reaches the writer.
//
// Claim    The semaphore is 0 while nobody writes, as it is in a new set, and 1 while a writer lives, who
//          takes it with {go on only at 0, +1} in one step, IPC_NOWAIT and SEM_UNDO: a second writer is
//          refused, and the kernel lets a killed one's claim go. A reader that has waited in vain looks: 0,
//          or a segment marked for removal (SHM_DEST), means that nothing more will come.
//
// docs/output-memory.md has this for readers in other languages, with a worked example.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

inline constexpr uint32_t kOutputMagic = 0x316F7674; ///< "tvo1" on a little-endian machine; stored last
inline constexpr uint32_t kOutputVersion = 1;

enum OutputState : uint32_t { kOutputOpen = 1, kOutputEnded = 2 };

inline constexpr uint32_t kOutputMaxBytes = 1u << 30; ///< of the byte ring
inline constexpr uint32_t kOutputMaxBlocks = 1u << 16;
inline constexpr int kOutputPermissions = 0640; ///< to the group: attach for reading, look at the claim

using SharedWord = std::atomic<uint32_t>;
static_assert(sizeof(SharedWord) == 4 && alignof(SharedWord) == 4 && SharedWord::is_always_lock_free,
              "a word that two processes share, mapped read-only by one");

struct OutputHeader {
    SharedWord magic;     ///< 0 until the rest is complete
    uint32_t version;     ///< these seven: constant once `magic` is there
    uint32_t totalBytes;  ///< of the segment's use
    uint32_t dataStart;   ///< offset of the byte ring
    uint32_t dataBytes;   ///< of the byte ring
    uint32_t blockBytes;  ///< longest block
    uint32_t blocks;      ///< held at most
    uint32_t slots;       ///< power of two, at least `blocks`
    SharedWord state;     ///< OutputState
    SharedWord oldest;    ///< number of the oldest block held
    SharedWord newest;    ///< number of the newest whole block
    SharedWord bell;      ///< changes whenever a waiting reader should look again; futex word
    uint32_t reserved[4]; ///< 0
};
static_assert(sizeof(OutputHeader) == 64);
static_assert(offsetof(OutputHeader, magic) == 0 && offsetof(OutputHeader, version) == 4 &&
              offsetof(OutputHeader, totalBytes) == 8 && offsetof(OutputHeader, dataStart) == 12 &&
              offsetof(OutputHeader, dataBytes) == 16 && offsetof(OutputHeader, blockBytes) == 20 &&
              offsetof(OutputHeader, blocks) == 24 && offsetof(OutputHeader, slots) == 28 &&
              offsetof(OutputHeader, state) == 32 && offsetof(OutputHeader, oldest) == 36 &&
              offsetof(OutputHeader, newest) == 40 && offsetof(OutputHeader, bell) == 44 &&
              offsetof(OutputHeader, reserved) == 48);

struct OutputSlot {
    SharedWord sequence;  ///< number of the block described
    SharedWord length;    ///< bytes, 1 to blockBytes
    SharedWord timestamp; ///< 90 units per millisecond, wraps at 32 bits
    SharedWord start;     ///< position of the first byte in the byte ring
};
static_assert(sizeof(OutputSlot) == 16);
static_assert(offsetof(OutputSlot, sequence) == 0 && offsetof(OutputSlot, length) == 4 &&
              offsetof(OutputSlot, timestamp) == 8 && offsetof(OutputSlot, start) == 12);

/// Sizes that follow from the three that shm_create is given.
struct OutputGeometry {
    uint32_t dataBytes;
    uint32_t blockBytes;
    uint32_t blocks;
    uint32_t slots;
    uint32_t dataStart;
    uint32_t totalBytes;

    bool operator==(const OutputGeometry&) const = default;
};

/// False when the three sizes don't make a memory.
constexpr bool outputGeometry(uint64_t blockBytes, uint64_t dataBytes, int64_t blocks, OutputGeometry& out) {
    if (blockBytes == 0 || blockBytes > dataBytes || dataBytes > kOutputMaxBytes) return false;
    if (blocks < 1 || blocks > kOutputMaxBlocks) return false;
    out = {};
    out.dataBytes = static_cast<uint32_t>(dataBytes);
    out.blockBytes = static_cast<uint32_t>(blockBytes);
    out.blocks = static_cast<uint32_t>(blocks);
    out.slots = 1;
    while (out.slots < out.blocks) out.slots *= 2;
    out.dataStart = static_cast<uint32_t>(sizeof(OutputHeader) + out.slots * sizeof(OutputSlot));
    out.totalBytes = out.dataStart + out.dataBytes;
    return true;
}

/// A block of `length` bytes at `start` of the ring lies in two pieces at most.
struct OutputPieces {
    uint32_t first;  ///< bytes from `start`
    uint32_t second; ///< bytes from the ring's byte 0
};
constexpr OutputPieces outputPieces(uint32_t dataBytes, uint32_t start, uint32_t length) {
    const uint32_t untilEnd = dataBytes - start;
    return length <= untilEnd ? OutputPieces{length, 0} : OutputPieces{untilEnd, length - untilEnd};
}

// ThreadSanitizer doesn't follow fences, and GCC says so. Writer and readers map the segment at addresses
// of their own, so it could not relate them anyway.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wtsan"
#endif
inline void outputReleaseFence() {
    std::atomic_thread_fence(std::memory_order_release);
}
inline void outputAcquireFence() {
    std::atomic_thread_fence(std::memory_order_acquire);
}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

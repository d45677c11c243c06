// The writer of the output memory; output_layout.h is the contract with its readers. Nothing here waits for
// anyone. What the writer decides by (room, lengths) it keeps to itself; of the shared words it reads back
// only the block numbers, and any value of those is safe.
#include "platform/kw_com.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <linux/futex.h>
#include <memory>
#include <new>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/output_layout.h"

namespace {

/// Between finding a set and claiming it, the writer before may remove it; each repetition needs such a one.
constexpr int kClaimAttempts = 8;

/// The writer's own view; lives from shm_create to shm_destroy.
struct Writer {
    OutputGeometry geometry;
    OutputHeader* header = nullptr;
    OutputSlot* slots = nullptr;
    char* data = nullptr;
    std::unique_ptr<uint32_t[]> lengths; ///< per slot, of the blocks held
    uint32_t held = 0;                   ///< blocks
    uint32_t used = 0;                   ///< bytes of them
    uint32_t head = 0;                   ///< where the next block's first byte goes
};

// The handle's spare words carry the writer's address; they are aligned for words only.
void setWriter(KW_SHM& handle, Writer* writer) {
    static_assert(sizeof writer <= sizeof handle.library);
    std::memcpy(handle.library, &writer, sizeof writer);
}

Writer* writerOf(const KW_SHM* handle) {
    if (handle == nullptr) return nullptr;
    Writer* writer;
    std::memcpy(&writer, handle->library, sizeof writer);
    return writer;
}

/// The semaphore set of the key, claimed by this process until it is removed or the process ends; -1 with
/// EAGAIN while another live process holds it.
int claim(key_t key) {
    for (int attempt = 0; attempt < kClaimAttempts; ++attempt) {
        const int set = semget(key, 1, IPC_CREAT | kOutputPermissions);
        if (set == -1) return -1;
        // In one step: goes on only while the value is 0, and makes it 1.
        sembuf take[2] = {{0, 0, IPC_NOWAIT}, {0, 1, IPC_NOWAIT | SEM_UNDO}};
        if (semop(set, take, 2) == 0) return set;
        if (errno != EIDRM && errno != EINVAL && errno != EINTR) return -1;
    }
    return -1;
}

/// Gives up a claim; whoever comes next makes a new set.
bool removeSet(int set) {
    return semctl(set, 0, IPC_RMID) == 0;
}

/// A fresh segment. Under the claim, what is found is a dead writer's; readers still attached to it see
/// that it is marked for removal.
int makeSegment(key_t key, uint32_t bytes) {
    const int leftover = shmget(key, 0, 0);
    if (leftover != -1 && shmctl(leftover, IPC_RMID, nullptr) != 0) return -1;
    return shmget(key, bytes, IPC_CREAT | IPC_EXCL | kOutputPermissions);
}

/// Lays the memory out in a fresh segment, which the kernel has zeroed.
bool layOut(Writer& writer, int segment) {
    void* const base = shmat(segment, nullptr, 0);
    if (base == reinterpret_cast<void*>(-1)) return false;
    const OutputGeometry& geometry = writer.geometry;
    auto* const header = new (base) OutputHeader{};
    header->version = kOutputVersion;
    header->totalBytes = geometry.totalBytes;
    header->dataStart = geometry.dataStart;
    header->dataBytes = geometry.dataBytes;
    header->blockBytes = geometry.blockBytes;
    header->blocks = geometry.blocks;
    header->slots = geometry.slots;
    header->state.store(kOutputOpen, std::memory_order_relaxed);
    header->oldest.store(1, std::memory_order_relaxed);
    writer.header = header;
    writer.slots = new (static_cast<char*>(base) + sizeof(OutputHeader)) OutputSlot[geometry.slots]{};
    header->magic.store(kOutputMagic, std::memory_order_release);
    writer.data = static_cast<char*>(base) + geometry.dataStart;
    return true;
}

void ring(OutputHeader& header) {
    header.bell.fetch_add(1, std::memory_order_release);
    syscall(SYS_futex, &header.bell, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

/// Drops the oldest blocks until `length` bytes and a block's place are free.
void makeRoom(Writer& writer, uint32_t length) {
    uint32_t oldest = writer.header->newest.load(std::memory_order_relaxed) + 1 - writer.held;
    while (writer.held == writer.geometry.blocks || writer.geometry.dataBytes - writer.used < length) {
        writer.used -= writer.lengths[oldest & (writer.geometry.slots - 1)];
        --writer.held;
        ++oldest;
        if (writer.held == 0) writer.used = 0;
    }
    writer.header->oldest.store(oldest, std::memory_order_release);
    outputReleaseFence();
}

} // namespace

int shm_create(const char* keyFile, char project, KW_SHM* handle, int create, unsigned long blockBytes,
               unsigned long dataBytes, int blocks, int /*spare*/) {
    auto writer = std::unique_ptr<Writer>(new (std::nothrow) Writer);
    if (keyFile == nullptr || handle == nullptr || create == 0 || !writer ||
        !outputGeometry(blockBytes, dataBytes, blocks, writer->geometry)) {
        errno = EINVAL;
        return -1;
    }
    writer->lengths.reset(new (std::nothrow) uint32_t[writer->geometry.slots]());
    const key_t key = ftok(keyFile, project);
    if (!writer->lengths || key == -1) return -1;

    const int set = claim(key);
    if (set == -1) return -1;
    const int segment = makeSegment(key, writer->geometry.totalBytes);
    if (segment == -1 || !layOut(*writer, segment)) {
        const int error = errno;
        shmctl(segment, IPC_RMID, nullptr); // where there is one
        removeSet(set);
        errno = error;
        return -1;
    }
    *handle = {};
    handle->shmId = static_cast<unsigned int>(segment);
    handle->semId = static_cast<unsigned int>(set);
    setWriter(*handle, writer.release());
    return 0;
}

int shm_write_data(KW_SHM* handle, const char* data, unsigned long length, int /*spare1*/, int /*spare2*/,
                   int /*spare3*/, unsigned long timestamp, int /*spare4*/) {
    Writer* const writer = writerOf(handle);
    if (writer == nullptr || data == nullptr || length == 0 || length > writer->geometry.blockBytes) {
        errno = EINVAL;
        return -1;
    }
    const auto bytes = static_cast<uint32_t>(length);
    makeRoom(*writer, bytes);

    const OutputPieces pieces = outputPieces(writer->geometry.dataBytes, writer->head, bytes);
    std::memcpy(writer->data + writer->head, data, pieces.first);
    std::memcpy(writer->data, data + pieces.first, pieces.second);

    const uint32_t sequence = writer->header->newest.load(std::memory_order_relaxed) + 1;
    const uint32_t index = sequence & (writer->geometry.slots - 1);
    OutputSlot& slot = writer->slots[index];
    slot.sequence.store(sequence, std::memory_order_relaxed);
    slot.length.store(bytes, std::memory_order_relaxed);
    slot.timestamp.store(static_cast<uint32_t>(timestamp), std::memory_order_relaxed);
    slot.start.store(writer->head, std::memory_order_relaxed);

    writer->lengths[index] = bytes;
    ++writer->held;
    writer->used += bytes;
    writer->head = (writer->head + bytes) % writer->geometry.dataBytes;
    writer->header->newest.store(sequence, std::memory_order_release);
    ring(*writer->header);
    return 0;
}

int shm_destroy(KW_SHM* handle) {
    const std::unique_ptr<Writer> writer(writerOf(handle));
    if (!writer) {
        errno = EINVAL;
        return -1;
    }
    writer->header->state.store(kOutputEnded, std::memory_order_release);
    ring(*writer->header);
    shmdt(writer->header);
    // The set goes last: until then the claim keeps another writer away from the segment.
    const bool segmentGone = shmctl(static_cast<int>(handle->shmId), IPC_RMID, nullptr) == 0;
    const bool setGone = removeSet(static_cast<int>(handle->semId));
    *handle = {};
    return segmentGone && setGone ? 0 : -1;
}

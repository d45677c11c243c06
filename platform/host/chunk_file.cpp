// Chunks as plain files: chunk n is <card>/chunkNNNNN, its size the ring's length. Bytes come from pread
// only, so that a file which shrinks or fails under the reader is a failed read and never a signal.
#include "platform/zuvo_chunk.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "platform/chunk_name.h"
#include "platform/paths.h"
#include "stream/records.h"

namespace {

/// Positions inside a chunk are 32-bit words.
constexpr uint64_t kMaxChunkBytes = UINT32_MAX;

/// What a path or, with an empty one, a descriptor leads to; nothing when that is no chunk.
std::optional<struct statx> lookAt(int directory, const char* path) {
    struct statx file {};
    if (statx(directory, path, AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_MNT_ID, &file) != 0) return {};
    if (!S_ISREG(file.stx_mode) || file.stx_size == 0 || file.stx_size > kMaxChunkBytes) return {};
    return file;
}

/// The same file of the same mount: while one is open, none of these numbers goes to another. A kernel that
/// does not tell the mount (before 5.8) never says yes.
bool isSameFile(const struct statx& a, const struct statx& b) {
    return (a.stx_mask & b.stx_mask & STATX_MNT_ID) != 0 && a.stx_mnt_id == b.stx_mnt_id &&
           a.stx_dev_major == b.stx_dev_major && a.stx_dev_minor == b.stx_dev_minor && a.stx_ino == b.stx_ino;
}

/// All of it or failure: the size was checked at the opening, so an early end means that the file shrank.
bool readWhole(int file, char* buffer, size_t length, uint64_t position) {
    while (length > 0) {
        const ssize_t got = pread(file, buffer, length, static_cast<off_t>(position));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        buffer += got;
        position += static_cast<uint64_t>(got);
        length -= static_cast<size_t>(got);
    }
    return true;
}

} // namespace

/// A chunk's descriptor and the path that led to it, shared by the areas that are read through it.
class ChunkFile {
public:
    explicit ChunkFile(std::string path) : m_path(std::move(path)) {
        // Non-blocking, so that a pipe in a chunk's place can't hold the opener; files don't care.
        do {
            m_descriptor = open(m_path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
        } while (m_descriptor < 0 && errno == EINTR);
        if (m_descriptor >= 0) m_seen = lookAt(m_descriptor, "");
    }
    ~ChunkFile() {
        if (m_descriptor >= 0) close(m_descriptor);
    }
    ChunkFile(const ChunkFile&) = delete;
    ChunkFile& operator=(const ChunkFile&) = delete;

    int descriptor() const { return m_descriptor; }
    const std::string& path() const { return m_path; }
    /// When it was opened; nothing when it could not be, or is no chunk.
    const std::optional<struct statx>& seen() const { return m_seen; }

private:
    std::string m_path;
    int m_descriptor;
    std::optional<struct statx> m_seen;
};

namespace {

struct OpenedChunk {
    std::shared_ptr<const ChunkFile> file; ///< null when there is no chunk
    uint64_t size = 0;
};

/// A thread's way to chunks. Keeps the one opened last, since following a recorder opens both areas anew for
/// each picture: while the path leads to the same file, that costs one look at it. Kept until the thread
/// ends, in the daemon a moment after its session. The process's first thread never ends, so it keeps
/// nothing; it opens a chunk a few times a session.
class ChunkKeeper {
public:
    /// May throw std::bad_alloc.
    OpenedChunk open(const CHUNK_EVENT& area, const CZUVOChunkBase* reader) {
        if (area.chunkID != m_chunkId) m_kept = {};
        m_chunkId = area.chunkID;
        if (!m_kept.file || !isOfTheLook(reader)) {
            look();
            if (!m_kept.file) return {};
        }
        if (area.size == 1) {
            m_asker = reader;
            m_openings = 0;
        }
        return m_keeps ? m_kept : std::exchange(m_kept, {});
    }

    /// Another reader may come to stand where this one was.
    void forget(const CZUVOChunkBase* reader) {
        if (m_asker == reader) m_asker = nullptr;
    }

private:
    /// An area of one byte is opened to ask a growing chunk's size. The same reader's next opening, of the
    /// headers, is of the same moment; so is the one behind it, of the pictures they lead to, by another.
    bool isOfTheLook(const CZUVOChunkBase* reader) {
        return m_asker != nullptr && ++m_openings <= 2 && (m_openings == 1) == (reader == m_asker);
    }

    /// Keeps the chunk as it is now, through the descriptor it has where that is still good.
    void look() {
        m_asker = nullptr;
        if (m_kept.file) {
            const std::optional<struct statx> now = lookAt(AT_FDCWD, m_kept.file->path().c_str());
            if (now && isSameFile(*now, *m_kept.file->seen())) {
                m_kept.size = now->stx_size;
                return;
            }
        }
        m_kept = {}; // closed before the next one is opened
        char path[PATH_MAX];
        std::snprintf(path, sizeof path, kChunkPath, paths().card, m_chunkId);
        auto file = std::make_shared<const ChunkFile>(path);
        if (!file->seen()) return;
        const uint64_t size = file->seen()->stx_size;
        m_kept = {std::move(file), size};
    }

    const bool m_keeps = gettid() != getpid();
    OpenedChunk m_kept;
    unsigned m_chunkId = 0;                  ///< of the chunk kept
    const CZUVOChunkBase* m_asker = nullptr; ///< who asked for the size in the last look
    int m_openings = 0;                      ///< since then
};

thread_local ChunkKeeper t_chunks;

} // namespace

CZUVOChunkBase::~CZUVOChunkBase() {
    t_chunks.forget(this);
    closeChunkFile();
}

int CZUVOChunkBase::openChunkFile(CHUNK_EVENT* event) {
    closeChunkFile();
    if (event == nullptr || event->kind != CHUNK_KIND_STREAM) return -1;
    OpenedChunk chunk;
    try {
        chunk = t_chunks.open(*event, this);
    } catch (const std::bad_alloc&) {
        return -1;
    }
    if (!chunk.file || event->offset >= chunk.size) return -1;
    m_chunk = std::move(chunk.file);
    m_chunkSize = static_cast<unsigned long>(chunk.size);
    m_areaOffset = event->offset;
    m_position = 0;
    return 0;
}

int CZUVOChunkBase::closeChunkFile() {
    if (!m_chunk) return -1;
    m_chunk.reset();
    m_chunkSize = 0;
    return 0;
}

unsigned long CZUVOChunkBase::getChunkSize() {
    return m_chunkSize;
}

int CZUVOChunkBase::seekEvent(long position, int origin) {
    // Compared as unsigned: refuses what is negative, and with a 32-bit long still reaches the upper half
    // of a chunk above 2 GiB.
    const auto target = static_cast<unsigned long>(position);
    if (!m_chunk || origin != 0 || target >= m_chunkSize) return -1;
    m_position = target;
    return 0;
}

long CZUVOChunkBase::read(void* buffer, long length) {
    if (!m_chunk || length < 0 || (buffer == nullptr && length > 0)) return -1;
    const uint64_t size = m_chunkSize;
    const uint64_t start = (uint64_t{m_areaOffset} + m_position) % size;
    const uint64_t wanted = std::min(static_cast<uint64_t>(length), size);
    const uint64_t untilEnd = std::min(wanted, size - start);
    const auto bytes = static_cast<char*>(buffer);
    const int file = m_chunk->descriptor();
    if (!readWhole(file, bytes, static_cast<size_t>(untilEnd), start)) return -1;
    if (!readWhole(file, bytes + untilEnd, static_cast<size_t>(wanted - untilEnd), 0)) return -1;
    m_position = static_cast<unsigned long>((m_position + wanted) % size);
    return static_cast<long>(wanted);
}

// Header and picture-data areas are read alike here.
CZUVOStreamChunk::CZUVOStreamChunk(unsigned char) {}

CZUVOStreamChunk::~CZUVOStreamChunk() = default;

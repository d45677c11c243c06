// Follows the output memory; output_layout.h is the contract. The segment is mapped read-only and nothing in
// it is trusted: what it says is checked against the segment's real size before it is used, and every wait
// and every repetition ends with the caller's time.
#include "platform/output_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <linux/futex.h>
#include <string_view>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/output_words.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

/// Longest wait between two looks at whether the writer lives: a killed one rings no bell.
constexpr milliseconds kLookInterval{500};
constexpr milliseconds kLongestTimeout = std::chrono::hours(24 * 366); // keeps the sum in range

/// True when `a` comes before `b`, both within half the numbers of each other.
bool isBefore(uint32_t a, uint32_t b) {
    return static_cast<int32_t>(a - b) < 0;
}

/// Sleeps until the bell rings, unless it no longer reads `seen`. May return early for no reason.
void waitForBell(const SharedWord& bell, uint32_t seen, nanoseconds time) {
    struct {
        long seconds, nanoseconds; // the system call's own words, also where time_t is wider
    } relative{static_cast<long>(time.count() / 1'000'000'000),
               static_cast<long>(time.count() % 1'000'000'000)};
    syscall(SYS_futex, &bell, FUTEX_WAIT, seen, &relative, nullptr, 0);
}

} // namespace

bool isPauseBlock(const OutputBlock& block) {
    return std::string_view(block.data.data(), block.data.size()) == kPauseBlock;
}

bool isIPicture(const OutputBlock& block) {
    enum { slice = 1, idrSlice = 5, sequenceParameterSet = 7 }; // types of NAL units
    const std::string_view bytes(block.data.data(), block.data.size());
    const std::string_view startCode("\0\0\1", 3);
    for (size_t at = 0; (at = bytes.find(startCode, at)) != bytes.npos;) {
        at += startCode.size();
        const int type = at < bytes.size() ? bytes[at] & 0x1F : 0;
        if (type == slice) return false;
        if (type == idrSlice || type == sequenceParameterSet) return true;
    }
    return false;
}

OutputReader::~OutputReader() {
    detach();
}

const OutputHeader& OutputReader::header() const {
    return *reinterpret_cast<const OutputHeader*>(m_base);
}

bool OutputReader::attach(const char* keyFile, char project) {
    detach();
    const key_t key = ftok(keyFile, project);
    if (key == -1) return false;
    m_shmId = shmget(key, 0, 0);
    if (m_shmId == -1) return false;
    m_semId = semget(key, 0, 0);
    if (m_semId == -1) return false;

    shmid_ds segment{};
    if (shmctl(m_shmId, IPC_STAT, &segment) != 0) return false;
    void* const base = shmat(m_shmId, nullptr, SHM_RDONLY);
    if (base == reinterpret_cast<void*>(-1)) return false;
    m_base = static_cast<const char*>(base);

    const bool large = segment.shm_segsz >= sizeof(OutputHeader);
    const uint32_t magic = large ? header().magic.load(std::memory_order_acquire) : 0;
    const bool ours = magic == kOutputMagic &&
                      outputGeometry(header().blockBytes, header().dataBytes, header().blocks, m_geometry) &&
                      m_geometry.totalBytes <= segment.shm_segsz && describes(m_geometry);
    const bool claimed = !writerGone();
    if (!ours || !claimed || header().state.load(std::memory_order_acquire) != kOutputOpen) {
        detach();
        // What a writer has left behind, or one that holds the claim has not laid out yet, is as good as
        // none.
        errno = ours || (large && magic == 0 && claimed) ? ENOENT : EPROTO;
        return false;
    }
    m_next = newest() + 1;
    return true;
}

uint32_t OutputReader::newest() const {
    return header().newest.load(std::memory_order_acquire);
}

void OutputReader::detach() {
    if (m_base != nullptr) shmdt(m_base);
    m_base = nullptr;
    m_next = m_missed = 0;
}

void OutputReader::rewind() {
    if (!attached()) return;
    m_next = header().oldest.load(std::memory_order_acquire);
    m_missed = 0;
}

bool OutputReader::describes(const OutputGeometry& geometry) const {
    const OutputHeader& h = header();
    const OutputGeometry said{.dataBytes = h.dataBytes,
                              .blockBytes = h.blockBytes,
                              .blocks = h.blocks,
                              .slots = h.slots,
                              .dataStart = h.dataStart,
                              .totalBytes = h.totalBytes};
    return h.magic.load(std::memory_order_acquire) == kOutputMagic && h.version == kOutputVersion &&
           said == geometry;
}

/// Whether block m_next can be read; moves on to the oldest block when m_next has been overwritten.
OutputReader::Attempt OutputReader::locate() {
    const uint32_t oldest = header().oldest.load(std::memory_order_acquire);
    const uint32_t newest = header().newest.load(std::memory_order_acquire);
    // The pair belongs together only if the writer dropped nothing between the two loads.
    outputAcquireFence();
    if (header().oldest.load(std::memory_order_relaxed) != oldest) return Attempt::overtaken;

    const uint32_t held = newest + 1 - oldest;
    if (held > m_geometry.blocks) return Attempt::damaged;
    if (isBefore(m_next, oldest)) {
        m_missed += oldest - m_next;
        m_next = oldest;
    }
    const uint32_t ahead = m_next - oldest;
    if (ahead > held) return Attempt::damaged; // numbers never go back
    return ahead < held ? Attempt::block : Attempt::none;
}

/// Copies block m_next, and says whether it stayed whole meanwhile.
OutputReader::Attempt OutputReader::copy(OutputBlock& block) {
    const auto* const slots = reinterpret_cast<const OutputSlot*>(m_base + sizeof(OutputHeader));
    const OutputSlot& slot = slots[m_next & (m_geometry.slots - 1)];
    const uint32_t sequence = slot.sequence.load(std::memory_order_relaxed);
    const uint32_t length = slot.length.load(std::memory_order_relaxed);
    const uint32_t start = slot.start.load(std::memory_order_relaxed);
    block.timestamp = slot.timestamp.load(std::memory_order_relaxed);
    block.sequence = sequence;

    const bool possible =
        sequence == m_next && length >= 1 && length <= m_geometry.blockBytes && start < m_geometry.dataBytes;
    if (possible) {
        const char* const data = m_base + m_geometry.dataStart;
        const OutputPieces pieces = outputPieces(m_geometry.dataBytes, start, length);
        block.data.resize(length);
        std::memcpy(block.data.data(), data + start, pieces.first);
        std::memcpy(block.data.data() + pieces.first, data, pieces.second);
    }
    outputAcquireFence();
    if (isBefore(m_next, header().oldest.load(std::memory_order_relaxed))) return Attempt::overtaken;
    return possible ? Attempt::block : Attempt::damaged;
}

/// Nothing more will be written. Asked only after a wait in vain: it costs two system calls.
bool OutputReader::writerGone() const {
    const int writers = semctl(m_semId, 0, GETVAL);
    if (writers == 0 || (writers < 0 && errno != EACCES)) return true;
    // The claim may be the next writer's, who has removed this segment.
    shmid_ds segment{};
    return shmctl(m_shmId, IPC_STAT, &segment) != 0 || (segment.shm_perm.mode & SHM_DEST) != 0;
}

ReadResult OutputReader::next(OutputBlock& block, milliseconds timeout) {
    if (!attached()) return ReadResult::ended;
    const auto end = Clock::now() + std::clamp(timeout, milliseconds::zero(), kLongestTimeout);
    bool gone = false;
    for (;;) {
        // In this order: a block written, or an end declared, after these two loads rings a bell of another
        // value; and who sees the end also sees every block before it.
        const uint32_t bell = header().bell.load(std::memory_order_acquire);
        const uint32_t state = header().state.load(std::memory_order_acquire);
        if (!describes(m_geometry) || (state != kOutputOpen && state != kOutputEnded)) {
            return ReadResult::damaged;
        }
        Attempt attempt = locate();
        if (attempt == Attempt::block) attempt = copy(block);
        if (attempt == Attempt::block) {
            block.missed = m_missed;
            m_missed = 0;
            ++m_next;
            return ReadResult::block;
        }
        if (attempt == Attempt::damaged) return ReadResult::damaged;
        // Who ends in order says so before giving up the claim, so `state` is as new as `gone` is.
        if (attempt == Attempt::none && state == kOutputEnded) return ReadResult::ended;
        if (attempt == Attempt::none && gone) return ReadResult::abandoned;

        const nanoseconds left = end - Clock::now();
        if (left <= nanoseconds::zero()) {
            // Looked at once more, for what came between the last look and the writer's end.
            if (attempt == Attempt::none && writerGone()) {
                gone = true;
                continue;
            }
            return ReadResult::timeout;
        }
        if (attempt == Attempt::overtaken) continue;
        waitForBell(header().bell, bell, std::min<nanoseconds>(left, kLookInterval));
        gone = header().bell.load(std::memory_order_relaxed) == bell && writerGone();
    }
}

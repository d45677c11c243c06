// The output memory's reader, against any content of the segment: it ends, and never hands over a block that
// cannot have been written.
#include <cstring>
#include <sys/shm.h>

#include "fuzz/input.h"
#include "platform/kw_com.h"
#include "platform/output_reader.h"
#include "platform/paths.h"
#include "tests/support/world.h"

namespace {

constexpr uint32_t kBlockBytes = 200, kDataBytes = 1000;
constexpr int kBlocks = 4, kSteps = 48;

/// A small memory with some blocks in it, as the writer leaves it, and mapped again.
struct Memory {
    Memory() {
        require(shm_create(paths().ipcKey, kOutputMemoryProject, &handle, 1, kBlockBytes, kDataBytes, kBlocks,
                           0) >= 0);
        for (uint32_t n = 0; n < 6; ++n)
            shm_write_data(&handle, std::string(150, 'b').data(), 150, 0, 0, 0, 90 * n, 0);
        base = static_cast<char*>(shmat(static_cast<int>(handle.shmId), nullptr, 0));
        sound.assign(base, sizeof(OutputHeader) + kBlocks * sizeof(OutputSlot) + kDataBytes);
    }
    ~Memory() { shm_destroy(&handle); }

    const test::World world;
    KW_SHM handle{};
    char* base;
    std::string sound;
};

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Memory memory;
    Input input(data, size);
    memory.sound.copy(memory.base, memory.sound.size());
    OutputReader reader;
    OutputBlock block;
    uint32_t longest = 0; // as the header said when the reader attached: need not be what was created
    for (int steps = 0; steps < kSteps && !input.empty(); ++steps) {
        const uint8_t what = input.byte() % 6;
        if (what < 2) {
            const std::string bytes = input.text(what == 0 ? 4 : input.byte() % 100);
            bytes.copy(memory.base + input.byte() * 4, bytes.size());
        } else if (!reader.attached()) {
            std::memcpy(&longest, memory.base + offsetof(OutputHeader, blockBytes), sizeof longest);
            reader.attach(paths().ipcKey, kOutputMemoryProject);
        } else if (what == 2) {
            reader.rewind();
        } else {
            const ReadResult result = reader.next(block, std::chrono::milliseconds(0));
            require(result != ReadResult::block || (!block.data.empty() && block.data.size() <= longest));
            if (result == ReadResult::block && !isPauseBlock(block)) isIPicture(block);
            if (result == ReadResult::damaged) reader.detach();
        }
    }
    return 0;
}

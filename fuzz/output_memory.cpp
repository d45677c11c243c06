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
constexpr int kBlocks = 4;

/// A small memory with some blocks in it, which can be put back as it was.
struct Memory {
    Memory() {
        require(shm_create(paths().ipcKey, 'z', &handle, 1, kBlockBytes, kDataBytes, kBlocks, 0) >= 0);
        for (int n = 0; n < 6; ++n) write();
        base = static_cast<char*>(shmat(static_cast<int>(handle.shmId), nullptr, 0));
        sound.assign(base, 64 + kBlocks * 16 + kDataBytes);
    }
    ~Memory() { shm_destroy(&handle); }
    void write() { shm_write_data(&handle, block.data(), 150, 0, 0, 0, 90, 0); }

    const test::World world;
    KW_SHM handle{};
    char* base;
    std::string sound, block = std::string(kBlockBytes, 'b');
};

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Memory memory;
    Input input(data, size);
    std::memcpy(memory.base, memory.sound.data(), memory.sound.size());
    OutputReader reader;
    OutputBlock block;
    uint32_t longest = 0; // as the header said when the reader attached: need not be what was created
    const auto read = [&] {
        const ReadResult result = reader.next(block, std::chrono::milliseconds(0));
        require(result != ReadResult::block || (!block.data.empty() && block.data.size() <= longest));
        return result;
    };
    bool attached = false;
    while (!input.empty()) {
        switch (input.byte() % 6) {
        case 0:
            if (!attached) std::memcpy(&longest, memory.base + offsetof(OutputHeader, blockBytes), 4);
            attached = attached || reader.attach(paths().ipcKey, 'z');
            break;
        case 1:
            if (attached) reader.rewind();
            break;
        case 2:
            if (attached && read() == ReadResult::damaged) reader.detach(), attached = false;
            break;
        case 3: {
            const uint32_t place = input.byte() % 32 * 4, value = input.word();
            std::memcpy(memory.base + place, &value, sizeof value);
            break;
        }
        case 4: {
            const std::string bytes = input.text(input.byte());
            std::memcpy(memory.base, bytes.data(), bytes.size());
            break;
        }
        default:
            if (attached)
                for (int n = 0; n < kBlocks + 1 && read() == ReadResult::block; ++n) continue;
        }
    }
    return 0;
}

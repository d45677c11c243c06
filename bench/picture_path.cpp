// From the card to the output memory without pacing: what a pass of the playback thread costs beside the
// least that could do it, one pread and one memcpy of the same bytes of the same file.
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "bench/bench.h"
#include "engine/pb_picker_thread.h"
#include "platform/output_layout.h"
#include "platform/paths.h"
#include "tools/client/control_client.h"

namespace {

class Engine : public CpbPickerThread {
public:
    explicit Engine(uint32_t streamId)
        : CpbPickerThread({.searchMode = kStartAtStream, .searchValue = streamId}) {
        shm_create(paths().ipcKey, 'z', &m_output, 1, kPictureBufferBytes, kPictureBufferBytes, kOutputBlocks,
                   0);
    }
    ~Engine() override { shm_destroy(&m_output); }

    void toStart() {
        preGetData();
        const ControlRequest play(RTSP_REQ_PLAY);
        analyzeEventData(&play.record);
    }
    /// What a pass of the thread does; the bytes written.
    int turn() {
        m_sleepTimer({}, {});
        if (movePictureData() != 0) return 0;
        const int length = getPictureData(m_buffer.data());
        const auto bytes = static_cast<unsigned long>(length);
        return length > 0 && shm_write_data(&m_output, m_buffer.data(), bytes, 0, 0, 0, m_timestamp, 0) == 0
                   ? length
                   : 0;
    }

private:
    KW_SHM m_output{};
    std::vector<char> m_buffer = std::vector<char>(kPictureBufferBytes);
};

class Floor {
public:
    Floor(const std::string& path, off_t start, off_t end)
        : m_file(open(path.c_str(), O_RDONLY)), m_start(start), m_end(end) {}
    ~Floor() { close(m_file); }

    void play(uint32_t pictures, size_t bytes) {
        const auto length = static_cast<off_t>(bytes);
        off_t position = m_start + length > m_end ? 0 : m_start;
        for (size_t head = 0; pictures > 0; --pictures) {
            if (pread(m_file, m_buffer.data(), bytes, position) != length) abort();
            if (head + bytes > m_buffer.size()) head = 0;
            std::memcpy(&m_ring[kRingStart + head], m_buffer.data(), bytes);
            benchmark::ClobberMemory();
            head += bytes;
            position += length;
            if (position + length > m_end) position = 0; // the chunk is a ring
        }
    }

private:
    /// As in the output memory. Source and target at equal places of their pages would copy at half the
    /// speed.
    static constexpr size_t kRingStart = sizeof(OutputHeader) + 32 * sizeof(OutputSlot);

    int m_file;
    off_t m_start, m_end;
    std::vector<char> m_buffer = std::vector<char>(CpickerThread::kPictureBufferBytes);
    std::vector<char> m_ring = std::vector<char>(m_buffer.size() + kRingStart);
};

/// The argument is the pictures' size in KiB.
void picturePath(benchmark::State& state) {
    const auto bytes = static_cast<uint32_t>(state.range(0)) * 1024;
    const uint32_t pictures = std::clamp((32u << 20) / bytes, 40u, 2000u);
    test::World world;
    const uint32_t chunkBytes = pictures * (bytes + 64) + (1u << 20);
    test::Card card(world, chunkBytes);
    card.stream(1).from("12:00:00").pictures(pictures).pictureSize(bytes).closed();
    Floor floor(card.chunkPath(1), static_cast<off_t>(card.pictureHeader(1, 0).offset), chunkBytes);
    Engine engine(1);

    std::vector<double> ratios, floors;
    for ([[maybe_unused]] auto _ : state) {
        engine.toStart();
        uint32_t complete = 0;
        const double took = bench::timed([&] {
            for (uint32_t i = 0; i < pictures; ++i) complete += engine.turn() == static_cast<int>(bytes);
        });
        if (complete != pictures) return state.SkipWithError("not every picture came out whole");
        floors.push_back(bench::timed([&] { floor.play(pictures, bytes); }) / pictures);
        ratios.push_back(took / pictures / floors.back());
        state.SetIterationTime(took / pictures);
    }
    state.counters["floor_us"] = bench::median(floors) * 1e6;
    state.counters["ratio"] = bench::median(ratios);
}
BENCHMARK(picturePath)
    ->Arg(2)
    ->Arg(20)
    ->Arg(100)
    ->Arg(800)
    ->Iterations(60)
    ->UseManualTime()
    ->Repetitions(5)
    ->ReportAggregatesOnly()
    ->Unit(benchmark::kMicrosecond);

} // namespace

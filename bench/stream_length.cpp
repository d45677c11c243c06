// Inside a stream of a thousand to a million pictures: going to a clock time, and following its recorder.
// Neither may depend on the length.
#include "bench/bench.h"

namespace {

using bench::Stream;

class CountingReader : public CStreamRead {
public:
    CountingReader(std::unique_ptr<CStreamRead> inner, int& reads)
        : m_inner(std::move(inner)), m_reads(reads) {}
    int open(CHUNK_EVENT* event) override { return m_inner->open(event); }
    int close() override { return m_inner->close(); }
    int seek(long position, int origin) override { return m_inner->seek(position, origin); }
    int seekEvent(long position, int origin) override { return m_inner->seekEvent(position, origin); }
    long read(void* buffer, long length) override { return ++m_reads, m_inner->read(buffer, length); }

private:
    std::unique_ptr<CStreamRead> m_inner;
    int& m_reads;
};

/// One stream of `pictures` at `fps`, whose row says 30 pictures per second whatever `fps` is.
struct LongStream {
    LongStream(uint32_t pictures, double fps) : card(world, pictures * 192 + (1u << 20)) {
        card.stream(1).from("12:00:00").fps(fps).frameSet(1).pictures(pictures).closed();
    }
    test::World world;
    test::Card card;
};

/// Arguments: pictures, and pictures per second in truth.
void timeInStream(benchmark::State& state) {
    const LongStream recording(static_cast<uint32_t>(state.range(0)), static_cast<double>(state.range(1)));
    Stream stream(nullptr);
    if (!stream.open(1)) return state.SkipWithError("the stream does not open");
    int reads = 0, most = 0;
    stream.m_video.readPic = std::make_unique<CountingReader>(std::move(stream.m_video.readPic), reads);
    const uint32_t seconds = stream.db.endDate - stream.db.startDate;
    uint64_t random = 1, all = 0, jumps = 0;
    for ([[maybe_unused]] auto _ : state) {
        random = random * 6364136223846793005u + 1442695040888963407u;
        reads = 0;
        if (!stream.toTime({stream.db.startDate + static_cast<uint32_t>(random >> 33) % seconds, 500}, 0))
            return state.SkipWithError("the time was not found");
        most = std::max(most, reads);
        all += static_cast<uint64_t>(reads);
        ++jumps;
    }
    state.counters["most_reads"] = most;
    state.counters["mean_reads"] = static_cast<double>(all) / static_cast<double>(jumps);
}
BENCHMARK(timeInStream)->ArgsProduct({{1000, 10'000, 100'000, 1'000'000}, {30, 25}});

/// Each round the recorder has one picture more, or is back at the count before.
void followRecorder(benchmark::State& state) {
    const auto pictures = static_cast<uint32_t>(state.range(0));
    LongStream recording(pictures, 30);
    recording.card.sql("UPDATE STREAM SET status = 1, recSize = 0");
    CtavirnShmServer segment;
    segment.m_status = static_cast<REC_STATUS*>(segment.creat(recording.world.statusKey()));
    segment.m_status->recStreamID = 1;
    segment.m_status->recPictures = pictures;
    Stream stream(&segment);
    if (!stream.open(1)) return state.SkipWithError("the stream does not open");
    uint32_t round = 0;
    for ([[maybe_unused]] auto _ : state) {
        segment.m_status->recPictures = pictures - ++round % 2;
        stream.getStH(&stream.stH);
    }
    if (stream.stH.pictures != segment.m_status->recPictures)
        state.SkipWithError("the stream was not followed");
}
BENCHMARK(followRecorder)->RangeMultiplier(10)->Range(1000, 1'000'000);

} // namespace

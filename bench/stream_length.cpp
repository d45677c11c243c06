// Inside a stream of a thousand to a million pictures: going to a clock time, and following its recorder.
// Neither may depend on the length.
#include <fstream>

#include "bench/bench.h"

namespace {

using bench::Stream;

/// One stream of `pictures` at `fps`, whose row says 30 pictures per second whatever `fps` is.
struct LongStream {
    LongStream(uint32_t pictures, double fps) : card(world, pictures * 192 + (1u << 20)) {
        card.stream(1).from("12:00:00").fps(fps).frameSet(1).pictures(pictures).closed();
    }
    test::World world;
    test::Card card;
};

/// Of this process so far, the two for the answer included.
uint64_t readCalls() {
    std::ifstream io("/proc/self/io");
    for (std::string word; io >> word;)
        if (uint64_t calls; word == "syscr:" && io >> calls) return calls;
    return 0;
}

/// Arguments: pictures, and pictures per second in truth.
void timeInStream(benchmark::State& state) {
    const LongStream recording(static_cast<uint32_t>(state.range(0)), static_cast<double>(state.range(1)));
    Stream stream(nullptr);
    if (!stream.open(1)) return state.SkipWithError("the stream does not open");
    const uint32_t seconds = stream.db.endDate - stream.db.startDate;
    uint64_t random = 1;
    const auto jump = [&] {
        random = random * 6364136223846793005u + 1442695040888963407u;
        return stream.toTime({stream.db.startDate + static_cast<uint32_t>(random >> 33) % seconds, 500}, 0);
    };
    for ([[maybe_unused]] auto _ : state)
        if (!jump()) return state.SkipWithError("the time was not found");

    // Counted apart, since counting takes longer than a jump. Each read is a picture header's.
    constexpr int kJumps = 1000;
    const uint64_t before = readCalls(), perCount = readCalls() - before;
    uint64_t most = 0, all = 0;
    for (int n = 0; n < kJumps; ++n) {
        const uint64_t start = readCalls();
        if (!jump()) return state.SkipWithError("the time was not found");
        const uint64_t reads = readCalls() - start - perCount;
        most = std::max(most, reads);
        all += reads;
    }
    if (most > 6) return state.SkipWithError("more than six headers were read");
    state.counters["most_reads"] = static_cast<double>(most);
    state.counters["mean_reads"] = static_cast<double>(all) / kJumps;
}
BENCHMARK(timeInStream)->ArgsProduct({{1000, 100'000, 1'000'000}, {30, 25}});

/// Each round the recorder has one picture more, or is back at the count before.
void followRecorder(benchmark::State& state) {
    const auto pictures = static_cast<uint32_t>(state.range(0));
    LongStream recording(pictures, 30);
    recording.card.sql("UPDATE STREAM SET status = 1, recSize = 0");
    CtavirnShmServer segment;
    if (!segment.openStatus(recording.world.statusKey()))
        return state.SkipWithError("there is no status segment");
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
BENCHMARK(followRecorder)->ArgsProduct({{1000, 100'000, 1'000'000}});

} // namespace

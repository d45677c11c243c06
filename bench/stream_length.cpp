// Inside a stream of a thousand to a million pictures: going to a clock time, and following its recorder.
// Neither may depend on the length.
#include "bench/bench.h"
#include "tests/stream/stream_fixture.h"

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

/// Arguments: pictures, and pictures per second in truth.
void timeInStream(benchmark::State& state) {
    const LongStream recording(static_cast<uint32_t>(state.range(0)), static_cast<double>(state.range(1)));
    Stream stream(nullptr);
    if (!stream.open(1)) return state.SkipWithError("the stream does not open");
    WatchedReader& headers = watch(stream.m_video.readPic);
    int most = 0;
    const uint32_t seconds = stream.db.endDate - stream.db.startDate;
    uint64_t random = 1, all = 0, jumps = 0;
    for ([[maybe_unused]] auto _ : state) {
        random = random * 6364136223846793005u + 1442695040888963407u;
        headers.reads = 0;
        if (!stream.toTime({stream.db.startDate + static_cast<uint32_t>(random >> 33) % seconds, 500}, 0))
            return state.SkipWithError("the time was not found");
        most = std::max(most, headers.reads);
        if (most > 6) return state.SkipWithError("more than six headers were read");
        all += static_cast<uint64_t>(headers.reads);
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

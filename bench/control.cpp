// The daemon as a process, asked over its socket. Its clock is the real one: an open session's first block
// comes after the pause of 100 ms that the playback thread makes while it stands still.
#include "bench/bench.h"
#include "platform/output_reader.h"
#include "platform/paths.h"
#include "tests/support/process.h"
#include "tools/client/control_client.h"

namespace {

constexpr double kStillPause = 0.1;

struct ServedCard {
    ServedCard() { card.stream(1).from("12:00:00").pictures(300).pictureSize(20 * 1024).closed(); }

    static std::string ask(int32_t type) {
        const ControlRequest request = ControlRequest(type).with("Session", "1");
        return exchange(paths().controlSocket, request.record).value_or("");
    }

    test::World world;
    test::Card card{world, 8u << 20};
    test::DaemonProcess daemon{world.root()};
};

void statusRoundTrip(benchmark::State& state) {
    ServedCard served;
    ServedCard::ask(RTSP_REQ_OPEN);
    ServedCard::ask(RTSP_REQ_SESSION);
    for ([[maybe_unused]] auto _ : state)
        if (readStatusAnswer(ServedCard::ask(RTSP_REQ_STATUS)) != "pause")
            return state.SkipWithError("no status came");
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(statusRoundTrip)->UseRealTime()->Unit(benchmark::kMicrosecond);

/// From the request to the answer, and on to the first block in the output memory.
void openSession(benchmark::State& state) {
    ServedCard served;
    std::vector<double> answers, blocks;
    for ([[maybe_unused]] auto _ : state) {
        OutputReader reader;
        OutputBlock block;
        OpenAnswer answer{};
        ReadResult result{};
        answers.push_back(bench::timed([&] { answer = readOpenAnswer(ServedCard::ask(RTSP_REQ_OPEN)); }));
        blocks.push_back(answers.back() + bench::timed([&] {
                             while (!reader.attach(paths().ipcKey, 'z')) usleep(100);
                             reader.rewind();
                             result = reader.next(block, std::chrono::seconds(5));
                         }));
        state.SetIterationTime(blocks.back());
        if (answer != OpenAnswer::opened || result != ReadResult::block || block.data.size() != 20 * 1024)
            return state.SkipWithError("no picture came");
        ServedCard::ask(RTSP_REQ_SESSION);
        ServedCard::ask(RTSP_REQ_TEARDOWN);
        ServedCard::ask(RTSP_REQ_STATUS); // is answered once the session has gone
    }
    state.counters["answer_ms"] = bench::median(answers) * 1e3;
    state.counters["block_ms"] = bench::median(blocks) * 1e3;
    state.counters["beyond_pause_ms"] = (bench::median(blocks) - kStillPause) * 1e3;
}
BENCHMARK(openSession)->Iterations(20)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace

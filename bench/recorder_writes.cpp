// The recorder's own writes to the index, alone and beside a session that seeks without pause: they must
// hardly wait.
#include <atomic>
#include <sqlite3.h>
#include <thread>

#include "bench/bench.h"
#include "platform/paths.h"
#include "tools/recording/index_writer.h"

namespace {

using bench::Stream;

/// Seeks from its making until its end.
class Session {
public:
    ~Session() {
        m_done = true;
        m_thread.join();
    }

private:
    void seek() const {
        Stream stream(nullptr);
        for (uint32_t id = 2; !m_done; id = 5 - id) {
            stream.open(id);
            stream.cross(0);
            stream.cross(1);
            for (const unsigned char kind : {kSkipOldest, kSkipEvent, kSkipLatest}) stream.skip(kind);
        }
    }

    std::atomic<bool> m_done = false;
    std::thread m_thread{[this] { seek(); }};
};

void recorderWrites(benchmark::State& state, const std::string& journal, bool seeking) {
    test::World world;
    test::Card card(world);
    for (const auto& [id, start] : {std::pair(1u, "12:00:00"), {2u, "12:00:05"}, {3u, "12:00:20"}})
        card.stream(id).from(start).pictures(60).gop(10).closed();
    card.alarm("12:00:01", "12:00:02");
    card.sql("PRAGMA journal_mode=" + journal);
    IndexWriter writer(paths().index);
    DB_EVENT event{};
    event.extTrg = 4096; // no alarm
    double most = 0;
    const auto session = seeking ? std::make_unique<Session>() : nullptr;
    for ([[maybe_unused]] auto _ : state) {
        const double took = bench::timed([&] {
            event.eventID = writer.addEvent(event);
            writer.finishEvent(event);
        });
        state.SetIterationTime(took);
        most = std::max(most, took);
    }
    state.counters["most_ms"] = most * 1e3;
}

[[maybe_unused]] const bool registered = [] {
    for (const char* journal : {"DELETE", "WAL"})
        for (const bool seeking : {false, true}) {
            const std::string name =
                std::string("recorderWrites/") + journal + (seeking ? "/beside a session" : "/alone");
            benchmark::RegisterBenchmark(name.c_str(), recorderWrites, journal, seeking)
                ->Iterations(2000)
                ->UseManualTime()
                ->Unit(benchmark::kMillisecond);
        }
    return true;
}();

} // namespace

// Questions to the index, in indexes of a hundred to a million streams with as many alarms: through the
// operations that ask them, and statement by statement as those log them.
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <optional>
#include <sstream>
#include <unistd.h>

#include "bench/bench.h"
#include "platform/paths.h"
#include "tests/support/log_recorder.h"

namespace {

using bench::Stream;

constexpr uint32_t kFirstStart = 1'700'000'000;

/// Streams of a second each with a second between them, all of them kept in the card's one real stream.
struct Index {
    Index(uint32_t count, const std::string& keys) : streams(count), indices(keys) {
        const std::string rows = "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
                                 std::to_string(count) + "), t(i, s) AS (SELECT i, " +
                                 std::to_string(kFirstStart) + " + 2 * i FROM n) ";
        card.stream(1).fromMs(kFirstStart * 1000ull).pictures(30).closed();
        card.sql("UPDATE STREAM SET streamID = 0");
        card.sql("INSERT INTO STREAM SELECT i, inTrg, frameSet, bitrateSet, recSize, chunkID, chunkOffset, "
                 "chunkSize, 0, s, s, 0, 967, 0 FROM STREAM, (" +
                 rows + "SELECT * FROM t)");
        card.sql("DELETE FROM STREAM WHERE streamID = 0");
        card.sql("INSERT INTO EVENT " + rows + "SELECT i, s, 100, s, 900, 512 FROM t");
        if (keys == "none") {
            card.sql("DROP INDEX STREAM_oldest");
            card.sql("DROP INDEX STREAM_recording");
        } else if (keys == "by time") {
            card.sql("CREATE INDEX start ON STREAM (startDate, startMSec)");
            card.sql("CREATE INDEX end ON STREAM (endDate, endMSec)");
        }
        card.sql("VACUUM");
    }

    /// Takes the file's pages out of the machine's page cache.
    void drop() const {
        const int file = open(paths().index, O_RDONLY);
        fdatasync(file);
        posix_fadvise(file, 0, 0, POSIX_FADV_DONTNEED);
        close(file);
    }

    const uint32_t streams;
    const std::string indices;
    test::World world;
    test::Card card{world};
};

/// Half a second into stream `id`.
PB_STREAM_TIME within(uint32_t id) {
    return {kFirstStart + 2 * id, 500};
}

/// `prepare`, not measured, stands the stream object on its place; `id` is the stream that is asked for.
struct Question {
    const char* name;
    bool (*prepare)(Stream& stream, uint32_t id);
    bool (*ask)(Stream& stream, uint32_t id);
};

bool stayThere(Stream&, uint32_t) {
    return true;
}
bool standOn(Stream& stream, uint32_t id) {
    stream.clearEventID();
    return stream.open(id);
}
bool standOnFirst(Stream& stream, uint32_t) {
    return standOn(stream, 1);
}

constexpr Question kQuestions[] = {
    {"open", stayThere, [](Stream& stream, uint32_t id) { return stream.open(id); }},
    {"next stream", standOn, [](Stream& stream, uint32_t) { return stream.cross(0); }},
    {"previous stream", standOn, [](Stream& stream, uint32_t) { return stream.cross(1); }},
    {"clock time", standOnFirst, [](Stream& stream, uint32_t id) { return stream.toTime(within(id), 0); }},
    {"clock time backward", standOnFirst,
     [](Stream& stream, uint32_t id) { return stream.toTime(within(id), 1); }},
    {"oldest", standOnFirst, [](Stream& stream, uint32_t) { return stream.skip(kSkipOldest); }},
    {"latest", standOnFirst, [](Stream& stream, uint32_t) { return stream.skip(kSkipLatest); }},
    {"next alarm", standOn,
     [](Stream& stream, uint32_t id) { return stream.skip(kSkipEvent, 0, within(id)); }},
    {"previous alarm", standOn,
     [](Stream& stream, uint32_t id) { return stream.skip(kSkipEvent, 1, within(id)); }},
};

/// The milliseconds of each statement that the question logs.
std::vector<double> statementTimes(const Question& question, Stream& stream, uint32_t id) {
    std::vector<std::string> texts;
    {
        test::LogRecorder log;
        question.prepare(stream, id);
        log.clear();
        question.ask(stream, id);
        std::istringstream lines(log.dump());
        for (std::string line; std::getline(lines, line);)
            if (const size_t begin = line.find("SELECT"); begin != std::string::npos)
                texts.push_back(line.substr(begin));
    }
    std::vector<double> times;
    CApiDb index;
    for (const std::string& text : texts) {
        std::vector<double> took;
        for (int i = 0; i < 5; ++i) took.push_back(bench::timed([&] { index.setSql(text.c_str()); }) * 1e3);
        times.push_back(bench::median(took));
    }
    return times;
}

constexpr int kRounds = 20;

/// So far. 0 where the kernel keeps no count.
double readCalls() {
    std::ifstream io("/proc/self/io");
    std::string word;
    double calls = 0;
    while (io >> word)
        if (word == "syscr:") io >> calls;
    return calls;
}

/// Rounds ask about streams spread over the whole index. With `cold`, each is asked through a new connection
/// that has only found the place to ask from, of a file whose pages have been dropped since.
void askIndex(benchmark::State& state, const Question& question, uint32_t streams, const std::string& keys,
              bool cold) {
    static std::optional<Index> index;
    if (!index || index->streams != streams || index->indices != keys) index.emplace(streams, keys);
    auto stream = std::make_unique<Stream>(nullptr);
    std::vector<double> took;
    uint32_t failed = 0;
    double reads = 0;
    for ([[maybe_unused]] auto _ : state) {
        const auto round = static_cast<uint64_t>(took.size());
        const auto id = static_cast<uint32_t>(2 + (streams - 3) * (2 * round + 1) / (2 * kRounds));
        if (cold) stream = std::make_unique<Stream>(nullptr);
        bool found = question.prepare(*stream, id);
        if (cold) index->drop();
        reads -= readCalls();
        took.push_back(bench::timed([&] { found = question.ask(*stream, id) && found; }));
        reads += readCalls();
        failed += found ? 0 : 1;
        state.SetIterationTime(took.back());
    }
    state.counters["median_ms"] = bench::median(took) * 1e3;
    state.counters["most_ms"] = *std::max_element(took.begin(), took.end()) * 1e3;
    state.counters["failed"] = failed;
    state.counters["reads"] = reads / kRounds;
    if (cold) return;
    const std::vector<double> times = statementTimes(question, *stream, streams / 2);
    for (size_t i = 0; i < times.size(); ++i)
        state.counters["statement" + std::to_string(i + 1) + "_ms"] = times[i];
}

[[maybe_unused]] const bool registered = [] {
    const auto add = [](const Question& question, uint32_t streams, const char* keys, bool cold) {
        const std::string name = std::string("index/") + question.name + "/" + std::to_string(streams) + "/" +
                                 keys + "/" + (cold ? "cold" : "warm");
        benchmark::RegisterBenchmark(name.c_str(), askIndex, question, streams, keys, cold)
            ->Iterations(kRounds)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
    };
    for (const uint32_t streams : {1000u, 100'000u, 1'000'000u}) {
        for (const Question& question : kQuestions) add(question, streams, "schema", false);
        if (streams != 100'000) continue;
        for (const Question& question : kQuestions) add(question, streams, "schema", true);
        for (const char* keys : {"none", "by time"})
            for (const Question& question : kQuestions) add(question, streams, keys, false);
    }
    return true;
}();

} // namespace

// Any bytes as the index file: every kind of query ends in its time, gives rows or none, and leaves no memory
// behind.
#include <ctime>
#include <sqlite3.h>

#include "fuzz/input.h"
#include "platform/api_db.h"
#include "platform/paths.h"
#include "stream/records.h"
#include "tests/support/world.h"

namespace {

/// Half as long again as a query is given; of processor time, since the machine may be busy.
constexpr std::clock_t kLongest = 3 * CLOCKS_PER_SEC;

template <class Query> int inTime(Query query) {
    const std::clock_t begin = std::clock();
    const int result = query();
    require(std::clock() - begin < kLongest);
    return result;
}

void ask() {
    CApiDb index;
    DB_STREAM stream{};
    DB_EVENT event{};
    for (const char* sql : {"SELECT * FROM STREAM WHERE status=1 AND startDate<99 ORDER BY streamID DESC",
                            "SELECT * FROM EVENT WHERE endDate<>0 ORDER BY eventID DESC, startDate DESC"}) {
        const bool failed = inTime([&] { return index.setSql(sql); }) != 0;
        require(!failed || index.getNTuple() == 0);
        for (int row = -1; row <= std::min(index.getNTuple(), 9); ++row) {
            index.getStreamValue(row, &stream);
            index.getEventValue(row, &event);
            index.getValue(row, 3);
        }
    }
    inTime([&] { return index.selectStream(1, &stream); });
    inTime([&] { return index.selectStreamOldestTime(&stream); });
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const test::World world;
    static const int ready = sqlite3_initialize();
    test::writeFile(paths().index, {reinterpret_cast<const char*>(data), size});
    const sqlite3_int64 used = sqlite3_memory_used();
    ask();
    require(ready == SQLITE_OK && sqlite3_memory_used() == used);
    return 0;
}

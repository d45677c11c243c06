// Any bytes as the index file: every kind of query ends, and leaves rows or none.
#include "fuzz/input.h"
#include "platform/api_db.h"
#include "platform/paths.h"
#include "stream/records.h"
#include "tests/support/world.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const test::World world;
    test::writeFile(paths().index, {reinterpret_cast<const char*>(data), size});
    CApiDb index;
    DB_STREAM stream{};
    DB_EVENT event{};
    index.selectStream(1, &stream);
    index.selectStreamOldestTime(&stream);
    for (const char* sql : {"SELECT * FROM STREAM ORDER BY streamID DESC LIMIT 1",
                            "SELECT * FROM STREAM WHERE status=1 AND startDate<99 ORDER BY streamID ASC",
                            "SELECT * FROM EVENT WHERE endDate<>0 ORDER BY eventID DESC, startDate DESC"}) {
        const bool failed = index.setSql(sql) != 0;
        require(!failed || index.getNTuple() == 0);
        for (int row = -1; row <= std::min(index.getNTuple(), 9); ++row) {
            index.getStreamValue(row, &stream);
            index.getEventValue(row, &event);
            index.getValue(row, 3);
        }
    }
    return 0;
}

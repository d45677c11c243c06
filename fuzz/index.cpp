// Any bytes as the index file: every kind of query ends in its time, gives rows or none, and leaves no memory
// behind. SQLite reads the file from its own memory file system, which knows no locks and no file beside it
// (the tests have those), and takes memory past the sanitizer: it is not instrumented, and spends most of a
// run allocating.
#include <ctime>
#include <sqlite3.h>

#include "fuzz/input.h"
#include "platform/api_db.h"
#include "platform/paths.h"
#include "stream/records.h"
#include "tests/support/world.h"

extern "C" void* __libc_malloc(size_t);
extern "C" void* __libc_realloc(void*, size_t);
extern "C" void __libc_free(void*);

namespace {

/// Half as long again as a query is given; of processor time, since the machine may be busy.
constexpr std::clock_t kLongest = 3 * CLOCKS_PER_SEC;

using Block = int64_t; ///< preceded by one with its size
size_t wholeSize(int size) {
    return static_cast<size_t>(size) + sizeof(Block);
}
Block* whole(void* block) {
    return static_cast<Block*>(block) - 1;
}
void* sized(void* memory, int size) {
    return memory ? *static_cast<Block*>(memory) = size, static_cast<Block*>(memory) + 1 : nullptr;
}
constexpr sqlite3_mem_methods kMemory = {
    [](int size) { return sized(__libc_malloc(wholeSize(size)), size); },
    [](void* block) { __libc_free(whole(block)); },
    [](void* block, int size) { return sized(__libc_realloc(whole(block), wholeSize(size)), size); },
    [](void* block) { return static_cast<int>(*whole(block)); },
    [](int size) { return size; },
    [](void*) { return SQLITE_OK; },
    [](void*) {},
    nullptr};

/// The file that SQLite opens at the index's path. There is one on the disk too, since that is looked at
/// first.
sqlite3_file* openedFile() {
    static const test::World world;
    test::writeFile(paths().index, "");
    sqlite3_config(SQLITE_CONFIG_MALLOC, &kMemory);
    sqlite3_config(SQLITE_CONFIG_SINGLETHREAD);
    sqlite3_initialize();
    sqlite3_vfs_register(sqlite3_vfs_find("memdb"), 1);
    static sqlite3* keeper = nullptr; // the file lives as long as this is open
    sqlite3_file* file = nullptr;
    sqlite3_open(paths().index, &keeper);
    sqlite3_exec(keeper, "PRAGMA schema_version", nullptr, nullptr, nullptr);
    sqlite3_file_control(keeper, "main", SQLITE_FCNTL_FILE_POINTER, &file);
    require(file != nullptr && file->pMethods != nullptr);
    return file;
}

template <class Query> int inTime(Query query) {
    const std::clock_t begin = std::clock();
    const int result = query();
    require(std::clock() - begin < kLongest);
    return result;
}

/// A file that has nothing to say to either text is asked no more: each failure means to open it anew.
void ask() {
    CApiDb index;
    DB_STREAM stream{};
    DB_EVENT event{};
    int failures = 0;
    for (const char* sql : {"SELECT * FROM STREAM WHERE status=1 AND startDate<99 ORDER BY streamID DESC",
                            "SELECT * FROM EVENT WHERE endDate<>0 ORDER BY eventID DESC, startDate DESC"}) {
        const bool failed = inTime([&] { return index.setSql(sql); }) != 0;
        require(!failed || index.getNTuple() == 0);
        failures += failed;
        for (int row = -1; row <= std::min(index.getNTuple(), 9); ++row) {
            index.getStreamValue(row, &stream);
            index.getEventValue(row, &event);
            index.getValue(row, 3);
        }
    }
    if (failures == 2) return;
    inTime([&] { return index.selectStream(1, &stream); });
    inTime([&] { return index.selectStreamOldestTime(&stream); });
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static sqlite3_file* const file = openedFile();
    require(file->pMethods->xWrite(file, data, static_cast<int>(size), 0) == SQLITE_OK &&
            file->pMethods->xTruncate(file, static_cast<sqlite3_int64>(size)) == SQLITE_OK);
    const sqlite3_int64 used = sqlite3_memory_used();
    ask();
    require(sqlite3_memory_used() == used);
    return 0;
}

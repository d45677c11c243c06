#include "tools/recording/recording_reader.h"

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sqlite3.h>

#include "tools/recording/chunk_ring.h"
#include "tools/recording/recording_error.h"

namespace {

constexpr size_t kRecordBytes = 32;
constexpr int kBusyMs = 5000; ///< the recorder may be writing

/// A record of a header area as eight little-endian words.
using Words = std::array<uint32_t, kRecordBytes / 4>;
enum { offset = 2, size = 3, seconds = 4, flags = 5, milliseconds = 7 }; // which of them holds what

Words wordsOf(const std::string& area, size_t record) {
    Words words;
    std::memcpy(words.data(), area.data() + record * kRecordBytes, kRecordBytes);
    return words;
}

/// These bytes of a chunk, going on at its start past its end.
std::string readArea(const std::string& file, uint64_t position, uint64_t bytes) {
    std::string area(static_cast<size_t>(bytes), '\0');
    std::ifstream chunk(file, std::ios::binary);
    std::error_code error;
    const uint64_t length = std::filesystem::file_size(file, error);
    if (error || position > length) throw RecordingError("cannot read " + file);
    const uint64_t flat = std::min(bytes, length - position);
    chunk.seekg(static_cast<std::streamoff>(position)).read(area.data(), static_cast<std::streamsize>(flat));
    chunk.seekg(0).read(area.data() + flat, static_cast<std::streamsize>(bytes - flat));
    if (!chunk) throw RecordingError("cannot read " + file);
    return area;
}

void appendStream(const StreamRow& row, const std::string& chunk, std::vector<RecordedPicture>& pictures) {
    const std::string headers = readArea(chunk, row.headerOffset, row.headerBytes);
    uint64_t firstMs = 0;
    for (uint32_t number = 1; (number + 1) * kRecordBytes <= headers.size(); ++number) {
        const Words header = wordsOf(headers, number);
        const uint64_t ms = header[seconds] * uint64_t{1000} + (header[milliseconds] & 0xFFFF);
        if (number == 1) firstMs = ms;
        const uint32_t type = header[flags] & 3;
        pictures.push_back({row.id, number, type == 1 || type == 2, row.startMs + ms - firstMs,
                            readArea(chunk, header[offset], header[size])});
    }
}

} // namespace

std::vector<StreamRow> readStreams(const std::string& indexFile) {
    sqlite3* opened = nullptr;
    sqlite3_stmt* prepared = nullptr;
    const int code = sqlite3_open_v2(indexFile.c_str(), &opened, SQLITE_OPEN_READONLY, nullptr);
    const std::unique_ptr<sqlite3, int (*)(sqlite3*)> index(opened, sqlite3_close);
    sqlite3_busy_timeout(opened, kBusyMs);
    if (code == SQLITE_OK)
        sqlite3_prepare_v2(opened,
                           "SELECT streamID, chunkID, chunkOffset, chunkSize, startDate * 1000 + startMSec, "
                           "status = 1 FROM STREAM ORDER BY streamID",
                           -1, &prepared, nullptr);
    const std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> query(prepared, sqlite3_finalize);
    const auto column = [&](int n) { return static_cast<uint64_t>(sqlite3_column_int64(prepared, n)); };
    std::vector<StreamRow> rows;
    int step = SQLITE_ERROR;
    while (prepared && (step = sqlite3_step(prepared)) == SQLITE_ROW)
        rows.push_back({static_cast<uint32_t>(column(0)), static_cast<uint32_t>(column(1)), column(2),
                        column(3), column(4), column(5) != 0});
    if (step != SQLITE_DONE) throw RecordingError("cannot read " + indexFile + ": " + sqlite3_errmsg(opened));
    return rows;
}

std::vector<RecordedPicture> readRecording(const std::string& indexFile, const std::string& cardDirectory) {
    std::vector<RecordedPicture> pictures;
    for (const StreamRow& row : readStreams(indexFile)) {
        if (!row.isRecording) appendStream(row, chunkPath(cardDirectory, row.chunk), pictures);
    }
    return pictures;
}

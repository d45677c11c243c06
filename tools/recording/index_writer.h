// The recorder's side of the index: short transactions, one statement each, so that playback never waits
// long and never makes a write fail.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "stream/records.h"

struct sqlite3;

/// Every operation throws RecordingError.
class IndexWriter {
public:
    /// Opens the index, creating file and tables where they are missing.
    explicit IndexWriter(const std::string& path);
    ~IndexWriter();
    IndexWriter(const IndexWriter&) = delete;
    IndexWriter& operator=(const IndexWriter&) = delete;

    /// Highest chunk number in use; 0 for an empty index.
    uint32_t lastChunk();
    /// One above the highest streamID.
    uint32_t nextStreamId();
    /// Rows that say "being recorded"; only what finishing them needs is filled in.
    std::vector<DB_STREAM> unfinishedStreams();
    void addStream(const DB_STREAM& row);
    /// Writes what is known once the stream is finished: end, recSize, chunkSize, status.
    void finishStream(const DB_STREAM& row);
    void removeStream(uint32_t streamId);
    /// As RecordingWriter's.
    uint64_t newestEndMs();
    uint32_t olderStreamWithin(uint64_t startMs, uint64_t endMs, uint32_t streamId);

    /// Inserts the row; its eventID.
    uint32_t addEvent(const DB_EVENT& row);
    void finishEvent(const DB_EVENT& row);

private:
    class Statement;
    void run(const char* sql);
    uint32_t singleNumber(const char* sql);

    const std::string m_path;
    sqlite3* m_database = nullptr;
};

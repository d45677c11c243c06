// The card and the index as anybody can read them: through SQLite, and byte by byte as
// docs/on-card-formats.md tells, with nothing of the daemon's. The measure that played pictures are held
// against. Every operation throws RecordingError.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// One row of table STREAM, as far as it is needed to find the pictures.
struct StreamRow {
    uint32_t id, chunk;
    uint64_t headerOffset, headerBytes; ///< of the header area in the chunk
    uint64_t startMs;                   ///< since the epoch
    bool isRecording;                   ///< the recorder is still writing it
};

struct RecordedPicture {
    uint32_t stream;
    uint32_t number; ///< in its stream, from 1 on
    bool iPicture;
    uint64_t timeMs;  ///< by the clock, since the epoch
    std::string data; ///< Annex B bytes
};

/// In the order of their ids.
std::vector<StreamRow> readStreams(const std::string& indexFile);

/// Every picture of the streams that are finished, in the order in which they were recorded.
std::vector<RecordedPicture> readRecording(const std::string& indexFile, const std::string& cardDirectory);

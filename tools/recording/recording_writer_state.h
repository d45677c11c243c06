// What a RecordingWriter works on. Private to recording_writer.cpp and abandoned_streams.cpp.
#pragma once

#include "tools/recording/chunk_ring.h"
#include "tools/recording/index_writer.h"
#include "tools/recording/recording_writer.h"

struct ClockParts {
    uint32_t seconds;
    uint16_t milliseconds;
};

inline ClockParts partsOf(uint64_t ms) {
    return {static_cast<uint32_t>(ms / 1000), static_cast<uint16_t>(ms % 1000)};
}

/// What is known once a stream is finished.
inline void finishRow(DB_STREAM& row, uint32_t pictures, uint64_t endMs) {
    const ClockParts end = partsOf(endMs);
    row.status = 0;
    row.recSize = pictures;
    row.chunkSize = (pictures + 1) * kHeaderBytes;
    row.endDate = end.seconds;
    row.endMSec = end.milliseconds;
}

struct RecordingWriter::State {
    explicit State(const RecordingPlace& place)
        : index(place.indexFile), ring(place.cardDirectory, place.chunkBytes, index.lastChunk()) {}

    void placeStream();
    void writeStreamHeader();
    void writePictureHeader(const CodedPicture& picture, uint32_t position);

    IndexWriter index;
    ChunkRing ring;

    bool open = false; ///< between beginStream and finishStream
    StreamSettings settings;
    DB_STREAM row{};
    STREAM_HEADER header{};
    uint64_t firstPtsMs = 0;
    uint64_t lastPtsMs = 0;
    uint32_t dataBytes = 0;
    uint64_t meanPictureBytes = kMinPictureBytes; ///< of the stream written before
};

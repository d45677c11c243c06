// Streams that a recorder which was killed has left open.
#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/recording/recording_writer_state.h"

namespace {

/// The headers of a chunk that this process did not write.
class LeftChunk {
public:
    explicit LeftChunk(const std::string& path) : m_file(open(path.c_str(), O_RDWR | O_CLOEXEC)) {
        struct stat status {};
        if (m_file != -1 && fstat(m_file, &status) == 0) m_bytes = static_cast<uint64_t>(status.st_size);
    }
    ~LeftChunk() {
        if (m_file != -1) close(m_file);
    }
    LeftChunk(const LeftChunk&) = delete;
    LeftChunk& operator=(const LeftChunk&) = delete;

    /// Record `number` of the header area at `area`; false when it can't be read or its checksum is wrong.
    template <class Header> bool read(uint32_t area, uint64_t number, Header& header) const {
        return m_bytes != 0 && pread(m_file, &header, sizeof header, place(area, number)) == sizeof header &&
               headerChecksum(header) == header.cs;
    }
    void write(uint32_t area, const STREAM_HEADER& header) const {
        if (pwrite(m_file, &header, sizeof header, place(area, 0)) != sizeof header)
            throw RecordingError("cannot write the header of an unfinished stream; check the card");
    }
    uint32_t distance(uint32_t from, uint32_t to) const {
        return static_cast<uint32_t>((m_bytes + to - from) % m_bytes);
    }

private:
    off_t place(uint32_t area, uint64_t number) const {
        return static_cast<off_t>((area + number * kHeaderBytes) % m_bytes);
    }

    int m_file;
    uint64_t m_bytes = 0;
};

uint64_t ptsMs(const PICTURE_HEADER& picture) {
    return uint64_t{picture.pts} * 1000 + picture.msec;
}

/// How far playback searches for an I-picture.
constexpr uint32_t kMaxSearch = 240;

/// A session opens on a stream that has an I-picture from its second picture on.
bool opensASession(const LeftChunk& chunk, const DB_STREAM& row, uint32_t pictures) {
    PICTURE_HEADER picture{};
    for (uint32_t n = 1; n < std::min(pictures, kMaxSearch + 1); ++n)
        if (chunk.read(row.chunkOffset, n + 1, picture) && isIPicture(picture)) return true;
    return false;
}

/// Completes row and header with what the headers say; false when that is nothing to play.
bool complete(const LeftChunk& chunk, DB_STREAM& row) {
    STREAM_HEADER header{};
    PICTURE_HEADER first{};
    PICTURE_HEADER last{};
    if (!chunk.read(row.chunkOffset, 0, header) || !opensASession(chunk, row, header.pictures) ||
        !chunk.read(row.chunkOffset, 1, first) || !chunk.read(row.chunkOffset, header.pictures, last))
        return false;
    header.size = chunk.distance(header.offset, last.offset) + last.size;
    header.pts = first.pts;
    chunk.write(row.chunkOffset, sealed(header));
    const uint64_t startMs = uint64_t{row.startDate} * 1000 + row.startMSec;
    finishRow(row, header.pictures, startMs + ptsMs(last) - ptsMs(first));
    return true;
}

} // namespace

Abandoned RecordingWriter::closeAbandoned() {
    State& state = *m_state;
    Abandoned streams;
    for (DB_STREAM row : state.index.unfinishedStreams()) {
        const LeftChunk chunk(state.ring.pathOf(row.chunkID));
        if (complete(chunk, row)) {
            state.index.finishStream(row);
            ++streams.finished;
        } else {
            state.index.removeStream(row.streamID);
            ++streams.removed;
        }
    }
    return streams;
}

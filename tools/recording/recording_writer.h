// tools/recording/ holds card and index as a recorder writes them and as anybody can read them. It never
// knows where pictures come from or what is played.
//
// Here: the recorder's side of the card: streams into chunks, rows into the index, byte for byte as the
// on-card formats say. The recorder's stand-in writes with it, and so do tests and benchmarks. The daemon
// never links it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "stream/records.h"
#include "tools/recording/recording_error.h"

/// Where a recording goes. The index is created with the recorder's schema when it does not exist.
struct RecordingPlace {
    std::string cardDirectory; ///< holds chunkNNNNN
    std::string indexFile;
    uint32_t chunkBytes = 64u << 20; ///< size of a new chunk, which is its ring's length
};

/// What a stream's row and header say.
struct StreamSettings {
    uint32_t streamId = 0; ///< 0 = one above the highest in the index
    uint64_t startMs = 0;  ///< wall clock, milliseconds since the epoch
    uint16_t frameSet = 1; ///< low 4 bits: frame-rate code, 0 = none
    uint32_t gops = 30;    ///< GOP length in pictures
    uint32_t capacity = 0; ///< pictures the header area has room for
    uint32_t bitrateSet = 0;
    uint16_t inTrg = 0;
};

struct CodedPicture {
    std::string_view data; ///< Annex B bytes
    uint64_t ptsMs = 0;    ///< on the recorder's running scale
    bool iPicture = false;
};

/// Where a stream lies.
struct StreamPlacement {
    uint32_t chunkId = 0;
    uint32_t dataBytes = 0; ///< of all pictures
    bool wrapped = false;   ///< its areas go on at the chunk's start
};

/// Streams that a recorder which was killed had left open.
struct Abandoned {
    uint32_t finished = 0;
    uint32_t removed = 0;
};

/// Writes one stream at a time. Every operation throws RecordingError.
class RecordingWriter {
public:
    explicit RecordingWriter(const RecordingPlace& place);
    ~RecordingWriter(); ///< leaves an unfinished stream as a killed recorder would

    /// Finishes the streams that a recorder which was killed has left open, with what their headers say, and
    /// removes those on which no session could open. For a recorder's start: a stream that another process is
    /// writing now would be cut off.
    Abandoned closeAbandoned();

    /// Wall clock at which the last of all recordings ends; 0 for an empty index.
    uint64_t newestEndMs();
    /// A stream below `streamId` that covers part of the time between the two; 0 when there is none.
    uint32_t olderStreamWithin(uint64_t startMs, uint64_t endMs, uint32_t streamId);

    /// Inserts the row with status 1 (recording) and writes the stream header; the streamID.
    uint32_t beginStream(const StreamSettings& settings);

    /// Appends a picture: data first, then its header. False, and nothing written, when the header area or
    /// the chunk's free room is used up: finish the stream and begin the next one.
    bool addPicture(const CodedPicture& picture);

    /// Pictures of the stream begun last; what the recorder publishes as recPictures.
    uint32_t pictures() const;

    /// Whether the present stream takes that many pictures more, of so many bytes in all.
    bool hasRoom(uint32_t morePictures, uint64_t bytes) const;
    /// Of the stream begun last.
    StreamPlacement placement() const;

    /// Writes the final stream header and row: status 0, end = start + (last - first picture time) unless
    /// `endMs` gives it, recSize = pictures.
    void finishStream(uint64_t endMs = 0);
    /// Removes the row of the stream being written instead. Its room in the chunk stays taken.
    void dropStream();

    /// Appends an alarm; endMs 0 = not ended yet. The eventID.
    uint32_t addEvent(uint64_t startMs, uint64_t endMs, uint32_t extTrg);
    /// Ends an alarm that was added unfinished.
    void finishEvent(uint32_t eventId, uint64_t endMs);

private:
    struct State;
    std::unique_ptr<State> m_state;
};

/// Sets marker's checksum field of a header that is otherwise complete.
template <class Header> Header sealed(Header header) {
    header.cs = headerChecksum(header);
    return header;
}

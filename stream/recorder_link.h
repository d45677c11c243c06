// What the recorder publishes about its work, and what follows from it for the stream stood on.
#pragma once

#include <cstdint>

class CtavirnShmServer;
class OpenStream;
class RecordingIndex;

/// Both words of one moment.
struct RecorderState {
    uint32_t streamId; ///< being written; 0 = none
    uint32_t pictures; ///< written to it so far
};

/// Copied under the segment's lock. The segment's record must be there.
RecorderState askRecorder(CtavirnShmServer& segment);

/// Keeps a stream under recording up to date. One thread at a time.
class RecorderLink {
public:
    /// `segment` is shared with the recorder; may be null, not owned.
    explicit RecorderLink(CtavirnShmServer* segment) : m_shmserver(segment) {}

    /// Brings a stream under recording up to date: grown, or finished when the recorder has gone on to
    /// another one. Closed streams stay as they are. 0, or -1 when it can't be followed.
    int m_updateRecStream(OpenStream& stream, RecordingIndex& index);

private:
    int followGrowth(OpenStream& stream, uint32_t pictures);
    int reloadFinished(OpenStream& stream, RecordingIndex& index, uint32_t recorderStreamId);

    CtavirnShmServer* m_shmserver;
    uint32_t m_recPictures = 0;  ///< pictures of the stream under recording, as last taken from the segment
    uint32_t m_recFirstFlag = 1; ///< 1 = the next refresh of a stream under recording goes to picture 0
};

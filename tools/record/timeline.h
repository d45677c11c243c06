// Wall-clock time over a recording: how it passes from stream to stream.
#pragma once

#include <cstdint>

struct Timeline {
    uint64_t startMs = 0; ///< wall clock of the source's time 0
    uint64_t splitMs = 0; ///< source time per stream; 0 = one stream
    uint64_t gapMs = 0;   ///< wall clock between a stream and the next
};

/// Follows a source's pictures along a timeline. The source's time runs on without a break; on the wall clock
/// a gap is put in wherever a stream of the split's length ends.
class TimelineCursor {
public:
    explicit TimelineCursor(const Timeline& timeline) : m_timeline(timeline) {}

    /// The picture lies behind the end of the present stream's time: the next one may begin with it.
    bool isBehind(uint64_t sourceMs) const { return segment(sourceMs) != m_segment; }
    /// Goes on to the next stream, which begins with the picture; one gap, however much time it skips.
    void goOn(uint64_t sourceMs) {
        m_segment = segment(sourceMs);
        ++m_gaps;
    }
    uint64_t wallMs(uint64_t sourceMs) const {
        return m_timeline.startMs + sourceMs + m_gaps * m_timeline.gapMs;
    }

private:
    uint64_t segment(uint64_t sourceMs) const {
        return m_timeline.splitMs == 0 ? 0 : sourceMs / m_timeline.splitMs;
    }

    Timeline m_timeline;
    uint64_t m_segment = 0;
    uint64_t m_gaps = 0;
};

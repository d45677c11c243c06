// Where coded pictures come from: a video file or a moving test pattern, through GStreamer.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "tools/record/timeline.h"

/// How pictures are encoded where they are.
struct EncoderSettings {
    uint32_t gop = 0;         ///< pictures from one I-picture to the next; 0 = one second's
    uint32_t bitrateKbit = 0; ///< 0 = by size and frame rate
    Timeline timeline;        ///< each of its streams begins with an I-picture
};

struct TestPattern {
    uint32_t width = 1280;
    uint32_t height = 720;
    double framesPerSecond = 30;
    uint64_t durationMs = 0; ///< 0 = endless
};

struct MediaPicture {
    std::string accessUnit; ///< Annex B bytes of one coded picture
    uint64_t sourceMs = 0;  ///< decode time since the source's first picture; never falls
};

/// What is known of a source from the start.
struct MediaInfo {
    uint32_t width = 0;
    uint32_t height = 0;
    double framesPerSecond = 0; ///< 0 = unknown
    uint64_t durationMs = 0;    ///< 0 = unknown
    uint32_t gop = 0;           ///< 0 = the source's own
    uint32_t bitrateKbit = 0;   ///< 0 = unknown
    bool copied = false;        ///< pictures are the file's own, not encoded here
};

/// Pulls coded pictures one by one; GStreamer's threads run a few pictures ahead at most. Every operation
/// throws RecordingError.
class MediaSource {
public:
    /// H.264 is copied, everything else is decoded and encoded. `stop` makes next() end early.
    static std::unique_ptr<MediaSource> file(const std::string& path, const EncoderSettings& encoder,
                                             const std::atomic<bool>& stop);
    /// A moving pattern with the timeline's wall-clock time burnt into each picture.
    static std::unique_ptr<MediaSource>
    testPattern(const TestPattern& pattern, const EncoderSettings& encoder, const std::atomic<bool>& stop);
    ~MediaSource();

    /// The next picture; nothing at the end or once stopped.
    std::optional<MediaPicture> next();
    const MediaInfo& info() const;

private:
    struct Pipeline;
    explicit MediaSource(std::unique_ptr<Pipeline> pipeline);
    std::unique_ptr<Pipeline> m_pipeline;
};

// Where coded pictures come from: a video file or a moving test pattern, through GStreamer.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "tools/record/timeline.h"

/// What is wanted of a source.
struct SourceSettings {
    uint32_t gop = 0;         ///< of an encoder: pictures from one I-picture to the next; 0 = one second's
    uint32_t bitrateKbit = 0; ///< of an encoder; 0 = by size and frame rate
    uint64_t durationMs = 0;  ///< what will be recorded of it; 0 = to its end
    Timeline timeline;        ///< each of its streams begins with an I-picture where pictures are encoded
};

struct TestPattern {
    uint32_t width = 1280;
    uint32_t height = 720;
    double framesPerSecond = 30;
};

struct MediaPicture {
    std::string accessUnit; ///< Annex B bytes of one coded picture
    uint64_t sourceMs = 0;  ///< presentation time since the source's first picture; never falls
};

/// What is known of a source from the start.
struct MediaInfo {
    uint32_t width = 0;
    uint32_t height = 0;
    double framesPerSecond = 0; ///< 0 = unknown
    uint64_t durationMs = 0;    ///< 0 = unknown
    uint32_t gop = 0;           ///< pictures of the longest GOP
    uint32_t bitrateKbit = 0;   ///< 0 = unknown
    bool copied = false;        ///< pictures are the file's own, not encoded here
    std::string notCopied;      ///< why a video is encoded anew
};

/// Pulls coded pictures one by one, in the order they are shown; GStreamer's threads run a few pictures ahead
/// at most. Every operation throws RecordingError.
class MediaSource {
public:
    /// H.264 that CopyCheck finds nothing against is copied, for which the file is read twice; everything
    /// else is decoded and encoded. Messages call it by `name`. `stop` makes next() end early.
    static std::unique_ptr<MediaSource> file(const std::string& path, const std::string& name,
                                             const SourceSettings& settings, const std::atomic<bool>& stop);
    /// What comes through standard input as it comes. What is still to come nobody knows, so all is encoded.
    static std::unique_ptr<MediaSource> pipe(const SourceSettings& settings, const std::atomic<bool>& stop);
    /// A moving pattern with the timeline's wall-clock time burnt into each picture.
    static std::unique_ptr<MediaSource>
    testPattern(const TestPattern& pattern, const SourceSettings& settings, const std::atomic<bool>& stop);
    ~MediaSource();

    /// The next picture; nothing at the end or once stopped.
    std::optional<MediaPicture> next();
    const MediaInfo& info() const;

private:
    struct Pipeline;
    explicit MediaSource(std::unique_ptr<Pipeline> pipeline);
    std::unique_ptr<Pipeline> m_pipeline;
};

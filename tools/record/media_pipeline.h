// The GStreamer side of a media source. Included by the media source's two files only.
#pragma once

#include <gst/app/gstappsink.h>
#include <gst/gst.h>

#include "tools/record/media_source.h"

/// One running pipeline that ends in an appsink. GStreamer's threads call the pad probes; what these share
/// with the pulling thread is constant once the pipeline runs.
struct MediaSource::Pipeline {
    Pipeline(std::string name, const EncoderSettings& encoder, const std::atomic<bool>& stop);
    ~Pipeline();
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    void openFile(const std::string& path);
    void openTestPattern(const TestPattern& pattern);

    std::optional<MediaPicture> next();

    const std::string name; ///< of the source, for error messages
    const std::atomic<bool>& stop;
    const EncoderSettings encoder;
    MediaInfo info; ///< constant once open

private:
    void launch(const std::string& description);
    void start();
    GstSample* pull();
    MediaPicture toPicture(GstSample* sample);
    void throwIfFailed();
    [[noreturn]] void fail(std::string reason) const;

    std::string encoderDescription(uint32_t gop, uint32_t bitrateKbit) const;
    void forceKeysAtBorders();
    /// Fills `info`; the media type of the file's video.
    std::string discover(const std::string& path);

    static GstPadProbeReturn onPictureToEncode(GstPad* pad, GstPadProbeInfo* info, gpointer self);
    static GstPadProbeReturn onPictureToStamp(GstPad* pad, GstPadProbeInfo* info, gpointer self);

    GstElement* m_pipeline = nullptr;
    GstElement* m_stamp = nullptr; ///< text overlay of the test pattern
    GstAppSink* m_sink = nullptr;

    // One streaming thread each.
    GstClockTime m_encodeBase = GST_CLOCK_TIME_NONE;
    TimelineCursor m_encoded;
    TimelineCursor m_stamped;

    // Pulling thread only.
    GstClockTime m_pullBase = GST_CLOCK_TIME_NONE;
    GstClockTime m_lastTime = 0;
};

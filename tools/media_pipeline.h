// The GStreamer side of a media source. Included by the media source's two files only.
#pragma once

#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <mutex>

#include "tools/media_source.h"

/// One running pipeline that ends in an appsink. GStreamer's threads call the pad callbacks; what they share
/// with the pulling thread is atomic or constant after construction.
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
    EncoderSettings encoder; ///< constant once the first picture has been pulled
    MediaInfo info;

private:
    void launch(const std::string& description);
    void start();
    GstSample* pull();
    MediaPicture toPicture(GstSample* sample);
    void learnInfo(GstSample* sample);
    void throwIfFailed();
    [[noreturn]] void fail(const std::string& reason) const;

    std::string encoderDescription(uint32_t gop, uint32_t bitrateKbit) const;
    void forceKeysAtBorders(GstElement* encoderElement);
    void addBranch(GstPad* pad);

    static void onPad(GstElement* parser, GstPad* pad, gpointer self);
    static void onNoMorePads(GstElement* parser, gpointer self);
    static GstPadProbeReturn onPictureToEncode(GstPad* pad, GstPadProbeInfo* info, gpointer self);
    static GstPadProbeReturn onPictureToStamp(GstPad* pad, GstPadProbeInfo* info, gpointer self);

    uint64_t m_fileBytes = 0;
    GstElement* m_pipeline = nullptr;
    GstElement* m_stamp = nullptr; ///< text overlay of the test pattern
    GstAppSink* m_sink = nullptr;
    std::atomic<bool> m_hasVideo{false};
    std::atomic<bool> m_copied{false};

    // Streaming thread only.
    GstClockTime m_encodeBase = GST_CLOCK_TIME_NONE;
    uint64_t m_encodeSegment = 0;

    // Pulling thread only.
    GstClockTime m_pullBase = GST_CLOCK_TIME_NONE;
    GstClockTime m_lastTime = 0;
    bool m_first = true;
};

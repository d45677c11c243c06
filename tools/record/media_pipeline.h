// The GStreamer side of a media source. Included by the media source's files only.
#pragma once

#include <gst/app/gstappsink.h>
#include <gst/gst.h>

#include "tools/record/media_source.h"

/// One running pipeline that ends in an appsink. GStreamer's threads call the pad probes; what these share
/// with the pulling thread is constant once the first picture has come out.
struct MediaSource::Pipeline {
    Pipeline(std::string name, const SourceSettings& settings, const std::atomic<bool>& stop);
    ~Pipeline();
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    /// Fills `info` with what a file says of itself; why its video can't be copied, empty when it may.
    std::string discover(const std::string& path);
    void openToCopy(const std::string& path);
    void openToEncode(const std::string& path);
    void openPipe();
    void openTestPattern(const TestPattern& pattern);

    std::optional<MediaPicture> next();
    /// All pictures that will be recorded, when opened to be copied; why they can't be, empty when they can.
    std::string lookThrough();

    const std::string name; ///< of the source, for error messages
    const std::atomic<bool>& stop;
    const SourceSettings settings;
    MediaInfo info; ///< complete once open

private:
    void launch(const std::string& description);
    void launchEncoder(const std::string& source);
    void readFrom(const std::string& path);
    void start();
    GstSample* pull();
    MediaPicture toPicture(GstSample* sample);
    void throwIfFailed();
    [[noreturn]] void fail(const std::string& reason) const;
    /// The same, of what GStreamer says, which may come of a plugin that is missing.
    [[noreturn]] void failUnclear(std::string reason) const;

    void onCaps(const GstStructure* caps);
    uint64_t spanFrom(uint64_t sourceMs) const;
    bool wantsIPicture(uint64_t sourceMs);
    static GstPadProbeReturn onEncoderInput(GstPad* pad, GstPadProbeInfo* info, gpointer self);
    static GstPadProbeReturn onPictureToStamp(GstPad* pad, GstPadProbeInfo* info, gpointer self);

    GstElement* m_pipeline = nullptr;
    GstElement* m_encoder = nullptr;
    GstElement* m_stamp = nullptr; ///< text overlay of the test pattern
    GstAppSink* m_sink = nullptr;

    // The encoder's streaming thread, until the first picture has come out.
    uint32_t m_gop = 0;
    uint32_t m_bitrateKbit = 0;

    // One streaming thread each.
    GstClockTime m_encodeBase = GST_CLOCK_TIME_NONE;
    TimelineCursor m_encoded;
    uint32_t m_gopSoFar = 0;  ///< pictures since the last I-picture, itself included
    bool m_secondDue = false; ///< the present stream is to have a second I-picture before its GOP ends
    uint64_t m_secondMs = 0;  ///< at the first picture from this time on
    TimelineCursor m_stamped;

    // Pulling thread only.
    bool m_any = false;           ///< a picture has come
    GstSample* m_first = nullptr; ///< pulled when the pipeline was opened
    GstClockTime m_pullBase = GST_CLOCK_TIME_NONE;
    GstClockTime m_lastTime = 0;
};

#include "tools/record/media_pipeline.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <gst/pbutils/pbutils.h>
#include <gst/video/video.h>

#include "tools/common/clock_text.h"
#include "tools/recording/recording_error.h"

namespace {

constexpr double kUnknownRate = 30; ///< frames per second where a file doesn't say
constexpr GstClockTime kDiscoverTime = 20 * GST_SECOND;
constexpr double kBitsPerPixel = 0.1;
constexpr const char* kByteStream = "video/x-h264,stream-format=byte-stream,alignment=au";
/// A few pictures ahead at most: a recording of hours must not pile up in memory.
constexpr const char* kSink = "appsink name=out sync=false max-buffers=8";

uint32_t usualGop(const EncoderSettings& encoder, double framesPerSecond) {
    return encoder.gop != 0 ? encoder.gop : static_cast<uint32_t>(std::max(1L, std::lround(framesPerSecond)));
}

uint32_t usualBitrate(const EncoderSettings& encoder, uint32_t width, uint32_t height, double rate) {
    if (encoder.bitrateKbit != 0) return encoder.bitrateKbit;
    return std::max(64u, static_cast<uint32_t>(width * height * rate * kBitsPerPixel / 1000));
}

} // namespace

MediaSource::Pipeline::Pipeline(std::string sourceName, const EncoderSettings& settings,
                                const std::atomic<bool>& stopFlag)
    : name(std::move(sourceName)), stop(stopFlag), encoder(settings), m_encoded(settings.timeline),
      m_stamped(settings.timeline) {
    GError* error = nullptr;
    if (gst_init_check(nullptr, nullptr, &error)) return;
    const std::string reason = error ? error->message : "unknown reason";
    g_clear_error(&error);
    fail("GStreamer does not start (" + reason + ")");
}

MediaSource::Pipeline::~Pipeline() {
    if (!m_pipeline) return;
    gst_element_set_state(m_pipeline, GST_STATE_NULL); // no callback runs from here on
    if (m_sink) gst_object_unref(m_sink);
    if (m_stamp) gst_object_unref(m_stamp);
    gst_object_unref(m_pipeline);
}

void MediaSource::Pipeline::launch(const std::string& description) {
    GError* error = nullptr;
    m_pipeline = gst_parse_launch(description.c_str(), &error);
    if (error) {
        const std::string reason = error->message;
        g_clear_error(&error);
        fail(reason);
    }
    m_sink = GST_APP_SINK(gst_bin_get_by_name(GST_BIN(m_pipeline), "out"));
}

void MediaSource::Pipeline::start() {
    if (gst_element_set_state(m_pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        throwIfFailed();
        fail("its pipeline does not start");
    }
}

/// No B-frames, so that pictures are decoded in the order they are shown; nothing held back; and I-pictures
/// only where the GOP or a stream begins.
std::string MediaSource::Pipeline::encoderDescription(uint32_t gop, uint32_t bitrateKbit) const {
    return "x264enc name=encoder tune=zerolatency speed-preset=superfast bframes=0 option-string=scenecut=0"
           " key-int-max=" +
           std::to_string(gop) + " bitrate=" + std::to_string(bitrateKbit) + " ! h264parse ! " + kByteStream;
}

void MediaSource::Pipeline::openTestPattern(const TestPattern& pattern) {
    int numerator = 0;
    int denominator = 1;
    gst_util_double_to_fraction(pattern.framesPerSecond, &numerator, &denominator);
    info.gop = usualGop(encoder, pattern.framesPerSecond);
    info.bitrateKbit = usualBitrate(encoder, pattern.width, pattern.height, pattern.framesPerSecond);
    info.width = pattern.width;
    info.height = pattern.height;
    info.framesPerSecond = pattern.framesPerSecond;
    info.durationMs = pattern.durationMs;
    const auto pictures =
        static_cast<int>(std::ceil(static_cast<double>(pattern.durationMs) * pattern.framesPerSecond / 1000));
    launch("videotestsrc pattern=smpte75 horizontal-speed=4 num-buffers=" +
           std::to_string(pattern.durationMs == 0 ? -1 : pictures) + " ! video/x-raw,format=I420,width=" +
           std::to_string(pattern.width) + ",height=" + std::to_string(pattern.height) +
           ",framerate=" + std::to_string(numerator) + "/" + std::to_string(denominator) +
           " ! textoverlay name=stamp font-desc=\"Monospace Bold 36\" valignment=center halignment=center"
           " shaded-background=true shading-value=160 ! queue max-size-buffers=4 ! " +
           encoderDescription(info.gop, info.bitrateKbit) + " ! " + kSink);

    m_stamp = gst_bin_get_by_name(GST_BIN(m_pipeline), "stamp");
    GstPad* pad = gst_element_get_static_pad(m_stamp, "video_sink");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, onPictureToStamp, this, nullptr);
    gst_object_unref(pad);
    forceKeysAtBorders();
    start();
}

/// What the file holds, before anything is set up for it.
std::string MediaSource::Pipeline::discover(const std::string& path) {
    const auto drop = [](gpointer object) { g_object_unref(object); };
    GError* error = nullptr;
    gchar* uri = gst_filename_to_uri(path.c_str(), nullptr);
    const std::unique_ptr<GstDiscoverer, decltype(drop)> discoverer(
        gst_discoverer_new(kDiscoverTime, nullptr));
    if (!discoverer) fail("GStreamer's base plugins are missing");
    const std::unique_ptr<GstDiscovererInfo, decltype(drop)> found(
        gst_discoverer_discover_uri(discoverer.get(), uri, &error));
    g_free(uri);
    const std::string reason = error ? error->message : "it takes too long to look at";
    g_clear_error(&error);
    if (!found || gst_discoverer_info_get_result(found.get()) != GST_DISCOVERER_OK) fail(reason);

    GList* videos = gst_discoverer_info_get_video_streams(found.get());
    if (!videos) fail("it has no video stream");
    const auto* video = static_cast<GstDiscovererVideoInfo*>(videos->data);
    info.width = gst_discoverer_video_info_get_width(video);
    info.height = gst_discoverer_video_info_get_height(video);
    if (gst_discoverer_video_info_get_framerate_num(video) > 0)
        info.framesPerSecond = static_cast<double>(gst_discoverer_video_info_get_framerate_num(video)) /
                               gst_discoverer_video_info_get_framerate_denom(video);
    info.durationMs = gst_discoverer_info_get_duration(found.get()) / GST_MSECOND;
    GstCaps* caps = gst_discoverer_stream_info_get_caps(static_cast<GstDiscovererStreamInfo*>(videos->data));
    const std::string type = gst_structure_get_name(gst_caps_get_structure(caps, 0));
    gst_caps_unref(caps);
    gst_discoverer_stream_info_list_free(videos);
    return type;
}

void MediaSource::Pipeline::openFile(const std::string& path) {
    info.copied = discover(path) == "video/x-h264";
    const std::string file = "filesrc name=file ! ";
    // Audio and whatever else a file holds finds nobody to take it, and is dropped.
    if (info.copied) {
        std::error_code error;
        const auto bytes = std::filesystem::file_size(path, error);
        if (!error && info.durationMs > 0)
            info.bitrateKbit = static_cast<uint32_t>(bytes * 8 / info.durationMs);
        launch(file + "parsebin ! video/x-h264 ! h264parse config-interval=-1 ! " + kByteStream + " ! " +
               kSink);
    } else {
        const double rate = info.framesPerSecond > 0 ? info.framesPerSecond : kUnknownRate;
        info.gop = usualGop(encoder, rate);
        info.bitrateKbit = usualBitrate(encoder, info.width, info.height, rate);
        launch(file + "decodebin ! videoconvert ! video/x-raw,format=I420 ! queue max-size-buffers=4 ! " +
               encoderDescription(info.gop, info.bitrateKbit) + " ! " + kSink);
        forceKeysAtBorders();
    }
    GstElement* reader = gst_bin_get_by_name(GST_BIN(m_pipeline), "file");
    g_object_set(reader, "location", path.c_str(), nullptr);
    gst_object_unref(reader);
    start();
}

void MediaSource::Pipeline::forceKeysAtBorders() {
    GstElement* encoderElement = gst_bin_get_by_name(GST_BIN(m_pipeline), "encoder");
    GstPad* pad = gst_element_get_static_pad(encoderElement, "sink");
    gst_object_unref(encoderElement);
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, onPictureToEncode, this, nullptr);
    gst_object_unref(pad);
}

/// Before a picture that begins a stream the encoder is told to make it an I-picture.
GstPadProbeReturn MediaSource::Pipeline::onPictureToEncode(GstPad* pad, GstPadProbeInfo* info,
                                                           gpointer self) {
    Pipeline& pipeline = *static_cast<Pipeline*>(self);
    const GstClockTime time = GST_BUFFER_PTS(GST_PAD_PROBE_INFO_BUFFER(info));
    if (!GST_CLOCK_TIME_IS_VALID(time)) return GST_PAD_PROBE_OK;
    if (pipeline.m_encodeBase == GST_CLOCK_TIME_NONE) pipeline.m_encodeBase = time;
    if (time < pipeline.m_encodeBase) return GST_PAD_PROBE_OK;
    const uint64_t sourceMs = (time - pipeline.m_encodeBase) / GST_MSECOND;
    if (pipeline.m_encoded.isBehind(sourceMs)) {
        pipeline.m_encoded.goOn(sourceMs);
        gst_pad_send_event(pad, gst_video_event_new_downstream_force_key_unit(
                                    GST_CLOCK_TIME_NONE, GST_CLOCK_TIME_NONE, GST_CLOCK_TIME_NONE, TRUE, 0));
    }
    return GST_PAD_PROBE_OK;
}

/// The overlay draws a picture's text in the thread and call that hands it the picture, so the text set here
/// is the one this very picture shows.
GstPadProbeReturn MediaSource::Pipeline::onPictureToStamp(GstPad*, GstPadProbeInfo* info, gpointer self) {
    Pipeline& pipeline = *static_cast<Pipeline*>(self);
    const uint64_t sourceMs = GST_BUFFER_PTS(GST_PAD_PROBE_INFO_BUFFER(info)) / GST_MSECOND;
    if (pipeline.m_stamped.isBehind(sourceMs)) pipeline.m_stamped.goOn(sourceMs);
    std::string text = clockText(pipeline.m_stamped.wallMs(sourceMs));
    std::replace(text.begin(), text.end(), ' ', '\n');
    g_object_set(pipeline.m_stamp, "text", text.c_str(), nullptr);
    return GST_PAD_PROBE_OK;
}

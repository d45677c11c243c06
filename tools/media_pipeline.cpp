#include "tools/media_pipeline.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <gst/video/video.h>

#include "tools/recording_writer.h"

namespace {

constexpr double kUnknownRate = 30; ///< frames per second where a file doesn't say
constexpr double kBitsPerPixel = 0.1;
constexpr const char* kByteStream = "video/x-h264,stream-format=byte-stream,alignment=au";
/// A few pictures ahead at most: a recording of hours must not pile up in memory.
constexpr const char* kSink = "appsink name=out sync=false max-buffers=8";

struct PictureFormat {
    int width = 0;
    int height = 0;
    double framesPerSecond = 0;
};

PictureFormat formatOf(const GstStructure* structure) {
    PictureFormat format;
    int numerator = 0;
    int denominator = 0;
    gst_structure_get_int(structure, "width", &format.width);
    gst_structure_get_int(structure, "height", &format.height);
    if (gst_structure_get_fraction(structure, "framerate", &numerator, &denominator) && denominator > 0)
        format.framesPerSecond = static_cast<double>(numerator) / denominator;
    return format;
}

uint32_t usualGop(const EncoderSettings& encoder, double framesPerSecond) {
    return encoder.gop != 0 ? encoder.gop : static_cast<uint32_t>(std::max(1L, std::lround(framesPerSecond)));
}

uint32_t usualBitrate(const EncoderSettings& encoder, const PictureFormat& format) {
    if (encoder.bitrateKbit != 0) return encoder.bitrateKbit;
    const double bits = format.width * format.height * format.framesPerSecond * kBitsPerPixel;
    return bits > 0 ? std::max(64u, static_cast<uint32_t>(bits / 1000)) : 4000;
}

void link(GstPad* from, GstElement* to) {
    GstPad* sink = gst_element_get_static_pad(to, "sink");
    gst_pad_link(from, sink);
    gst_object_unref(sink);
}

} // namespace

MediaSource::Pipeline::Pipeline(std::string sourceName, const EncoderSettings& settings,
                                const std::atomic<bool>& stopFlag)
    : name(std::move(sourceName)), stop(stopFlag), encoder(settings) {
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
    const PictureFormat format{static_cast<int>(pattern.width), static_cast<int>(pattern.height),
                               pattern.framesPerSecond};
    info.gop = usualGop(encoder, pattern.framesPerSecond);
    info.bitrateKbit = usualBitrate(encoder, format);
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
    GstElement* encoderElement = gst_bin_get_by_name(GST_BIN(m_pipeline), "encoder");
    forceKeysAtBorders(encoderElement);
    gst_object_unref(encoderElement);
    start();
}

void MediaSource::Pipeline::openFile(const std::string& path) {
    std::error_code error;
    m_fileBytes = std::filesystem::file_size(path, error);
    if (error) m_fileBytes = 0; // as a pipe has none
    launch(std::string("filesrc name=file ! parsebin name=parse  h264parse name=last config-interval=-1 ! ") +
           kByteStream + " ! " + kSink);
    GstElement* file = gst_bin_get_by_name(GST_BIN(m_pipeline), "file");
    g_object_set(file, "location", path.c_str(), nullptr);
    gst_object_unref(file);
    GstElement* parser = gst_bin_get_by_name(GST_BIN(m_pipeline), "parse");
    g_signal_connect(parser, "pad-added", G_CALLBACK(onPad), this);
    g_signal_connect(parser, "no-more-pads", G_CALLBACK(onNoMorePads), this);
    gst_object_unref(parser);
    start();
}

/// Gives each elementary stream of a file its way: the first video to the recording, the rest to nowhere.
void MediaSource::Pipeline::onPad(GstElement*, GstPad* pad, gpointer self) {
    static_cast<Pipeline*>(self)->addBranch(pad);
}

void MediaSource::Pipeline::addBranch(GstPad* pad) {
    GstCaps* caps = gst_pad_get_current_caps(pad);
    if (!caps) caps = gst_pad_query_caps(pad, nullptr);
    const GstStructure* structure = gst_caps_get_structure(caps, 0);
    const std::string type = structure ? gst_structure_get_name(structure) : "";
    const bool wanted = type.rfind("video/", 0) == 0 || type.rfind("image/", 0) == 0;
    const bool first = wanted && !m_hasVideo.exchange(true);
    GstElement* branch = nullptr;
    if (first && type == "video/x-h264") {
        m_copied = true;
    } else if (first) {
        PictureFormat format = formatOf(structure);
        if (format.framesPerSecond <= 0) format.framesPerSecond = kUnknownRate;
        info.gop = usualGop(encoder, format.framesPerSecond);
        info.bitrateKbit = usualBitrate(encoder, format);
        const std::string text = "decodebin ! videoconvert ! video/x-raw,format=I420 ! " +
                                 encoderDescription(info.gop, info.bitrateKbit);
        branch = gst_parse_bin_from_description(text.c_str(), TRUE, nullptr);
        GstElement* encoderElement = gst_bin_get_by_name(GST_BIN(branch), "encoder");
        forceKeysAtBorders(encoderElement);
        gst_object_unref(encoderElement);
    } else {
        branch = gst_element_factory_make("fakesink", nullptr);
        g_object_set(branch, "sync", FALSE, "async", FALSE, nullptr);
    }
    gst_caps_unref(caps);

    GstElement* last = gst_bin_get_by_name(GST_BIN(m_pipeline), "last");
    if (branch) {
        gst_bin_add(GST_BIN(m_pipeline), branch);
        if (first) gst_element_link(branch, last);
        gst_element_sync_state_with_parent(branch);
    }
    link(pad, branch ? branch : last);
    gst_object_unref(last);
}

void MediaSource::Pipeline::onNoMorePads(GstElement* parser, gpointer self) {
    if (static_cast<Pipeline*>(self)->m_hasVideo) return;
    GST_ELEMENT_ERROR(parser, STREAM, WRONG_TYPE, ("it has no video stream"), (nullptr));
}

void MediaSource::Pipeline::forceKeysAtBorders(GstElement* encoderElement) {
    GstPad* pad = gst_element_get_static_pad(encoderElement, "sink");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, onPictureToEncode, this, nullptr);
    gst_object_unref(pad);
}

/// Before a picture that begins a segment the encoder is told to make it an I-picture.
GstPadProbeReturn MediaSource::Pipeline::onPictureToEncode(GstPad* pad, GstPadProbeInfo* info,
                                                           gpointer self) {
    Pipeline& pipeline = *static_cast<Pipeline*>(self);
    const GstClockTime time = GST_BUFFER_PTS(GST_PAD_PROBE_INFO_BUFFER(info));
    if (!GST_CLOCK_TIME_IS_VALID(time)) return GST_PAD_PROBE_OK;
    if (pipeline.m_encodeBase == GST_CLOCK_TIME_NONE) pipeline.m_encodeBase = time;
    if (time < pipeline.m_encodeBase) return GST_PAD_PROBE_OK;
    const uint64_t sourceMs = (time - pipeline.m_encodeBase) / GST_MSECOND;
    const uint64_t segment = pipeline.encoder.timeline.segment(sourceMs);
    if (segment != pipeline.m_encodeSegment) {
        pipeline.m_encodeSegment = segment;
        gst_pad_send_event(pad, gst_video_event_new_downstream_force_key_unit(
                                    GST_CLOCK_TIME_NONE, GST_CLOCK_TIME_NONE, GST_CLOCK_TIME_NONE, TRUE, 0));
    }
    return GST_PAD_PROBE_OK;
}

/// The overlay draws a picture's text in the thread and call that hands it the picture, so the text set here
/// is the one this very picture shows.
GstPadProbeReturn MediaSource::Pipeline::onPictureToStamp(GstPad*, GstPadProbeInfo* info, gpointer self) {
    const Pipeline& pipeline = *static_cast<Pipeline*>(self);
    const uint64_t sourceMs = GST_BUFFER_PTS(GST_PAD_PROBE_INFO_BUFFER(info)) / GST_MSECOND;
    const Timeline& timeline = pipeline.encoder.timeline;
    std::string text = clockText(timeline.wallMs(sourceMs, timeline.segment(sourceMs)));
    text.replace(text.find(' '), 1, "\n");
    g_object_set(pipeline.m_stamp, "text", text.c_str(), nullptr);
    return GST_PAD_PROBE_OK;
}

#include "tools/record/media_pipeline.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <gst/video/video.h>

#include "stream/records.h"
#include "tools/common/clock_text.h"
#include "tools/recording/recording_error.h"

namespace {

constexpr double kUnknownRate = 30; ///< frames per second where a source doesn't say
constexpr double kBitsPerPixel = 0.1;
constexpr uint64_t kUsualBufferMs = 600;

/// Parameter sets with every I-picture, whatever the source does.
constexpr const char* kParsed = "h264parse config-interval=-1 ! "
                                "video/x-h264,stream-format=byte-stream,alignment=au ! ";
/// A few pictures ahead at most: a recording of hours must not pile up in memory.
constexpr const char* kSink = "appsink name=out sync=false max-buffers=8";

/// No B-frames, so that pictures are decoded in the order they are shown; nothing held back; and I-pictures
/// only where they are asked for.
constexpr const char* kEncoder = "x264enc name=encoder tune=zerolatency speed-preset=superfast bframes=0"
                                 " option-string=scenecut=0:open-gop=0:keyint=infinite ! ";
/// Whole pictures of a colour format and size that every decoder takes.
constexpr const char* kToEncode = "decodebin ! deinterlace fields=top ! videoconvert ! videoscale ! "
                                  "video/x-raw,format=I420,width=[16,8192,2],height=[16,8192,2] ! "
                                  "queue max-size-buffers=4 ! ";

double rateOf(const GstStructure* caps) {
    int numerator = 0;
    int denominator = 1;
    gst_structure_get_fraction(caps, "framerate", &numerator, &denominator);
    return numerator > 0 && denominator > 0 ? static_cast<double>(numerator) / denominator : 0;
}

} // namespace

MediaSource::Pipeline::Pipeline(std::string sourceName, const SourceSettings& wanted,
                                const std::atomic<bool>& stopFlag)
    : name(std::move(sourceName)), stop(stopFlag), settings(wanted), m_encoded(wanted.timeline),
      m_stamped(wanted.timeline) {
    GError* error = nullptr;
    if (gst_init_check(nullptr, nullptr, &error)) return;
    const std::string reason = error ? error->message : "unknown reason";
    g_clear_error(&error);
    fail("GStreamer does not start (" + reason + ")");
}

MediaSource::Pipeline::~Pipeline() {
    if (!m_pipeline) return;
    gst_element_set_state(m_pipeline, GST_STATE_NULL); // no callback runs from here on
    if (m_first) gst_sample_unref(m_first);
    for (gpointer element : {gpointer(m_sink), gpointer(m_encoder), gpointer(m_stamp)})
        if (element) gst_object_unref(element);
    gst_object_unref(m_pipeline);
}

void MediaSource::Pipeline::launch(const std::string& description) {
    GError* error = nullptr;
    m_pipeline = gst_parse_launch((description + kParsed + kSink).c_str(), &error);
    if (error) {
        const std::string reason = error->message;
        g_clear_error(&error);
        failUnclear(reason);
    }
    m_sink = GST_APP_SINK(gst_bin_get_by_name(GST_BIN(m_pipeline), "out"));
    m_encoder = gst_bin_get_by_name(GST_BIN(m_pipeline), "encoder");
    m_stamp = gst_bin_get_by_name(GST_BIN(m_pipeline), "stamp");
}

void MediaSource::Pipeline::launchEncoder(const std::string& source) {
    launch(source + kEncoder);
    GstPad* pad = gst_element_get_static_pad(m_encoder, "sink");
    const int what = GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM;
    gst_pad_add_probe(pad, static_cast<GstPadProbeType>(what), onEncoderInput, this, nullptr);
    gst_object_unref(pad);
}

void MediaSource::Pipeline::readFrom(const std::string& path) {
    GstElement* reader = gst_bin_get_by_name(GST_BIN(m_pipeline), "file");
    g_object_set(reader, "location", path.c_str(), nullptr);
    gst_object_unref(reader);
}

/// The first picture tells what `info` still lacks.
void MediaSource::Pipeline::start() {
    if (gst_element_set_state(m_pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        throwIfFailed();
        failUnclear("its pipeline does not start");
    }
    m_first = pull();
    if (!m_first) return;
    const GstStructure* caps = gst_caps_get_structure(gst_sample_get_caps(m_first), 0);
    int width = 0;
    int height = 0;
    gst_structure_get_int(caps, "width", &width);
    gst_structure_get_int(caps, "height", &height);
    info.width = static_cast<uint32_t>(width);
    info.height = static_cast<uint32_t>(height);
    if (info.framesPerSecond <= 0) info.framesPerSecond = rateOf(caps);
    if (!m_encoder) return;
    info.gop = m_gop;
    info.bitrateKbit = m_bitrateKbit;
}

void MediaSource::Pipeline::openTestPattern(const TestPattern& pattern) {
    int numerator = 0;
    int denominator = 1;
    gst_util_double_to_fraction(pattern.framesPerSecond, &numerator, &denominator);
    info.framesPerSecond = pattern.framesPerSecond;
    info.durationMs = settings.durationMs;
    const auto pictures =
        static_cast<int>(std::ceil(static_cast<double>(info.durationMs) * pattern.framesPerSecond / 1000));
    launchEncoder(
        "videotestsrc pattern=smpte75 horizontal-speed=4 num-buffers=" +
        std::to_string(info.durationMs == 0 ? -1 : pictures) + " ! video/x-raw,format=I420,width=" +
        std::to_string(pattern.width) + ",height=" + std::to_string(pattern.height) +
        ",framerate=" + std::to_string(numerator) + "/" + std::to_string(denominator) +
        " ! textoverlay name=stamp font-desc=\"Monospace Bold 36\" valignment=center"
        " halignment=center shaded-background=true shading-value=160 ! queue max-size-buffers=4 ! ");
    GstPad* pad = gst_element_get_static_pad(m_stamp, "video_sink");
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, onPictureToStamp, this, nullptr);
    gst_object_unref(pad);
    start();
}

// Audio and whatever else a file holds finds nobody to take it, and is dropped.

void MediaSource::Pipeline::openToCopy(const std::string& path) {
    info.copied = true;
    std::error_code error;
    const auto bytes = std::filesystem::file_size(path, error);
    if (!error && info.durationMs > 0) info.bitrateKbit = static_cast<uint32_t>(bytes * 8 / info.durationMs);
    launch("filesrc name=file ! parsebin ! video/x-h264 ! ");
    readFrom(path);
    start();
}

void MediaSource::Pipeline::openToEncode(const std::string& path) {
    launchEncoder(std::string("filesrc name=file ! ") + kToEncode);
    readFrom(path);
    start();
}

void MediaSource::Pipeline::openPipe() {
    launchEncoder(std::string("fdsrc fd=0 ! ") + kToEncode);
    start();
}

/// The encoder is set up for what comes: a pipe tells its picture size only now. Its rate control keeps an
/// I-picture below what playback takes.
void MediaSource::Pipeline::onCaps(const GstStructure* caps) {
    int width = 0;
    int height = 0;
    gst_structure_get_int(caps, "width", &width);
    gst_structure_get_int(caps, "height", &height);
    const double rate = rateOf(caps) > 0 ? rateOf(caps) : kUnknownRate;
    const auto second = static_cast<uint32_t>(std::clamp(std::lround(rate), 1L, long{kMaxGops}));
    const uint32_t gop = settings.gop != 0 ? settings.gop : second;
    const auto usual = static_cast<uint32_t>(width * height * rate * kBitsPerPixel / 1000);
    const uint32_t bitrate = settings.bitrateKbit != 0 ? settings.bitrateKbit : std::max(64u, usual);
    const uint64_t bufferMs = std::min(kUsualBufferMs, kMaxPictureBytes * uint64_t{8} * 3 / 4 / bitrate);
    g_object_set(m_encoder, "bitrate", bitrate, "vbv-buf-capacity", static_cast<guint>(bufferMs), nullptr);
    if (m_gop != 0) return; // the size changes on the way: `info` may be in use
    m_gop = gop;
    m_bitrateKbit = bitrate;
}

/// How long a stream that begins here will be at most; 0 = unknown. A file may end before it says.
uint64_t MediaSource::Pipeline::spanFrom(uint64_t sourceMs) const {
    if (!m_stamp) return 0;
    const uint64_t leftMs = info.durationMs == 0 ? 0 : info.durationMs - sourceMs;
    const uint64_t splitMs = settings.timeline.splitMs;
    return leftMs == 0 || (splitMs != 0 && splitMs < leftMs) ? splitMs : leftMs;
}

/// Whether the encoder is to be told to make the picture an I-picture: where a GOP or a stream begins. No
/// session opens on a stream of a single I-picture, so one that may end within its first GOP gets a second
/// early: half way to the end where that is known, else at once. An endless pattern needs none: its end waits
/// for the second.
bool MediaSource::Pipeline::wantsIPicture(uint64_t sourceMs) {
    const bool border = m_encoded.isBehind(sourceMs);
    bool wanted = border || m_gopSoFar >= m_gop;
    if (border || sourceMs == 0) {
        if (border) m_encoded.goOn(sourceMs);
        const uint64_t spanMs = spanFrom(sourceMs);
        const bool within = static_cast<double>(spanMs) * info.framesPerSecond <= m_gop * 1000.0;
        m_secondDue = m_stamp ? spanMs != 0 && within : true;
        m_secondMs = sourceMs + spanMs / 2;
    } else if (m_secondDue && sourceMs >= m_secondMs) {
        m_secondDue = false;
        wanted = true;
    }
    m_gopSoFar = wanted ? 1 : m_gopSoFar + 1;
    return wanted;
}

GstPadProbeReturn MediaSource::Pipeline::onEncoderInput(GstPad* pad, GstPadProbeInfo* probe, gpointer self) {
    Pipeline& pipeline = *static_cast<Pipeline*>(self);
    if (GST_PAD_PROBE_INFO_TYPE(probe) & GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM) {
        GstEvent* event = GST_PAD_PROBE_INFO_EVENT(probe);
        if (GST_EVENT_TYPE(event) != GST_EVENT_CAPS) return GST_PAD_PROBE_OK;
        GstCaps* caps = nullptr;
        gst_event_parse_caps(event, &caps);
        pipeline.onCaps(gst_caps_get_structure(caps, 0));
        return GST_PAD_PROBE_OK;
    }
    const GstClockTime time = GST_BUFFER_PTS(GST_PAD_PROBE_INFO_BUFFER(probe));
    if (!GST_CLOCK_TIME_IS_VALID(time)) return GST_PAD_PROBE_OK;
    if (pipeline.m_encodeBase == GST_CLOCK_TIME_NONE) pipeline.m_encodeBase = time;
    if (time < pipeline.m_encodeBase) return GST_PAD_PROBE_OK;
    if (pipeline.wantsIPicture((time - pipeline.m_encodeBase) / GST_MSECOND))
        gst_pad_send_event(pad, gst_video_event_new_downstream_force_key_unit(
                                    GST_CLOCK_TIME_NONE, GST_CLOCK_TIME_NONE, GST_CLOCK_TIME_NONE, TRUE, 0));
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

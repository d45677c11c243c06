#include "tools/media_source.h"

#include <algorithm>
#include <unistd.h>

#include "tools/media_pipeline.h"
#include "tools/recording_writer.h"

namespace {

/// How soon a stop or an error of the pipeline is noticed.
constexpr GstClockTime kPollTime = 50 * GST_MSECOND;

struct Unref {
    void operator()(GstSample* sample) const { gst_sample_unref(sample); }
    void operator()(GstMessage* message) const { gst_message_unref(message); }
    void operator()(GstBus* bus) const { gst_object_unref(bus); }
    void operator()(GError* error) const { g_error_free(error); }
};
template <class Type> using Owned = std::unique_ptr<Type, Unref>;

} // namespace

std::unique_ptr<MediaSource> MediaSource::file(const std::string& path, const EncoderSettings& encoder,
                                               const std::atomic<bool>& stop) {
    if (access(path.c_str(), R_OK) == -1)
        throw RecordingError("cannot read the video file " + path + "; check its name and permissions");
    auto pipeline = std::make_unique<Pipeline>("the video file " + path, encoder, stop);
    pipeline->openFile(path);
    return std::unique_ptr<MediaSource>(new MediaSource(std::move(pipeline)));
}

std::unique_ptr<MediaSource> MediaSource::testPattern(const TestPattern& pattern,
                                                      const EncoderSettings& encoder,
                                                      const std::atomic<bool>& stop) {
    auto pipeline = std::make_unique<Pipeline>("the test pattern", encoder, stop);
    pipeline->openTestPattern(pattern);
    return std::unique_ptr<MediaSource>(new MediaSource(std::move(pipeline)));
}

MediaSource::MediaSource(std::unique_ptr<Pipeline> pipeline) : m_pipeline(std::move(pipeline)) {}

MediaSource::~MediaSource() = default;

std::optional<MediaPicture> MediaSource::next() {
    return m_pipeline->next();
}

const MediaInfo& MediaSource::info() const {
    return m_pipeline->info;
}

std::optional<MediaPicture> MediaSource::Pipeline::next() {
    const Owned<GstSample> sample(pull());
    if (!sample) return std::nullopt;
    if (m_first) learnInfo(sample.get());
    m_first = false;
    return toPicture(sample.get());
}

/// Waits for a sample, the end, a failure or the stop, whichever comes first.
GstSample* MediaSource::Pipeline::pull() {
    while (!stop) {
        GstSample* sample = gst_app_sink_try_pull_sample(m_sink, kPollTime);
        if (sample) return sample;
        throwIfFailed(); // before the end is looked at: a failing pipeline ends too
        if (gst_app_sink_is_eos(m_sink)) {
            if (m_first) fail("it has no pictures");
            return nullptr;
        }
    }
    return nullptr;
}

MediaPicture MediaSource::Pipeline::toPicture(GstSample* sample) {
    GstBuffer* buffer = gst_sample_get_buffer(sample);
    GstClockTime time = GST_BUFFER_DTS_OR_PTS(buffer);
    if (!GST_CLOCK_TIME_IS_VALID(time)) { // as a raw byte stream: its frame rate, if any, gives the time
        const double rate = info.framesPerSecond > 0 ? info.framesPerSecond : 30;
        time = m_lastTime + (m_pullBase == GST_CLOCK_TIME_NONE ? 0 : static_cast<GstClockTime>(1e9 / rate));
    }
    if (m_pullBase == GST_CLOCK_TIME_NONE) m_pullBase = m_lastTime = time;
    m_lastTime = std::max(m_lastTime, time); // the recorder's scale never runs backwards

    MediaPicture picture;
    picture.sourceMs = (m_lastTime - m_pullBase) / GST_MSECOND;
    GstMapInfo map;
    if (!gst_buffer_map(buffer, &map, GST_MAP_READ)) fail("a picture cannot be mapped");
    picture.accessUnit.assign(reinterpret_cast<const char*>(map.data), map.size);
    gst_buffer_unmap(buffer, &map);
    return picture;
}

void MediaSource::Pipeline::learnInfo(GstSample* sample) {
    info.copied = m_copied;
    gint64 duration = 0;
    if (gst_element_query_duration(m_pipeline, GST_FORMAT_TIME, &duration) && duration > 0)
        info.durationMs = static_cast<uint64_t>(duration) / GST_MSECOND;
    if (info.copied && info.durationMs > 0)
        info.bitrateKbit = static_cast<uint32_t>(m_fileBytes * 8 / info.durationMs);
    const GstCaps* caps = gst_sample_get_caps(sample);
    if (!caps || gst_caps_is_empty(caps)) return;
    const GstStructure* format = gst_caps_get_structure(caps, 0);
    int width = 0;
    int height = 0;
    int numerator = 0;
    int denominator = 0;
    if (gst_structure_get_int(format, "width", &width)) info.width = static_cast<uint32_t>(width);
    if (gst_structure_get_int(format, "height", &height)) info.height = static_cast<uint32_t>(height);
    if (gst_structure_get_fraction(format, "framerate", &numerator, &denominator) && denominator > 0)
        info.framesPerSecond = static_cast<double>(numerator) / denominator;
}

void MediaSource::Pipeline::throwIfFailed() {
    const Owned<GstBus> bus(gst_element_get_bus(m_pipeline));
    const Owned<GstMessage> message(gst_bus_pop_filtered(bus.get(), GST_MESSAGE_ERROR));
    if (!message) return;
    GError* error = nullptr;
    gst_message_parse_error(message.get(), &error, nullptr);
    const Owned<GError> owner(error);
    std::string reason = error ? error->message : "unknown reason";
    while (!reason.empty() && (reason.back() == '.' || reason.back() == '\n')) reason.pop_back();
    fail(reason);
}

void MediaSource::Pipeline::fail(const std::string& reason) const {
    throw RecordingError("cannot record " + name + ": " + reason +
                         "; check that it is a video and that the GStreamer plugins for it are installed");
}

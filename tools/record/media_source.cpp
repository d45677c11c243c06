#include "tools/record/media_source.h"

#include <algorithm>
#include <unistd.h>

#include "tools/record/media_pipeline.h"
#include "tools/recording/recording_error.h"

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
    return toPicture(sample.get());
}

/// Waits for a sample, the end, a failure or the stop, whichever comes first.
GstSample* MediaSource::Pipeline::pull() {
    while (!stop) {
        GstSample* sample = gst_app_sink_try_pull_sample(m_sink, kPollTime);
        if (sample) return sample;
        throwIfFailed(); // before the end is looked at: a failing pipeline ends too
        if (gst_app_sink_is_eos(m_sink)) {
            if (m_pullBase == GST_CLOCK_TIME_NONE) fail("it has no pictures");
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

void MediaSource::Pipeline::throwIfFailed() {
    const Owned<GstBus> bus(gst_element_get_bus(m_pipeline));
    const Owned<GstMessage> message(gst_bus_pop_filtered(bus.get(), GST_MESSAGE_ERROR));
    if (!message) return;
    GError* error = nullptr;
    gst_message_parse_error(message.get(), &error, nullptr);
    const Owned<GError> owner(error);
    fail(error ? error->message : "unknown reason");
}

void MediaSource::Pipeline::fail(std::string reason) const {
    while (!reason.empty() && reason.back() == '.') reason.pop_back();
    throw RecordingError("cannot record " + name + ": " + reason +
                         "; check that it is a video and that the GStreamer plugins for it are installed");
}

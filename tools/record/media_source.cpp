#include "tools/record/media_source.h"

#include <algorithm>
#include <utility>

#include "tools/record/copy_check.h"
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

std::unique_ptr<MediaSource> MediaSource::file(const std::string& path, const std::string& name,
                                               const SourceSettings& settings,
                                               const std::atomic<bool>& stop) {
    auto pipeline = std::make_unique<Pipeline>(name, settings, stop);
    MediaInfo& info = pipeline->info;
    info.notCopied = pipeline->discover(path);
    if (info.notCopied.empty()) {
        Pipeline look(name, settings, stop);
        look.openToCopy(path);
        info.notCopied = look.lookThrough();
        info.gop = look.info.gop;
    }
    info.notCopied.empty() ? pipeline->openToCopy(path) : pipeline->openToEncode(path);
    return std::unique_ptr<MediaSource>(new MediaSource(std::move(pipeline)));
}

std::unique_ptr<MediaSource> MediaSource::pipe(const SourceSettings& settings,
                                               const std::atomic<bool>& stop) {
    auto pipeline = std::make_unique<Pipeline>("standard input", settings, stop);
    pipeline->info.notCopied = "what a pipe holds is not known beforehand";
    pipeline->openPipe();
    return std::unique_ptr<MediaSource>(new MediaSource(std::move(pipeline)));
}

std::unique_ptr<MediaSource> MediaSource::testPattern(const TestPattern& pattern,
                                                      const SourceSettings& settings,
                                                      const std::atomic<bool>& stop) {
    auto pipeline = std::make_unique<Pipeline>("the test pattern", settings, stop);
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
    const Owned<GstSample> sample(m_first ? std::exchange(m_first, nullptr) : pull());
    if (!sample) return std::nullopt;
    return toPicture(sample.get());
}

std::string MediaSource::Pipeline::lookThrough() {
    CopyCheck check;
    try {
        for (auto picture = next(); picture; picture = next()) {
            const bool behind = settings.durationMs != 0 && picture->sourceMs >= settings.durationMs;
            if (behind || !check.look(*picture)) break;
        }
    } catch (const RecordingError&) { // recording will meet it again, and keep what comes before
        if (check.gop() == 0) throw;
    }
    info.gop = check.gop();
    return check.reason();
}

/// Waits for a sample, the end, a failure or the stop, whichever comes first.
GstSample* MediaSource::Pipeline::pull() {
    while (!stop) {
        GstSample* sample = gst_app_sink_try_pull_sample(m_sink, kPollTime);
        m_any |= sample != nullptr;
        if (sample) return sample;
        throwIfFailed(); // before the end is looked at: a failing pipeline ends too
        if (gst_app_sink_is_eos(m_sink)) {
            if (!m_any) fail("it has no pictures");
            return nullptr;
        }
    }
    return nullptr;
}

MediaPicture MediaSource::Pipeline::toPicture(GstSample* sample) {
    GstBuffer* buffer = gst_sample_get_buffer(sample);
    GstClockTime time = GST_BUFFER_PTS_IS_VALID(buffer) ? GST_BUFFER_PTS(buffer) : GST_BUFFER_DTS(buffer);
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
    failUnclear(error ? error->message : "unknown reason");
}

void MediaSource::Pipeline::fail(const std::string& reason) const {
    throw RecordingError("cannot record " + name + ": " + reason);
}

void MediaSource::Pipeline::failUnclear(std::string reason) const {
    while (!reason.empty() && reason.back() == '.') reason.pop_back();
    fail(reason + "; check that it is a video and that the GStreamer plugins for it are installed");
}

// rtsp-pictures: what a stock player shows of an RTSP server's recording, fast and backward. The player is
// GStreamer's ONVIF client, which seeks by clock time; it decodes, and keeps to the times of the pictures.
#include <CLI/CLI.hpp>
#include <fstream>
#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <memory>

#include "tools/common/clock_text.h"
#include "tools/common/command_line.h"
#include "tools/common/formatted.h"

namespace {

constexpr uint64_t kFrom1900To1970 = 2208988800; ///< seconds; this client's time zero is NTP's
constexpr GstClockTime kLongestWait = 10 * GST_SECOND;

struct Order {
    std::string url, from, output;
    double scale = 1;
    int count = 4;
};

struct PipelineEnd {
    void operator()(GstElement* pipeline) const {
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(pipeline);
    }
};
struct ObjectEnd {
    void operator()(void* object) const { gst_object_unref(object); }
};
struct SampleEnd {
    void operator()(GstSample* sample) const { gst_sample_unref(sample); }
};
using Sample = std::unique_ptr<GstSample, SampleEnd>;

Sample next(GstAppSink* sink) {
    Sample sample(gst_app_sink_try_pull_sample(sink, kLongestWait));
    if (!sample) throw Failure(kFailed, "the player shows no picture");
    return sample;
}

void write(const std::string& file, GstBuffer* png) {
    GstMapInfo bytes;
    if (!gst_buffer_map(png, &bytes, GST_MAP_READ)) throw Failure(kFailed, "a picture cannot be read");
    std::ofstream out(file, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data), static_cast<std::streamsize>(bytes.size));
    gst_buffer_unmap(png, &bytes);
    if (!out.flush()) throw Failure(kFailed, "cannot write " + file);
}

/// From there on; backward, to there.
bool seek(GstElement* pipeline, double scale, uint64_t fromMs) {
    const auto from = static_cast<gint64>((kFrom1900To1970 * 1000 + fromMs) * GST_MSECOND);
    const auto flags = static_cast<GstSeekFlags>(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_TRICKMODE);
    const bool forward = scale > 0;
    return gst_element_seek(pipeline, scale, GST_FORMAT_TIME, flags, GST_SEEK_TYPE_SET, forward ? from : 0,
                            forward ? GST_SEEK_TYPE_NONE : GST_SEEK_TYPE_SET, forward ? -1 : from);
}

int play(const Order& order) {
    const auto fromMs = parseClock(order.from);
    if (!fromMs) throw Failure(kUsage, "no clock time: " + order.from);
    gst_init(nullptr, nullptr);
    const std::unique_ptr<GstElement, PipelineEnd> pipeline(gst_parse_launch(
        // Over TCP this client discards the first picture of each ONVIF play, whose packets it gives no time.
        ("rtspsrc onvif-mode=true protocols=udp latency=200 location=" + order.url +
         " ! rtph264depay ! h264parse ! avdec_h264 ! videoconvert ! videoscale"
         " ! video/x-raw,width=480,height=270,format=RGB ! pngenc compression-level=1 ! appsink name=out")
            .c_str(),
        nullptr));
    if (!pipeline) throw Failure(kFailed, "GStreamer lacks a plugin");
    const std::unique_ptr<GstAppSink, ObjectEnd> sink(
        GST_APP_SINK(gst_bin_get_by_name(GST_BIN(pipeline.get()), "out")));
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    next(sink.get()); // it plays, and so can seek
    if (!seek(pipeline.get(), order.scale, *fromMs)) throw Failure(kFailed, "the player does not seek");
    for (int n = 0; n < order.count; ++n)
        write(order.output + formatted("-%05d.png", n), gst_sample_get_buffer(next(sink.get()).get()));
    return kDone;
}

} // namespace

int main(int argc, char** argv) {
    Order order;
    CLI::App app("Keeps as PNG files what a stock player shows of an RTSP server's recording.",
                 "rtsp-pictures");
    app.add_option("url", order.url, "URL that has the recording in clock times")->required();
    app.add_option("--from", order.from, "Clock time to play from")->required();
    app.add_option("--scale", order.scale, "2 is twice as fast, -1 is backward (1)");
    app.add_option("--count", order.count, "Pictures to keep (4)");
    app.add_option("--output", order.output, "PREFIX of PREFIX-00000.png and so on")->required();
    return runTool(app, argc, argv, [&] { return play(order); });
}

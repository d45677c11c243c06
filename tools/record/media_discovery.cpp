// What a file says of itself, before a pipeline is set up for it.
#include <filesystem>
#include <gst/pbutils/pbutils.h>

#include "tools/record/media_pipeline.h"

namespace {

constexpr GstClockTime kDiscoverTime = 20 * GST_SECOND;

struct Drop {
    void operator()(gpointer object) const { g_object_unref(object); }
    void operator()(GstCaps* caps) const { gst_caps_unref(caps); }
};

/// Why a video of this kind is not copied; empty when it may be.
std::string notCopied(GstCaps* caps, bool interlaced) {
    const GstStructure* facts = gst_caps_get_structure(caps, 0);
    if (!gst_structure_has_name(facts, "video/x-h264")) {
        gchar* codec = gst_pb_utils_get_codec_description(caps);
        const std::string reason = std::string("it is ") + (codec ? codec : "not H.264");
        g_free(codec);
        return reason;
    }
    const gchar* chroma = gst_structure_get_string(facts, "chroma-format");
    if (chroma && std::string(chroma) != "4:2:0") return std::string("its colour format is ") + chroma;
    guint depth = 8;
    gst_structure_get_uint(facts, "bit-depth-luma", &depth);
    if (depth != 8) return "its pictures have " + std::to_string(depth) + " bits per sample";
    return interlaced ? "it is interlaced" : "";
}

} // namespace

std::string MediaSource::Pipeline::discover(const std::string& path) {
    std::error_code unknown;
    if (std::filesystem::is_directory(path, unknown)) fail("it is a directory");
    if (std::filesystem::is_regular_file(path, unknown) && std::filesystem::is_empty(path, unknown))
        fail("it is empty");
    GError* error = nullptr;
    gchar* uri = gst_filename_to_uri(path.c_str(), nullptr);
    const std::unique_ptr<GstDiscoverer, Drop> discoverer(gst_discoverer_new(kDiscoverTime, nullptr));
    if (!discoverer) fail("GStreamer's base plugins are missing");
    const std::unique_ptr<GstDiscovererInfo, Drop> found(
        gst_discoverer_discover_uri(discoverer.get(), uri, &error));
    g_free(uri);
    const std::string reason = error ? error->message : "it takes too long to look at";
    g_clear_error(&error);
    if (!found || gst_discoverer_info_get_result(found.get()) != GST_DISCOVERER_OK) failUnclear(reason);

    GList* videos = gst_discoverer_info_get_video_streams(found.get());
    if (!videos) fail("it has no video stream");
    const auto* video = static_cast<GstDiscovererVideoInfo*>(videos->data);
    if (gst_discoverer_video_info_get_framerate_num(video) > 0)
        info.framesPerSecond = static_cast<double>(gst_discoverer_video_info_get_framerate_num(video)) /
                               gst_discoverer_video_info_get_framerate_denom(video);
    info.durationMs = gst_discoverer_info_get_duration(found.get()) / GST_MSECOND;
    const std::unique_ptr<GstCaps, Drop> caps(
        gst_discoverer_stream_info_get_caps(static_cast<GstDiscovererStreamInfo*>(videos->data)));
    const bool interlaced = gst_discoverer_video_info_is_interlaced(video) != FALSE;
    gst_discoverer_stream_info_list_free(videos);
    return notCopied(caps.get(), interlaced);
}

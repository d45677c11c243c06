// What the RTSP server is measured against: GStreamer's own, with an MP4 file at
// rtsp://127.0.0.1:PORT/playback.
//   file_server PORT FILE
#include <cstdio>
#include <gst/rtsp-server/rtsp-server.h>
#include <string>

int main(int argc, char** argv) {
    gst_init(&argc, &argv);
    if (argc != 3) {
        std::fprintf(stderr, "usage: file_server PORT FILE\n");
        return 2;
    }
    GstRTSPServer* const server = gst_rtsp_server_new();
    gst_rtsp_server_set_address(server, "127.0.0.1");
    gst_rtsp_server_set_service(server, argv[1]);
    GstRTSPMediaFactory* const factory = gst_rtsp_media_factory_new();
    const std::string pipeline = "( filesrc location=" + std::string(argv[2]) +
                                 " ! qtdemux ! h264parse ! rtph264pay name=pay0 pt=96 )";
    gst_rtsp_media_factory_set_launch(factory, pipeline.c_str());
    GstRTSPMountPoints* const mounts = gst_rtsp_server_get_mount_points(server);
    gst_rtsp_mount_points_add_factory(mounts, "/playback", factory);
    if (gst_rtsp_server_attach(server, nullptr) == 0) return 1;
    std::printf("rtsp://127.0.0.1:%d/playback\n", gst_rtsp_server_get_bound_port(server));
    std::fflush(stdout);
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}

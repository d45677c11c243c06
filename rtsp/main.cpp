// tavirn-rtsp: the recording for any RTSP client, through the daemon.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <glib-unix.h>
#include <malloc.h>
#include <sys/resource.h>
#include <syslog.h>
#include <unistd.h>

#include "rtsp/loop_turn.h"
#include "rtsp/rtsp_server.h"
#include "tools/common/command_line.h"

namespace {

struct Options {
    std::string bind = "127.0.0.1", path = "playback", credentials, certificate, key;
    uint16_t port = 8554;
    bool foreground = false;
    bool open = false;
};

constexpr char kNotes[] =
    "Serves rtsp://HOST:PORT/playback, with times from 0 on, /onvif, with clock times, and /live,\n"
    "from the newest picture on; one client at a time, as the daemon has one session. Exit codes:\n"
    "0 ended by a signal, 1 cannot serve, 2 wrong usage.";

void declare(CLI::App& app, Options& options) {
    app.footer(kNotes);
    app.add_option("--port", options.port, "Port to listen on; 0 takes a free one and prints it (8554)");
    app.add_option("--bind", options.bind, "Address to listen on (127.0.0.1); any other needs --credentials");
    app.add_option("--path", options.path, "Path of the first URL (playback)");
    app.add_option(
        "--credentials", options.credentials,
        "File of user:password lines, readable by its owner alone; who is not among them is refused");
    app.add_flag("--no-credentials", options.open, "Serve everybody who reaches the address");
    auto* certificate =
        app.add_option("--tls-certificate", options.certificate, "PEM file: serve rtsps:// alone");
    auto* key = app.add_option("--tls-key", options.key, "PEM file with the certificate's key");
    certificate->needs(key);
    key->needs(certificate);
    app.add_flag("--foreground", options.foreground, "Do not detach");
}

bool isLoopback(const std::string& address) {
    const ObjectPtr<GInetAddress> parsed(g_inet_address_new_from_string(address.c_str()));
    if (!parsed) throw Failure(kUsage, "'" + address + "' is no address");
    return g_inet_address_get_is_loopback(parsed.get()) != 0;
}

ServerOptions checked(const Options& options) {
    if (!isLoopback(options.bind) && options.credentials.empty() && !options.open)
        throw Failure(kUsage, "anybody could watch on " + options.bind +
                                  ": give --credentials, or --no-credentials if that is meant");
    ServerOptions result{.bind = options.bind, .port = options.port, .path = options.path};
    if (!options.credentials.empty()) result.credentials = Credentials::fromFile(options.credentials);
    if (options.certificate.empty()) return result;
    GError* error = nullptr;
    result.certificate.reset(
        g_tls_certificate_new_from_files(options.certificate.c_str(), options.key.c_str(), &error));
    if (!result.certificate)
        throw Failure(kFailed, "cannot use the certificate in " + options.certificate + ": " + taken(error));
    return result;
}

/// Each connection is a descriptor, and the usual limit is a low one.
void allowDescriptors() {
    constexpr rlim_t kWanted = 4096;
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= kWanted) return;
    limit.rlim_cur = std::min(kWanted, limit.rlim_max);
    setrlimit(RLIMIT_NOFILE, &limit);
}

int serve(const Options& options) {
    allowDescriptors();
    mallopt(M_ARENA_MAX, 1);           // its threads take turns, and a heap for each is so much more memory
    setlogmask(LOG_UPTO(LOG_WARNING)); // the parts that read the recording log each step
    std::signal(SIGPIPE, SIG_IGN);
    const RtspServer server(checked(options)); // which has no thread before the first request
    std::printf("rtsp%s://%s:%u/%s\n", options.certificate.empty() ? "" : "s", options.bind.c_str(),
                unsigned{server.port()}, options.path.c_str());
    std::fflush(stdout);
    if (!options.foreground && daemon(1, 0) != 0) throw Failure(kFailed, "cannot detach");
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    const GSourceFunc stop = [](gpointer data) -> gboolean {
        g_main_loop_quit(static_cast<GMainLoop*>(data));
        return G_SOURCE_CONTINUE;
    };
    g_unix_signal_add(SIGINT, stop, loop);
    g_unix_signal_add(SIGTERM, stop, loop);
    {
        const LoopTurn turn;
        LoopTurn::run(loop);
    }
    g_main_loop_unref(loop);
    return kDone;
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app("Serves the recording to RTSP clients, through the playback daemon.", "tavirn-rtsp");
    declare(app, options);
    return runTool(app, argc, argv, [&] { return serve(options); });
}

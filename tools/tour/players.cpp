#include "tools/tour/players.h"

#include <fstream>

#include "tools/common/command_line.h"
#include "tools/common/formatted.h"
#include "tools/tour/transcript.h"

namespace {

using std::chrono::seconds;

constexpr seconds kComesUp{20};
constexpr seconds kPlays{60};

/// The alarm at 30 s by the clock: with the gap of five seconds before its stream, eleven seconds earlier is
/// six seconds of pictures.
constexpr int kFrom = 19;
constexpr int kSeconds = 10;

struct Play {
    const char* scale;
    const char* from;
};
constexpr Play kPlaysOfGStreamer[] = {{"4", "2024-01-02 03:04:07"}, {"-1", "2024-01-02 03:04:35"}};
constexpr int kPictures = 4;

/// The first line that the server prints.
std::string urlOf(const std::string& log) {
    std::string said;
    waitUntil(kComesUp, [&] {
        std::ifstream file(log);
        return std::getline(file, said) && !file.eof(); // the whole line
    });
    if (!said.starts_with("rtsp://")) throw Failure(kFailed, "tavirn-rtsp does not serve: " + said);
    return said;
}

void fetchAlarm(const std::string& url, const std::string& directory, std::ostream& captions) {
    const std::string from = std::to_string(kFrom), length = std::to_string(kSeconds);
    // This client warns of the first picture's time after every seek, whatever the server.
    Child({"ffmpeg", "-nostdin", "-loglevel", "error", "-rtsp_transport", "tcp", "-ss", from, "-i", url, "-t",
           length, "-c", "copy", directory + "alarm.mp4"},
          "")
        .finish(kPlays);
    captions << "alarm 0 ffmpeg -ss " << from << ": the first\n"
             << "alarm 180 ffmpeg: the alarm\n"
             << "alarm 299 ffmpeg: the last of ten seconds\n";
    std::printf("ffmpeg, -ss %s -t %s: alarm.mp4, with the alarm of 03:04:35\n", from.c_str(),
                length.c_str());
}

void playFast(const TourSettings& settings, const std::string& url, const Play& play,
              std::ostream& captions) {
    const std::string name = std::string("scale") + play.scale;
    Child({settings.player, url, "--from", play.from, "--scale", play.scale, "--count",
           std::to_string(kPictures), "--output", settings.output + '/' + name},
          "")
        .finish(kPlays);
    for (int n = 0; n < kPictures; ++n)
        captions << formatted("%s %d GStreamer, scale %s, %d\n", name.c_str(), n, play.scale, n + 1);
    std::printf("GStreamer, ONVIF replay from %s with scale %s: %d pictures\n", play.from, play.scale,
                kPictures);
}

} // namespace

void watchWithPlayers(const TourSettings& settings, const World& world) {
    printHeading("any other player");
    Child daemon({settings.daemon, "--foreground"}, world.root() + "/daemon.log");
    awaitService(daemon);
    const std::string log = world.root() + "/server.log";
    Child server({settings.server, "--foreground", "--port", "0"}, log);
    const std::string url = urlOf(log);
    std::ofstream captions(settings.output + "/captions", std::ios::app);
    fetchAlarm(url, settings.output + '/', captions);
    for (const Play& play : kPlaysOfGStreamer)
        playFast(settings, url.substr(0, url.rfind('/')) + "/onvif", play, captions);
    server.stop(kComesUp);
    daemon.stop(kComesUp);
}

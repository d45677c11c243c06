// The built server beside the built daemon: what clients ask for is what they get.
#include <algorithm>
#include <filesystem>
#include <sys/stat.h>

#include "rtsp/play_headers.h"
#include "rtsp/recording_time.h"
#include "shm/shm_server.h"
#include "tests/rtsp/raw_client.h"
#include "tests/support/card.h"
#include "tools/recording/recording_reader.h"

namespace test {
namespace {

/// Two streams of 2 s, 3 s apart: pictures 0 to 59 from npt 0, 60 to 119 from 5 s on, an I-picture every half
/// second.
class Recorded : public testing::Test {
protected:
    Recorded() {
        Card card(m_world);
        card.stream(1).from("12:00:00.250").pictures(60).gop(15).closed();
        card.stream(2).from("12:00:05.250").pictures(60).gop(15).closed();
        for (RecordedPicture& picture : readRecording(paths().index, paths().card))
            m_pictures.push_back(std::move(picture.data));
        m_daemon = std::make_unique<DaemonProcess>(m_world.root());
    }
    std::vector<size_t> numbers(const std::vector<std::string>& pictures) const {
        std::vector<size_t> result;
        for (const std::string& picture : pictures)
            result.push_back(
                static_cast<size_t>(std::ranges::find(m_pictures, picture) - m_pictures.begin()));
        return result;
    }

    World m_world;
    std::vector<std::string> m_pictures;
    std::unique_ptr<DaemonProcess> m_daemon;
};

struct Asked {
    std::string headers;
    std::string played;                          ///< Range and Scale of the reply
    std::vector<std::pair<size_t, size_t>> runs; ///< of pictures that come first
    bool ends = false;                           ///< and no others
};

TEST_F(Recorded, APlaySaysWhatFollowsAndItDoes) {
    const Server server(m_world);
    RawClient client(server);
    ASSERT_EQ(client.setUp(), 200);
    const auto clock = [](const char* time) {
        return "clock=" + timeText(RangeUnit::clock, static_cast<int64_t>(atMs(time)), 0) + "-";
    };
    const Asked plays[] = {
        {"Scale: 1", "npt=0.000- x1.0", {{0, 3}}},
        {"Range: npt=1.6-1.9", "npt=1.500-1.900 x1.0", {{45, 57}}, true},
        {"Range: npt=3-", "npt=5.000- x1.0", {{60, 61}}},
        {"Range: npt=100-", "npt=6.500- x1.0", {{105, 119}}, true},
        {"Range: npt=6.5-5.5\r\nScale: -1", "npt=6.500-5.500 x-1.0", {{105, 105}, {90, 90}, {75, 75}}, true},
        {"Range: npt=now-\r\nScale: 1", "npt=6.500- x1.0", {{105, 106}}},
        {"Scale: 0.3\r\nRange: npt=0.6-", "npt=0.500- x0.5", {{15, 17}}},
        {"Frames: intra/900\r\nRange: npt=0-5", "npt=0.000-5.000 x1.0", {{0, 0}, {30, 30}, {60, 60}}, true},
        {"Rate-Control: no\r\nScale: -1\r\nRange: npt=5.6-1.6",
         "npt=5.500-1.600 x-1.0",
         {{75, 89}, {60, 74}, {45, 59}},
         true},
        {"Range: " + clock("12:00:05.800"), clock("12:00:05.750") + " x1.0", {{75, 77}}},
    };
    for (const Asked& asked : plays) {
        const Reply reply = client.ask("PLAY", asked.headers + "\r\n");
        ASSERT_EQ(reply.status, 200) << asked.headers;
        EXPECT_EQ(reply.headers.at("Range") + " x" + reply.headers.at("Scale"), asked.played);
        std::vector<size_t> expected;
        for (auto [n, last] : asked.runs)
            while (n <= last) expected.push_back(n++);
        auto pictures = client.pictures(asked.ends ? SIZE_MAX : expected.size());
        EXPECT_TRUE(reply.headers.at("RTP-Info").ends_with(client.first())) << client.first();
        if (!asked.ends) pictures.resize(std::min(pictures.size(), expected.size()));
        EXPECT_EQ(numbers(pictures), expected) << asked.headers;
    }
    EXPECT_EQ(client.ask("PAUSE").status, 200);
    const std::vector<size_t> before = numbers(client.pictures(0));
    client.ask("PLAY", "Rate-Control: no\r\nFrames: intra\r\nRange: npt=0-1.5\r\n");
    EXPECT_EQ(numbers(client.pictures(SIZE_MAX)), (std::vector<size_t>{0, 15, 30, 45}));
    const Reply goesOn = client.ask("PLAY");
    const std::vector<size_t> onward = numbers(client.pictures(1));
    ASSERT_FALSE(onward.empty());
    const size_t next = onward.front();
    EXPECT_EQ(next, before.size() + 1 + 75) << "none is lost by a pause, whatever came in between";
    const double from = std::stod(goesOn.headers.at("Range").substr(4));
    EXPECT_NEAR(from, 5 + static_cast<double>(next - 60) / 30, 0.002) << "and is found in the recording";
    EXPECT_EQ(client.ask("TEARDOWN").status, 200);
    RawClient live(server, "live");
    EXPECT_NE(live.ask("DESCRIBE").headers["Content-Length"].find("=range:npt=now-\r"), std::string::npos);
    ASSERT_EQ(live.setUp(), 200);
    live.ask("PLAY", "Range: npt=0-\r\n");
    EXPECT_EQ(numbers(live.pictures(2)).front(), 105u) << "the newest that decodes alone, whatever was asked";
}

TEST_F(Recorded, OneClientAtATimeWhateverBecomesOfItAndOfTheDaemon) {
    const Server server(m_world);
    {
        RawClient first(server), second(server);
        ASSERT_EQ(first.setUp(), 200);
        EXPECT_EQ(first.ask("PLAY", "Range: npt=0-\r\n").status, 200);
        EXPECT_EQ(second.setUp(), 453);
        EXPECT_EQ(numbers(first.pictures(20)).at(19), 19u) << "the first one goes on";
    }
    RawClient client(server);
    ASSERT_TRUE(eventually([&] { return client.setUp() == 200; }));
    EXPECT_EQ(client.ask("PLAY", "Range: npt=0-\r\n").status, 200);
    m_daemon->stop(SIGKILL);
    EXPECT_TRUE(client.bye());
    EXPECT_EQ(client.ask("PLAY").status, 454);
    EXPECT_EQ(client.ask("DESCRIBE").status, 503);
    m_daemon = std::make_unique<DaemonProcess>(m_world.root());
    EXPECT_EQ(client.setUp(), 200);
}

TEST_F(Recorded, StrangeRequestsGetAProperAnswer) {
    const Server server(m_world);
    RawClient client(server);
    EXPECT_EQ(client.ask("RECORD").status, 501);
    EXPECT_EQ(client.ask("DESCRIBE", "", "/elsewhere").status, 404);
    EXPECT_EQ(client.ask("DESCRIBE", "Require: time-travel\r\n").status, 551);
    for (const char* refused :
         {"RTP/AVP;multicast", "RTP/AVP;unicast;client_port=53-54"}) // 53: the machine's own
        EXPECT_EQ(client.ask("SETUP", std::string("Transport: ") + refused + "\r\n").status, 461);
    ASSERT_EQ(client.setUp(), 200);
    EXPECT_EQ(client.ask("PLAY", "Range: npt=x-\r\n").status, 457);
    const auto before = server.descriptors();
    RawClient garbled(server);
    {
        std::vector<std::unique_ptr<RawClient>> many;
        for (int n = 0; n < 200; ++n) many.push_back(std::make_unique<RawClient>(server));
        for (const auto& each : many) each->write("OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n");
        for (const auto& each : many) EXPECT_EQ(each->reply().status, 200);
        garbled.write("$\1\377\377" + std::string(65535, 'x') + "GET / HTTP/1.1\r\n\r\n");
        EXPECT_EQ(garbled.reply().status, 400);
    }
    EXPECT_TRUE(eventually([&] { return server.descriptors() == before; })) << "all are closed";
}

TEST(RecordingTime, GoesAlongWithTheRecorderIntoTheNextStream) {
    const World world;
    Card card(world);
    CtavirnShmServer segment;
    segment.openStatus(world.statusKey());
    const auto publish = [&](uint32_t stream) {
        segment.m_status->recStreamID = stream;
        segment.m_status->recPictures = card.writer().pictures();
    };
    RecordingTime recording;
    std::vector<int64_t> missed;
    const auto find = [&](uint32_t stream, uint32_t picture) {
        const std::string bytes = pictureBytes(stream, picture, picture % 10 == 0);
        const int64_t time = static_cast<int64_t>(atMs("12:00:00")) + (stream - 1) * 2500 + picture * 100;
        const auto how = picture == 10 ? Expected::How::around : Expected::How::next;
        const auto found = recording.find(bytes, picture % 10 == 0, {how, time});
        if (!found || found->time != time) missed.push_back(time);
    };
    card.stream(1).from("12:00:00").fps(10).gop(10).pictures(20).recording();
    publish(1);
    for (uint32_t picture = 10; picture < 20; ++picture) find(1, picture);
    card.grow(5);
    card.finish();
    card.stream(2).from("12:00:02.500").fps(10).gop(10).pictures(3).recording();
    publish(2);
    EXPECT_EQ(recording.behind(), 800);
    for (uint32_t picture = 20; picture < 25; ++picture) find(1, picture);
    card.sql("DELETE FROM STREAM WHERE streamID = 1");
    EXPECT_EQ(recording.span()->oldest, static_cast<int64_t>(atMs("12:00:02.500")));
    for (uint32_t picture = 0; picture < 3; ++picture) find(2, picture);
    EXPECT_EQ(missed, std::vector<int64_t>{});
}

TEST(Clients, GetEveryPictureOnceAndLeaveByThemselvesIfTheyMayWatch) {
    const World world;
    runTool({TAVIRN_RECORD, "--test-pattern", "--size", "320x240", "--fps", "10", "--gop", "10", "--duration",
             "3", "--split", "2", "--gap", "4"},
            world.root());
    std::string recorded;
    for (const RecordedPicture& picture : readRecording(paths().index, paths().card))
        recorded += picture.data;
    const auto exitCode = [&](const std::vector<std::string>& words) {
        return Process(words, world.root()).wait();
    };
    const std::string users = world.root() + "/credentials", file = world.root() + "/fetched";
    writeFile(users, "anna:secret\n");
    EXPECT_EQ(exitCode(Server::words({"--credentials", users})), 1) << "others could read them";
    EXPECT_EQ(exitCode(Server::words({"--tls-certificate", users, "--tls-key", users})), 1);
    EXPECT_EQ(exitCode(Server::words({"--bind", "0.0.0.0"})), 2);
    ASSERT_EQ(chmod(users.c_str(), 0600), 0);
    const DaemonProcess daemon(world.root());
    const Server server(world, {"--credentials", users});
    EXPECT_EQ(exitCode({TAVIRN_RTSP, "--port", server.port()}), 1) << "not detached without a port";
    RawClient stranger(server);
    EXPECT_EQ(stranger.ask("OPTIONS").status, 200);
    EXPECT_EQ(stranger.ask("DESCRIBE").status, 401);
    const std::string wrong = server.url("playback", "anna:Secret@");
    EXPECT_NE(exitCode({FFMPEG, "-v", "quiet", "-i", wrong, "-f", "null", "-"}), 0);
    for (const char* transport : {"tcp", "udp"}) {
        Process client({FFMPEG, "-v", "warning", "-rtsp_transport", transport, "-i",
                        server.url("playback", "anna:secret@"), "-c", "copy", "-f", "h264", "-y", file},
                       world.root());
        EXPECT_EQ(client.wait(), 0) << client.errors();
        EXPECT_EQ(client.errors(), "") << transport;
        EXPECT_TRUE(readFile(file) == recorded) << transport << ": other pictures than those recorded";
    }
    // In its ONVIF mode over TCP this client gives the first picture's packets no time, and discards them.
    for (const auto& [path, shown] : {std::pair{"playback", 30u}, {"onvif", 29u}}) {
        const std::string said =
            runTool({GST_LAUNCH, "rtspsrc", "location=" + server.url(path, "anna:secret@"), "protocols=tcp",
                     "latency=200", shown < 30 ? "onvif-mode=true" : "onvif-mode=false", "!", "rtph264depay",
                     "!", "h264parse", "!", "avdec_h264", "!", "filesink", "sync=true", "location=" + file},
                    world.root());
        EXPECT_EQ(said.find("WARNING"), std::string::npos) << said;
        EXPECT_EQ(std::filesystem::file_size(file) / (320 * 240 * 3 / 2), shown) << path;
    }
}

} // namespace
} // namespace test

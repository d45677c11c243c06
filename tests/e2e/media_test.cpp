// What the recorder's stand-in records is what it claims: of each kind of video that people have, a session
// opens on it and plays the source's pictures at the source's times, or it is refused in one sentence.
#include <cmath>
#include <sstream>

#include "engine/pb_picker_thread.h"
#include "stream/pb_stream_video.h"
#include "tests/e2e/session.h"
#include "tools/recording/recording_writer.h"

namespace test {
namespace {

/// What a player gets: bytes of all pictures, and their times in milliseconds since the first.
struct Played {
    std::string bytes;
    std::vector<double> times;
};

/// Opens a session on the newest stream as the daemon does, then plays all its pictures.
Played playNewest() {
    CApiDb index;
    EXPECT_EQ(index.setSql("SELECT * FROM STREAM ORDER BY streamID DESC LIMIT 1"), 0);
    if (index.getNTuple() == 0) return {};
    const auto id = static_cast<uint32_t>(index.getValue(0, 0));
    CpbPickerThread session({.searchMode = kStartAtStream, .searchValue = id});
    char sets[96];
    EXPECT_EQ(session.preGetData(), 1);
    EXPECT_GT(session.get_sps_pps(sets, 10), 0);

    Played played;
    CPbStreamVideo stream(nullptr);
    DB_STREAM row;
    STREAM_HEADER header;
    PICTURE_HEADER picture;
    std::vector<unsigned char> data(kMaxPictureBytes);
    stream.getId(id, &row, &header, &picture, 0);
    do {
        stream.getPicH(&picture);
        if (stream.get(data.data()) < 0) break;
        played.bytes.append(data.begin(), data.begin() + picture.size);
        const PB_STREAM_TIME time = stream.getTimePts();
        played.times.push_back((uint32_t(time.sec) - row.startDate) * 1000.0 + time.mSec - row.startMSec);
    } while (stream.move(PBST_FORWARD, 1, &picture, 0) >= 0);
    EXPECT_EQ(row.status, 0u);
    EXPECT_EQ(played.times.size(), row.recSize);
    return played;
}

std::vector<std::string> words(const std::string& line) {
    std::istringstream stream(line);
    return {std::istream_iterator<std::string>(stream), {}};
}

std::string gst(const std::string& pipeline, const World& world) {
    std::vector<std::string> command{GST_LAUNCH, "-v"};
    for (const std::string& word : words(pipeline)) command.push_back(word);
    return runTool(command, world.root());
}

/// When a decoder shows the pictures of a file, in milliseconds since the first.
std::vector<double> shownTimes(const std::string& file, const World& world) {
    const std::string output = gst(
        "filesrc location=" + file + " ! decodebin ! video/x-raw ! fakesink silent=false sync=false", world);
    std::vector<double> times;
    for (size_t at = 0; (at = output.find("last-message = chain", at)) != std::string::npos; ++at) {
        int hours = 0;
        int minutes = 0;
        double seconds = 0;
        std::sscanf(output.c_str() + output.find("pts: ", at), "pts: %d:%d:%lf", &hours, &minutes, &seconds);
        times.push_back((hours * 3600 + minutes * 60 + seconds) * 1000);
    }
    for (size_t n = times.size(); n-- > 0;) times[n] -= times[0];
    return times;
}

const std::string kBall = "videotestsrc num-buffers=30 pattern=ball ! "
                          "video/x-raw,format=I420,width=160,height=120,framerate=30/1 ! ";
const std::string kCamera = kBall + "x264enc tune=zerolatency key-int-max=10 ! h264parse ! ";
const std::string kFilm = kBall + "x264enc key-int-max=10 b-adapt=false bframes=2 ! h264parse ! ";

enum Fate { copied, encoded, damaged, refused }; ///< damaged: encoded, and some pictures may be missing

struct Medium {
    const char* what;
    std::string source; ///< pipeline that ends in the muxer; empty: `damage` makes it all up
    Fate fate;
    const char* says = ""; ///< on standard error
    void (*damage)(std::string& bytes) = nullptr;
};

void PrintTo(const Medium& medium, std::ostream* out) {
    *out << medium.what;
}

class Media : public testing::TestWithParam<Medium> {};

TEST_P(Media, PlaysAsTheSourceOrIsRefused) {
    const Medium& medium = GetParam();
    World world;
    const std::string file = world.root() + "/source";
    if (!medium.source.empty()) gst(medium.source + " ! filesink location=" + file, world);
    const std::vector<double> sound =
        medium.fate == refused ? std::vector<double>() : shownTimes(file, world);
    if (medium.damage) {
        std::string bytes = medium.source.empty() ? "" : readFile(file);
        medium.damage(bytes);
        writeFile(file, bytes);
    }

    Process recorder({TAVIRN_RECORD, "--root", world.root(), file, "--json"}, world.root());
    ASSERT_EQ(recorder.wait(), medium.fate == refused ? 1 : 0) << recorder.errors();
    EXPECT_NE(recorder.errors().find(medium.says), std::string::npos) << recorder.errors();
    if (medium.fate == refused) {
        CApiDb index;
        EXPECT_EQ(index.setSql("SELECT * FROM STREAM"), 0);
        EXPECT_EQ(index.getNTuple(), 0) << "a row is left";
        return;
    }
    EXPECT_NE(recorder.output().find(medium.fate == copied ? R"("copied":true)" : R"("copied":false)"),
              std::string::npos);
    const Played played = playNewest();
    writeFile(world.root() + "/played.h264", played.bytes);
    EXPECT_EQ(shownTimes(world.root() + "/played.h264", world).size(), played.times.size());
    if (medium.fate != damaged) {
        ASSERT_EQ(played.times.size(), sound.size());
    }
    EXPECT_GT(played.times.size(), sound.size() / 4);
    size_t n = 0;
    for (const double time : played.times) {
        while (medium.fate == damaged && n + 1 < sound.size() && sound[n] < time - 1.5) ++n;
        EXPECT_NEAR(time, sound[n], 1.5);
        if (medium.fate != damaged) ++n;
    }
}

const Medium kMedia[] = {
    {"Mp4", kCamera + "mp4mux", copied},
    {"Matroska", kCamera + "matroskamux", copied},
    {"TransportStream", kCamera + "mpegtsmux", copied},
    {"Raw", kCamera + "video/x-h264,stream-format=byte-stream", copied},
    {"Mp4BFrames", kFilm + "mp4mux", encoded, "reordered (B-frames)"},
    {"MatroskaBFrames", kFilm + "matroskamux", encoded, "reordered (B-frames)"},
    {"TransportStreamBFrames", kFilm + "mpegtsmux", encoded, "reordered (B-frames)"},
    {"RawBFrames", kFilm + "video/x-h264,stream-format=byte-stream", encoded, "reordered (B-frames)"},
    {"OpenGop", kBall + "x264enc key-int-max=10 option-string=open-gop=1:bframes=2 ! h264parse ! matroskamux",
     encoded, "encoded anew"},
    {"OneGop", kBall + "x264enc tune=zerolatency ! h264parse ! mp4mux", encoded, "fewer than two IDR"},
    {"IntraRefresh",
     kBall + "x264enc tune=zerolatency key-int-max=10 intra-refresh=true ! h264parse ! matroskamux", encoded,
     "fewer than two IDR"},
    {"LongGop",
     "videotestsrc num-buffers=130 ! video/x-raw,format=I420,width=64,height=64,framerate=120/1 ! "
     "x264enc tune=zerolatency key-int-max=125 ! h264parse ! matroskamux",
     encoded, "more than 120 pictures"},
    {"VariableFrameRate",
     "videotestsrc num-buffers=10 ! video/x-raw,format=I420,width=160,height=120,framerate=30/1 ! c. "
     "videotestsrc num-buffers=10 ! video/x-raw,format=I420,width=160,height=120,framerate=7/1 ! c. "
     "concat name=c ! capssetter caps=video/x-raw,framerate=0/1 ! x264enc tune=zerolatency key-int-max=10 ! "
     "h264parse ! matroskamux",
     copied},
    {"Interlaced",
     "videotestsrc num-buffers=30 pattern=ball ! video/x-raw,format=I420,width=160,height=128,framerate=25/1,"
     "interlace-mode=interleaved,field-order=top-field-first ! x264enc interlaced=true tune=zerolatency "
     "key-int-max=10 ! h264parse ! matroskamux",
     encoded, "it is interlaced"},
    {"OneFps",
     "videotestsrc num-buffers=4 ! video/x-raw,format=I420,width=160,height=120,framerate=1/1 ! "
     "x264enc tune=zerolatency key-int-max=1 ! h264parse ! mp4mux",
     copied},
    {"4K",
     "videotestsrc num-buffers=3 ! video/x-raw,format=I420,width=3840,height=2160,framerate=2/1 ! "
     "x264enc tune=zerolatency speed-preset=ultrafast key-int-max=1 ! h264parse ! mp4mux",
     copied},
    {"PictureTooLarge",
     "videotestsrc num-buffers=3 pattern=snow ! video/x-raw,format=I420,width=3840,height=2160,framerate=2/1 "
     "! x264enc tune=zerolatency speed-preset=ultrafast key-int-max=1 bitrate=100000 ! h264parse ! mp4mux",
     encoded, "playback takes 819200"},
    {"Chroma444",
     "videotestsrc num-buffers=30 ! video/x-raw,format=Y444,width=160,height=120 ! "
     "x264enc tune=zerolatency key-int-max=10 ! h264parse ! matroskamux",
     encoded, "its colour format is 4:4:4"},
    {"Hevc", kBall + "x265enc speed-preset=ultrafast key-int-max=10 ! h265parse ! matroskamux", encoded,
     "it is H.265"},
    {"MotionJpegOfOddSize",
     "videotestsrc num-buffers=30 ! video/x-raw,width=161,height=121,framerate=30/1 ! jpegenc ! avimux",
     encoded, "it is "},
    {"AudioBesideIt",
     "audiotestsrc num-buffers=80 ! audioconvert ! avenc_aac ! aacparse ! m. " + kCamera + "mp4mux name=m",
     copied},
    {"AudioOnly", "audiotestsrc num-buffers=20 ! audioconvert ! wavenc", refused, "no video stream\n"},
    {"OnePicture", "videotestsrc num-buffers=1 ! jpegenc", refused, "two I-pictures at least"},
    {"TruncatedMp4", kCamera + "mp4mux", refused, "cannot record",
     [](std::string& bytes) { bytes.resize(bytes.size() / 2); }},
    {"TruncatedMatroska", kFilm + "matroskamux", damaged, "",
     [](std::string& bytes) { bytes.resize(bytes.size() / 2); }},
    {"TruncatedTransportStream", kFilm + "mpegtsmux", damaged, "",
     [](std::string& bytes) { bytes.resize(bytes.size() / 2 + 5); }},
    {"Corrupt", kFilm + "matroskamux", damaged, "",
     [](std::string& bytes) {
         for (size_t at = bytes.size() / 2; at < bytes.size() / 2 + 500; at += 11) bytes[at] ^= 0x55;
     }},
    {"NoVideo", "", refused, "cannot record",
     [](std::string& bytes) {
         for (uint32_t n = 1; bytes.size() < 20000; n = n * 1664525 + 1013904223)
             bytes += static_cast<char>(n >> 24);
     }},
    {"Empty", "", refused, "it is empty\n", [](std::string&) {}},
};

INSTANTIATE_TEST_SUITE_P(Kinds, Media, testing::ValuesIn(kMedia),
                         [](const auto& row) { return std::string(row.param.what); });

std::string recordPattern(const World& world, const std::vector<std::string>& options, int expected = 0) {
    std::vector<std::string> command{TAVIRN_RECORD,    "--root", world.root(),
                                     "--test-pattern", "--size", "160x120"};
    command.insert(command.end(), options.begin(), options.end());
    Process recorder(command, world.root());
    EXPECT_EQ(recorder.wait(), expected);
    return recorder.errors();
}

uint64_t startOf(uint32_t id) {
    DB_STREAM row{};
    CApiDb().selectStream(id, &row);
    return uint64_t{row.startDate} * 1000 + row.startMSec;
}

TEST(Recording, BeginsBehindTheNewestAndSaysWhenItIsToldToOverlap) {
    World world;
    EXPECT_EQ(recordPattern(world, {"--start", "2037-01-02 03:04:05.000", "--duration", "1"}), "");
    EXPECT_EQ(recordPattern(world, {"--duration", "1", "--split", "0.5"}), "");
    EXPECT_EQ(startOf(2), startOf(1) + 966 + 1000) << "a second behind its last picture";
    EXPECT_EQ(startOf(3), startOf(2) + 500);
    EXPECT_EQ(playNewest().times.size(), 15u) << "of a single GOP, were it not made two";
    EXPECT_NE(recordPattern(world, {"--start", "2037-01-02 03:04:05.500", "--duration", "1"})
                  .find("note: stream 1 covers part of the same time"),
              std::string::npos);
}

TEST(Recording, LeavesNothingThatCannotBeOpened) {
    World world;
    {
        RecordingWriter killed({paths().card, paths().index, 1 << 20});
        for (const char* picture : {"first", "second"}) {
            killed.beginStream({.startMs = 1'000'000, .capacity = 9});
            killed.addPicture({picture, 1'000'000, true});
            if (picture[0] == 'f') killed.finishStream();
        }
    }
    EXPECT_NE(recordPattern(world, {"--duration", "0.5", "--fps", "2"}, 1).find("there is only one"),
              std::string::npos);
    EXPECT_EQ(startOf(1), 1'000'000u);
    EXPECT_EQ(startOf(2), 0u) << "left open by the killed one";

    Process recorder({TAVIRN_RECORD, "--root", world.root(), "--test-pattern", "--duration", "100000"},
                     world.root());
    EXPECT_TRUE(eventually([] { return startOf(2) != 0; }));
    EXPECT_NE(recordPattern(world, {"--duration", "1"}, 1).find("another tavirn-record writes"),
              std::string::npos);
    recorder.signal(SIGINT);
    EXPECT_EQ(recorder.wait(), 1);
    EXPECT_NE(recorder.errors().find("tavirn-record: interrupted after "), std::string::npos);
    EXPECT_GE(playNewest().times.size(), 31u) << "as far as the second I-picture";
}

TEST(Recording, ReadsAPipeToItsEndOrAsItComes) {
    World world;
    const std::string file = world.root() + "/source";
    gst(kFilm + "mp4mux ! filesink location=" + file, world);
    for (const char* options : {"--json", "--live"}) {
        Process recorder({"/bin/sh", "-c", "cat \"$0\" | \"$1\" - \"$2\"", file, TAVIRN_RECORD, options},
                         world.root());
        EXPECT_EQ(recorder.wait(), 0) << recorder.errors();
        EXPECT_EQ(playNewest().times.size(), 30u);
    }
}

} // namespace
} // namespace test

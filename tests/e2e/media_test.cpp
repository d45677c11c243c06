// What the recorder's stand-in makes of each kind of video that people have: a session opens on it and it is
// the source's pictures at the source's times, or it is refused in one sentence.
#include <gmock/gmock.h>

#include "platform/paths.h"
#include "tests/support/process.h"
#include "tools/recording/recording_reader.h"
#include "tools/tour/session.h"

namespace test {
namespace {

std::string gst(const std::string& pipeline, const World& world) {
    return runTool({"/bin/sh", "-c", "exec " GST_LAUNCH " -v " + pipeline}, world.root());
}

/// When a decoder shows the pictures of a file, in milliseconds since the first.
std::vector<double> shownTimes(const std::string& file, const World& world) {
    const std::string output = gst(
        "filesrc location=" + file + " ! decodebin ! video/x-raw ! fakesink silent=false sync=false", world);
    std::vector<double> times;
    for (size_t at = 0; (at = output.find("last-message = chain", at)) != std::string::npos; ++at) {
        const size_t seconds = output.find("pts: 0:00:", at) + 10;
        times.push_back(std::stod(output.substr(seconds, 12)) * 1000);
    }
    for (size_t n = times.size(); n-- > 0;) times[n] -= times[0];
    return times;
}

std::string raw(int pictures, const std::string& caps) {
    return "videotestsrc pattern=ball num-buffers=" + std::to_string(pictures) + " ! video/x-raw," + caps +
           " ! ";
}

const std::string kSmall = "format=I420,width=160,height=120,framerate=";
const std::string kFields =
    "format=I420,width=160,height=128,interlace-mode=interleaved,field-order=top-field-first";
const std::string kX264 = "x264enc speed-preset=ultrafast tune=zerolatency key-int-max=10 ";
const std::string kCamera = raw(30, kSmall + "30/1") + kX264 + "! h264parse ! ";
const std::string kFilm =
    raw(30, kSmall + "30/1") + "x264enc key-int-max=10 b-adapt=false bframes=2 ! h264parse ! ";

// What is done with the file $0 before the recorder $1 takes it.
const std::string kAsItIs = R"("$1" "$0")";
const std::string kMiddle = R"($(($(stat -c %s "$0") / 2)))";
const std::string kHalve = "truncate -s " + kMiddle + " \"$0\"; " + kAsItIs;
const std::string kCorrupt =
    "head -c 300 /dev/zero | dd conv=notrunc oflag=seek_bytes of=\"$0\" seek=" + kMiddle + "; " + kAsItIs;

enum Fate { copied, encoded, damaged, refused }; ///< damaged: encoded, and some pictures may be missing

struct Medium {
    std::string source; ///< pipeline that ends in the muxer
    Fate fate;
    const char* says = ""; ///< among what it prints
    std::string how = kAsItIs;
};

/// Records the medium and plays what came of it.
void record(const Medium& medium) {
    SCOPED_TRACE(medium.source + medium.how);
    const World world;
    const std::string file = world.root() + "/source", copy = world.root() + "/played.h264";
    gst(medium.source + " ! filesink location=" + file, world);
    Process recorder({"/bin/sh", "-c", medium.how + " --json", file, TAVIRN_RECORD}, world.root());
    ASSERT_EQ(recorder.wait(), medium.fate == refused ? 1 : 0) << recorder.errors();
    EXPECT_THAT(recorder.errors() + recorder.output(), testing::HasSubstr(medium.says));
    const std::vector<RecordedPicture> recorded = readRecording(paths().index, paths().card);
    ASSERT_EQ(recorded.empty(), medium.fate == refused);
    if (medium.fate == refused) return;
    const char* told = medium.fate == copied ? R"("copied":true)" : R"("copied":false)";
    EXPECT_THAT(recorder.output(), testing::HasSubstr(told));

    const std::vector<double> source = shownTimes(file, world);
    const DaemonProcess daemon(world.root());
    EXPECT_TRUE(Session().open());
    std::string played;
    std::vector<double> times;
    for (const RecordedPicture& picture : recorded) {
        played += picture.data;
        times.push_back(static_cast<double>(picture.timeMs - recorded[0].timeMs));
    }
    writeFile(copy, played);
    EXPECT_EQ(shownTimes(copy, world).size(), times.size());
    if (medium.fate != damaged) {
        EXPECT_THAT(times, testing::Pointwise(testing::DoubleNear(1.5), source));
    }
    EXPECT_GT(times.size(), source.size() / 4);
    for (const double time : times) EXPECT_THAT(source, testing::Contains(testing::DoubleNear(time, 1.5)));
}

const Medium kMedia[] = {
    {raw(50, kSmall + "30/1") + kX264 + "! h264parse ! mp4mux", copied, R"("streamId":2,"pictures":30)",
     kAsItIs + " --split 0.2"}, // no stream of a single GOP
    {kCamera + "mpegtsmux", copied, "the recording ends before: 1 alarm\n",
     kAsItIs + " --event 0.1 --event 5"},
    {kCamera + "video/x-h264,stream-format=byte-stream", copied},
    {"audiotestsrc num-buffers=80 ! avenc_aac ! aacparse ! m. " + kCamera + "mp4mux name=m", copied},
    {raw(10, kSmall + "30/1") + "c. " + raw(10, kSmall + "7/1") +
         "concat name=c ! " + // a frame rate that varies
         "capssetter caps=video/x-raw,framerate=0/1 ! " + kX264 + "! h264parse ! matroskamux",
     copied},
    {kFilm + "mp4mux", encoded, "reordered (B-frames)"},
    {kFilm + "mp4mux", encoded, "", R"(cat "$0" | "$1" - --live)"},
    {raw(30, kFields) + kX264 + "interlaced=true ! h264parse ! matroskamux", encoded, "it is interlaced"},
    {raw(30, "format=Y444") + kX264 + "! h264parse ! matroskamux", encoded, "format is 4:4:4"},
    {raw(30, "width=161,height=121") + "jpegenc ! avimux", encoded, "it is "},
    {kFilm + "matroskamux", damaged, "", kCorrupt},
    {kCamera + "mp4mux", refused, "cannot record", kHalve},
    {"audiotestsrc num-buffers=20 ! audioconvert ! wavenc", refused, "no video stream\n"},
    {raw(1, kSmall + "30/1") + "jpegenc", refused, "two I-pictures at least"},
    {raw(1, kSmall + "30/1") + "jpegenc", refused, "it is empty\n", ": >\"$0\"; " + kAsItIs},
};

TEST(Kinds, PlayAsTheSourceOrAreRefused) {
    for (const Medium& medium : kMedia) record(medium);
}

} // namespace
} // namespace test

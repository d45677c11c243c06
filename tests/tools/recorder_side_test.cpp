// What the recorder's stand-in does to pictures, and which it copies.
#include <fstream>
#include <gmock/gmock.h>
#include <map>

#include "stream/records.h"
#include "tests/support/card.h"
#include "tools/record/copy_check.h"
#include "tools/record/h264.h"
#include "tools/recording/recording_error.h"
#include "tools/recording/recording_reader.h"

namespace test {
namespace {

using namespace h264;
using std::operator""s;

const std::string k4 = "\0\0\0\1"s;
const std::string k3 = "\0\0\1"s;
const std::string kAud = "\x09\xF0"s;
const std::string kSps = "\x67\x42\0\x1E\x95\xA0"s;
const std::string kPps = "\x68\xCE\x38\x80"s;
const std::string kSei = "\x06\x01\x01\x2A\x80"s;
const std::string kIdr = "\x65\x88\0\0\3\1\x7F"s;
const std::string kSlice = "\x41\x9A\x24"s;
const std::string kBSlice = "\x01\x03\xC1\xC0"s; // first macroblock 119, slice type 6
const std::string kText = "2024-01-02 03:04:05.250";

TEST(H264, PutsParameterSetsAndSeiInFrontOfIPicturesOnly) {
    const std::string sets = k4 + kSps + k4 + kPps, own = k4 + textSei(kText);
    const std::pair<std::string, std::string> cases[] = {
        {k3 + kSps + k3 + kPps + k3 + kSei + k3 + kIdr, sets + k4 + kSei + k4 + kIdr},
        {k4 + kAud + sets + "\0\0"s + k4 + kIdr + "\0"s, sets + own + k4 + kIdr},
        {sets + k4 + kIdr + k3 + kIdr, sets + own + k4 + kIdr + k4 + kIdr},
        {k4 + kAud + k3 + kSei + k3 + kSlice, k4 + kSei + k4 + kSlice},
    };
    for (const auto& [in, out] : cases) EXPECT_EQ(shaped(in, kText), out);
    EXPECT_EQ(nalUnit(6, "\0\0\0\0\0\1\0\0\2\0\0\3\0\0\4"s), "\6\0\0\3\0\0\3\0\1\0\0\3\2\0\0\3\3\0\0\4"s);
    EXPECT_EQ(textSei(std::string(300, 'x')).substr(0, 4), "\6\5\xFF\x3D"s) << "316 = 255 + 61";
}

TEST(CopyCheck, LetsPassWhatOpensASessionAndPlaysInAnyMode) {
    const std::string most(kMaxParameterSetBytes - 2 * k4.size() - kSps.size() - kPps.size(), 'x');
    const std::string sets = k4 + kPps + k4 + kSps, slice = k4 + kSlice;
    const std::map<char, std::string> pictures{
        {'I', sets + most + k4 + kIdr},
        {'!', sets + most + 'x' + k4 + kIdr},
        {'-', k4 + kIdr},
        {'P', slice},
        {'B', slice + k4 + kBSlice},
        {'=', slice}, // at the time of the one before
        {'l', std::string(kMaxPictureBytes - 160, 'x')},
        {'L', std::string(kMaxPictureBytes - 159, 'x')},
    };
    const std::string other(119, 'P');
    const std::tuple<std::string, uint32_t, const char*> cases[] = {
        {"IlPII", 3, ""},
        {"I" + other + "I", 120, ""},
        {"I" + other + "PI", 121, "more than 120 pictures pass"},
        {"IP", 2, "fewer than two IDR"},
        {"PII", 1, "does not begin with an IDR"},
        {"IBI", 2, "reordered"},
        {"I=I", 2, "times of its pictures do not rise"},
        {"ILI", 2, "a picture of 819041 bytes"},
        {"I!", 1, "take 97 bytes"},
        {"I-", 1, "before any SPS and PPS"},
    };
    for (const auto& [kinds, gop, reason] : cases) {
        CopyCheck check;
        uint64_t ms = 0;
        for (const char kind : kinds)
            if (!check.look({pictures.at(kind), ms += kind != '='})) break;
        EXPECT_THAT(check.reason(), testing::ContainsRegex(*reason ? reason : "^$")) << kinds;
        EXPECT_EQ(check.gop(), gop) << kinds;
    }
}

TEST(RecordingWriter, WritesStreamsThatCanBeReadFromTheirFirstMomentOnAndPastTheChunksEnd) {
    const World world;
    Card card(world, 1u << 16); // filled from 2 KiB before the end on
    card.stream(1).from("12:00:00").closed();
    card.stream(2).from("12:01:00").pictures(40).closed();
    card.stream(3).from("12:02:00").recording();
    uint32_t n = 0;
    for (const RecordedPicture& picture : readRecording(paths().index, paths().card)) {
        EXPECT_EQ(picture.data, pictureBytes(2, n, n % 30 == 0, 0));
        ++n;
    }
    EXPECT_EQ(n, 40u);
    STREAM_HEADER header{};
    std::ifstream(card.chunkPath(3), std::ios::binary)
        .seekg(card.row(3).chunkOffset)
        .read(reinterpret_cast<char*>(&header), sizeof header);
    EXPECT_EQ(header.marker, kStreamMarker);
    EXPECT_EQ(header.id, 3u) << "before the first picture";
    for (const size_t bytes : {kMinPictureBytes - 1, kMaxPictureBytes + 1})
        EXPECT_THROW(card.writer().addPicture({std::string(bytes, 'x'), 0, true}), RecordingError) << bytes;
}

} // namespace
} // namespace test

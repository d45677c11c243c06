// What the recorder's stand-in does to pictures, times and bytes.
#include <gmock/gmock.h>
#include <map>

#include "tests/support/card.h"
#include "tools/record/copy_check.h"
#include "tools/record/h264.h"
#include "tools/record/timeline.h"

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

TEST(Timeline, PutsOneGapBetweenStreamsHoweverLateTheyChange) {
    TimelineCursor cursor({100000, 2000, 3000});
    EXPECT_TRUE(cursor.isBehind(2000) && !cursor.isBehind(1999));
    cursor.goOn(4500); // the I-picture comes late, as in a file that is copied
    EXPECT_EQ(cursor.wallMs(4500), 107500u);
}

std::string words(std::initializer_list<uint32_t> header) {
    return {reinterpret_cast<const char*>(header.begin()), header.size() * 4};
}

// A chunk of 4096 bytes is filled from byte 3968 on, so that the first picture goes round its end.
TEST(RecordingWriter, WritesATinyStreamToTheLetter) {
    const World world;
    Card card(world, 4096);
    const auto holds = [&](size_t at, const std::string& bytes) {
        EXPECT_EQ(readFile(card.chunkPath(7)).substr(at, bytes.size()), bytes);
    };
    RecordingWriter& writer = card.writer();
    writer.beginStream({.streamId = 7, .startMs = atMs("12:00:00.980"), .capacity = 2});
    holds(3968, words({0xFFFFFFFF, 7, 4064, 0, 0, 0, 30, 0x10030000})); // size not known yet
    const std::string first = "some bytes of a picture, round the end";
    EXPECT_TRUE(writer.addPicture({first, 1000250, true}));
    EXPECT_TRUE(writer.addPicture({"other", 1000283, false}));
    EXPECT_FALSE(writer.addPicture({"third", 1000316, false})) << "no header is free";
    writer.finishStream();
    holds(3968, words({0xFFFFFFFF, 7, 4064, 43, 1000, 2, 30, 0x14180000, //
                       0xFFFFFFFE, 7, 4064, 38, 1000, 1, 0,  0x14ED00FA, //
                       0xFFFFFFFE, 7, 6,    5,  1000, 0, 0,  0x0512011B}) +
                    first.substr(0, 32));
    holds(0, first.substr(32) + "other");
    EXPECT_EQ(card.row(7).chunkSize, 96u);
}

TEST(RecordingWriter, RefusesWhatDoesNotFit) {
    const World world;
    Card card(world, 4096);
    RecordingWriter& writer = card.writer();
    writer.beginStream({.streamId = 3, .capacity = 1});
    for (const uint32_t bytes : {kMinPictureBytes - 1, kMaxPictureBytes + 1})
        EXPECT_THROW(writer.addPicture({std::string(bytes, 'x'), 0, true}), RecordingError);
    EXPECT_FALSE(writer.addPicture({std::string(4096, 'x'), 0, true})) << "headers take some of the chunk";
    writer.finishStream();
    EXPECT_THROW(writer.beginStream({.streamId = 3, .capacity = 1}), RecordingError) << "the id is in use";
    EXPECT_THROW(writer.beginStream({.streamId = 4, .capacity = 127}), RecordingError) << "headers as large";
}

} // namespace
} // namespace test

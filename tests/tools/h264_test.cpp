#include "tools/record/h264.h"
#include "tools/record/timeline.h"

#include <gtest/gtest.h>

#include "tools/common/clock_text.h"
#include "tools/recording/recording_writer.h"

namespace h264 {
namespace {

using std::operator""s;

const std::string k4 = "\0\0\0\1"s;
const std::string k3 = "\0\0\1"s;
const std::string kAud = "\x09\xF0"s;
const std::string kSps = "\x67\x42\0\x1E\x95\xA0"s;
const std::string kPps = "\x68\xCE\x38\x80"s;
const std::string kSei = "\x06\x01\x01\x2A\x80"s;
const std::string kIdr = "\x65\x88\0\0\3\1\x7F"s;
const std::string kSlice = "\x41\x9A\x24"s;
const std::string kText = "2024-01-02 03:04:05.250";

TEST(Shaped, PutsParameterSetsAndSeiInFrontOfIPicturesOnly) {
    const std::string sets = k4 + kSps + k4 + kPps;
    const std::string own = k4 + textSei(kText);
    const struct {
        const char* what;
        std::string in, out;
    } cases[] = {
        {"short start codes", k3 + kSps + k3 + kPps + k3 + kSei + k3 + kIdr, sets + k4 + kSei + k4 + kIdr},
        {"delimiter and padding", k4 + kAud + sets + "\0\0"s + k4 + kIdr + "\0"s, sets + own + k4 + kIdr},
        {"SEI before the sets", k4 + kSei + sets + k4 + kIdr, sets + k4 + kSei + k4 + kIdr},
        {"slices of one picture", sets + k4 + kIdr + k3 + kIdr, sets + own + k4 + kIdr + k4 + kIdr},
        {"other picture", k4 + kAud + k3 + kSei + k3 + kSlice, k4 + kSei + k4 + kSlice},
    };
    for (const auto& testCase : cases) {
        EXPECT_EQ(shaped(testCase.in, kText), testCase.out) << testCase.what;
        EXPECT_EQ(isIPicture(testCase.in), testCase.in.find(kIdr) != std::string::npos) << testCase.what;
    }
}

TEST(Shaped, RefusesWhatPlaybackCouldNotHandOver) {
    const std::string rest = k4 + kPps + k4 + kIdr;
    const std::string longest(kMaxParameterSetBytes - 2 * k4.size() - kPps.size() - kSps.size(), 'x');
    EXPECT_EQ(shaped(k4 + kSps + longest + rest, "").find(k4 + '\6'), kMaxParameterSetBytes);
    EXPECT_THROW(shaped(k4 + kSps + longest + 'x' + rest, ""), RecordingError);
    EXPECT_THROW(shaped(k4 + kIdr, ""), RecordingError);
}

TEST(NalUnit, IsNeverMistakenForAStartCode) {
    EXPECT_EQ(nalUnit(6, "\0\0\0\0\0\1\0\0\2\0\0\3\0\0\4"s), "\6\0\0\3\0\0\3\0\1\0\0\3\2\0\0\3\3\0\0\4"s);
    EXPECT_EQ(textSei(std::string(300, 'x')).substr(0, 4), "\6\5\xFF\x3D"s) << "316 = 255 + 61";
}

TEST(Timeline, PutsOneGapBetweenStreamsHoweverLateTheyChange) {
    const auto start = parseClock("2024-01-02 03:04:05.25");
    ASSERT_TRUE(start);
    EXPECT_EQ(clockText(*start), "2024-01-02 03:04:05.250");
    for (const char* text : {"", "2024-01-02", "2024-02-31 03:04:05", "2024-01-02 03:04:05.1234",
                             "2024-01-02 03:04:05 x", "1969-12-31 00:00:00", "2038-01-20 00:00:00"})
        EXPECT_FALSE(parseClock(text)) << text;

    TimelineCursor cursor({*start, 2000, 3000});
    EXPECT_FALSE(cursor.isBehind(1999));
    EXPECT_TRUE(cursor.isBehind(4500)) << "the I-picture comes late, as in a file that is copied";
    cursor.goOn(4500);
    EXPECT_EQ(cursor.wallMs(4500), *start + 4500 + 3000);
    EXPECT_FALSE(cursor.isBehind(5999));
    EXPECT_TRUE(cursor.isBehind(6000));
}

} // namespace
} // namespace h264

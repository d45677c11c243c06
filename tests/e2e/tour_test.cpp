// The main road: the tour that scripts/demo shows, run to its end, and the judge that it trusts.
#include <gmock/gmock.h>

#include "tests/support/process.h"
#include "tools/tour/judge.h"

namespace test {
namespace {

using testing::HasSubstr;

TEST(Tour, PlaysWhatWasRecordedInEveryWayThereIs) {
    const World world;
    Process tour({TAVIRN_TOUR, "--root", world.root(), "--size", "320x240", "--daemon",
                  runnable(TAVIRN_ROOTED, world.root()), "--recorder", TAVIRN_RECORD},
                 world.root());
    EXPECT_EQ(tour.wait(240000), 0) << tour.errors() << tour.output();
    for (const char* line :
         {"stream 3, picture 1 (I)\n", "streams 1 to 2, 29", "4 I-pictures: 4, 7 (gap), 4, 9 (gap) s on\n",
          "4 I-pictures: 6 (gap), 2, 2, 2 s back\n", "none left out, half speed\n", "left behind: nothing\n",
          "missed by the viewer: 0;"})
        EXPECT_THAT(tour.output(), HasSubstr(line));
}

/// Two streams of six pictures a second apart, an I-picture first and fourth; ten seconds between them.
Recording twoStreams() {
    Recording recording;
    for (const uint32_t stream : {1u, 2u})
        for (uint32_t n = 0; n < 6; ++n)
            recording.push_back({stream, n + 1, n % 3 == 0, 1000 + (stream - 1) * 15000 + n * 1000,
                                 "picture " + std::to_string(stream) + std::to_string(n)});
    return recording;
}

// What is right is what the tour shows.
TEST(Tour, TheJudgeFindsEveryFault) {
    const Recording recording = twoStreams();
    struct {
        Check check;
        int64_t expected;
        size_t before;                           ///< place of the picture before
        std::vector<std::optional<size_t>> came; ///< places in the recording
        std::string fault;
    } const rows[] = {
        {staysThere, 0, 3, {4}, "1 picture came out"},
        {isAt, 4000, 0, {4}, "another one was expected"},
        {isAt, 4000, 0, {3, 4}, "2 pictures came out instead of one"},
        {isAt, 4000, 0, {std::nullopt}, "picture 1 was never recorded"},
        {isFirstOf, 2, 0, {0}, "the first of stream 2 was expected"},
        {isNewestOf, 2, 0, {6}, "that is no live picture"},
        {isNewestOf, 2, 0, {10}, "an I-picture of stream 2 was expected"},
        {isNext, 0, 5, {7}, "the next one was expected"},
        {isIPictureBefore, 0, 6, {6}, "the I-picture before was expected"},
        {crossesABorder, 0, 3, {4, 6}, "picture 2 of 2 does not follow the one before"},
        {crossesABorder, 0, 3, {4, 5}, "no border was crossed"},
        {followsClosely, 0, 0, {1, 2}, "that is no live picture"},
        {playsAtHalfSpeed, 0, 4, {5, 6}, "the stamps are not those of half speed"},
        {skips, 2000, 0, {3, 9, 6}, "picture 2 is another one than expected"},
        {skips, 2000, 0, {3, 6}, "only 2 pictures came"},
    };
    for (const auto& row : rows) {
        std::vector<ShownPicture> pictures;
        for (const auto& place : row.came) {
            const auto stamp = static_cast<uint32_t>(pictures.size()) * 180'000 - 100; // over the wrap
            pictures.push_back({"", stamp, 20'000, place});
        }
        EXPECT_EQ(row.check({recording, pictures, row.before}, row.expected).fault, row.fault);
    }
}

TEST(Tour, OneByteMakesAnotherPicture) {
    Recording recording = twoStreams();
    recording[7].data = recording[4].data; // of two that are the same, the one that is due
    EXPECT_EQ(findPlace(recording, recording[4].data, 6), 7u);
    EXPECT_EQ(findPlace(recording, recording[4].data, std::nullopt), 4u);
    EXPECT_EQ(findPlace(recording, recording[4].data + '\0', 3), std::nullopt);
}

} // namespace
} // namespace test

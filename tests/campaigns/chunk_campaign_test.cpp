// Chunks that are cut, damaged, overwritten while they are read, or gone.
#include <filesystem>
#include <random>

#include "tests/campaigns/session.h"

namespace test {
namespace {

TEST_F(CampaignTest, ChunksCutAtEveryHeaderNeitherStopTheSessionNorShowWhatIsNotThere) {
    ASSERT_EQ(engine.preGetData(), 1);
    ASSERT_TRUE(works());
    const uint32_t headers = card.row(1).chunkOffset;
    for (uint32_t record = 0; record <= 91; ++record) {
        std::filesystem::resize_file(chunk, headers + record * kHeaderBytes);
        useEverything();
        writeFile(chunk, soundChunk);
        EXPECT_TRUE(works()) << record;
    }
}

TEST_F(CampaignTest, DamagedHeadersAreSkippedOrPausedOn) {
    ASSERT_EQ(engine.preGetData(), 1);
    for (int damage = 0; damage < kDamages && !HasFailure(); ++damage) {
        SCOPED_TRACE("seed " + std::to_string(seed) + ", damage " + std::to_string(damage));
        const uint32_t stream = 1 + below(3), record = below(below(4) == 0 ? 1 : 40);
        const uint32_t place = card.row(stream).chunkOffset + record * kHeaderBytes;
        std::string header = soundChunk.substr(place, kHeaderBytes);
        for (uint32_t flips = 1 + below(3); flips > 0; --flips)
            header[below(30)] ^= static_cast<char>(1u << below(8));
        PICTURE_HEADER sealed;
        std::memcpy(&sealed, header.data(), sizeof sealed);
        sealed.cs = headerChecksum(sealed); // in half of them, so that they are believed
        if (damage % 2 == 0) header.assign(reinterpret_cast<const char*>(&sealed), sizeof sealed);
        patchFile(chunk, place, header);
        useEverything();
        patchFile(chunk, place, soundChunk.substr(place, kHeaderBytes));
        ASSERT_TRUE(works());
    }
}

TEST_F(CampaignTest, ARingOverwrittenUnderTheReaderShowsWhatStandsThere) {
    ASSERT_EQ(engine.preGetData(), 1);
    for (int round = 0; round < kDamages / 4 && !HasFailure(); ++round) {
        SCOPED_TRACE("seed " + std::to_string(seed) + ", round " + std::to_string(round));
        const std::string other(1 + below(3000), static_cast<char>(below(256)));
        patchFile(chunk, below(soundChunk.size() / 8), other);
        useEverything();
    }
    writeFile(chunk, soundChunk);
    EXPECT_TRUE(works());
}

TEST_F(CampaignTest, ACardThatIsRemovedWhilePlayingIsPlayedAgainOnceItIsBack) {
    ASSERT_EQ(engine.preGetData(), 1);
    const std::string directory = paths().card;
    for (int round = 0; round < 20; ++round) {
        engine.play({{"Scale", round % 2 == 0 ? "1" : "-1"}});
        for (int pass = 0; pass < round; ++pass) look(engine.turn());
        std::filesystem::rename(directory, directory + ".out");
        useEverything();
        EXPECT_EQ(engine.getCurrentPlayMode(), PB_PAUSE);
        std::filesystem::rename(directory + ".out", directory);
        EXPECT_TRUE(works()) << round;
    }
}

} // namespace
} // namespace test

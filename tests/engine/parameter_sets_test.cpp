#include "engine/parameter_sets.h"
#include "tests/engine/engine_fixture.h"

namespace test {

/// A NAL with a four-byte start code and `payload` bytes behind its type.
static std::string nal(int type, size_t payload) {
    return std::string("\0\0\0\1", 4) + static_cast<char>(0x60 | type) + std::string(payload, '\x55');
}

static ParameterSets scan(const std::string& picture) {
    // Exactly as large as the picture, so that a sanitizer sees a read beyond it.
    const std::vector<uint8_t> bytes(picture.begin(), picture.end());
    return scanParameterSets(bytes.data(), bytes.size());
}

TEST(ParameterSetsTest, AreCutFromSpsToSei) {
    const std::string sps = nal(7, 10), pps = nal(8, 3), sei = nal(6, 1), slice = nal(5, 40);
    const struct {
        const char* what;
        std::string picture;
        bool found;
        size_t position, length;
    } cases[] = {
        {"behind an access unit delimiter", nal(9, 1) + sps + pps + sei + slice, true, 6, 23},
        {"SEI before the PPS only", sps + sei + pps + slice, true, 0, 0},
        {"SEI in the last five bytes", sps + pps + nal(6, 0), true, 0, 0},
        {"SEI just before them", sps + pps + sei, true, 0, 23},
        {"PPS before the SPS only", pps + sps + sei + slice, false, 0, 0},
        {"three-byte start codes", sps.substr(1) + pps.substr(1) + sei + slice, false, 0, 0},
    };
    for (const auto& c : cases) {
        const ParameterSets sets = scan(c.picture);
        EXPECT_EQ(sets.found, c.found) << c.what;
        EXPECT_EQ(sets.position, c.position) << c.what;
        EXPECT_EQ(sets.length, c.length) << c.what;
    }
    const std::string whole = sps + pps + sei;
    for (size_t size = 0; size < whole.size(); ++size)
        EXPECT_EQ(scan(whole.substr(0, size)).length, 0u) << "cut at " << size;
}

TEST_F(EngineTest, ParameterSetsOfADamagedPictureAreLookedForInTheNext) {
    card.stream(1).from("12:00:00").pictures(40).gop(5).pictureSize(400).closed();
    card.stream(2).from("12:01:00").pictures(40).gop(30).closed();
    const struct {
        const char* message; ///< none = found
        std::string bytes;
        uint32_t size = 400;
    } cases[] = {
        {"invalid picH.size=4", "", 4},
        {"invalid picH.size=1536001", "", 1536001},
        {"data get() error", "", 819201},
        {"Not found SPS/PPS", nal(5, 300)},
        {"could not get SPS/PPS", nal(7, 40) + nal(8, 47) + nal(6, 50)}, // one byte too many
        {"could not get SPS/PPS", nal(7, 40) + nal(8, 3) + nal(1, 300)}, // no SEI
        {nullptr, nal(7, 40) + nal(8, 46) + nal(6, 50)},
    };
    uint32_t picture = 0;
    for (const auto& c : cases) {
        PICTURE_HEADER header = card.pictureHeader(1, picture += 5);
        header.size = c.size;
        card.setPictureHeader(1, picture, header);
        patchFile(card.chunkPath(1), header.offset, c.bytes);
    }
    Engine engine(1);
    ASSERT_EQ(engine.preGetData(), 1);
    char buffer[kParameterSetAnswerBytes] = {};
    for (const auto& c : cases) {
        log.clear();
        EXPECT_EQ(engine.get_sps_pps(buffer, 1), c.message ? -1 : 96);
        EXPECT_TRUE(!c.message || log.has(3, c.message, "m_get_sps_pps")) << c.message << log.dump();
    }
    const int length = engine.get_sps_pps(buffer, 1);
    EXPECT_EQ(std::string(buffer, length > 0 ? static_cast<size_t>(length) : 0), parameterSets());
    EXPECT_EQ(engine.offset(), 30u); // the crossing lands on its first picture, the move leaves that behind
    EXPECT_EQ(engine.get_sps_pps(buffer, 3), -1);
    EXPECT_EQ(log.count(3, "Not exist next stream", "m_get_sps_pps"), 3) << log.dump();
}

} // namespace test

#include "tests/engine/engine_fixture.h"

namespace test {

/// A NAL with a four-byte start code and `payload` bytes behind its type.
static std::string nal(int type, size_t payload) {
    return std::string("\0\0\0\1", 4) + static_cast<char>(0x60 | type) + std::string(payload, '\x55');
}

TEST_F(EngineTest, ParameterSetsAreCutFromSpsToSeiOfTheFirstPictureThatHasThem) {
    const std::string sps = nal(7, 10), pps = nal(8, 3), sei = nal(6, 1), slice = nal(5, 40);
    const std::string none = "Not found SPS/PPS\n", unfit = "could not get SPS/PPS\n";
    // A picture, its size in the header where that is another, and what is cut out or the message.
    const std::tuple<std::string, uint32_t, std::string> cases[] = {
        {"", 1536001, "invalid picH.size=1536001\n"},
        {"", 819201, "data get() error\n"},
        {nal(9, 1) + sps + pps + sei + slice, 0, sps + pps},    // behind an access unit delimiter
        {sps + sei + pps + slice, 0, unfit},                    // the SEI stands before the PPS only
        {sps + pps + nal(6, 0), 0, unfit},                      // the SEI lies in the last five bytes
        {sps + pps + sei, 0, sps + pps},                        // just before them
        {pps + sps + sei + slice, 0, none},                     // the PPS stands before the SPS only
        {sps.substr(1) + pps.substr(1) + sei + slice, 0, none}, // three-byte start codes
        {nal(7, 40) + nal(8, 46) + sei, 0, nal(7, 40) + nal(8, 46)},
        {nal(7, 40) + nal(8, 47) + sei, 0, unfit}, // one byte too many
    };
    card.stream(1).from("12:00:00").pictures(55).gop(5).pictureSize(400).closed();
    card.stream(2).from("12:01:00").pictures(30).firstI(1).closed();
    card.stream(3).from("12:02:00").pictures(40).firstI(40).closed();
    uint32_t picture = 0;
    for (const auto& [bytes, size, result] : cases)
        card.changePicture(1, picture += 5, [&, &bytes = bytes, size = size](PICTURE_HEADER& header) {
            header.size = size != 0 ? size : static_cast<uint32_t>(bytes.size());
            patchFile(card.chunkPath(1), header.offset, bytes);
        });
    Engine engine(1);
    ASSERT_EQ(engine.preGetData(), 1);
    const auto cut = [&](int attempts) {
        log.clear();
        char buffer[kParameterSetAnswerBytes];
        const int length = engine.get_sps_pps(buffer, attempts);
        return length > 0 ? std::string(buffer, static_cast<size_t>(length)) : log.dump();
    };
    for (const auto& [bytes, size, result] : cases) EXPECT_TRUE(cut(1).ends_with(result)) << log.dump();
    EXPECT_EQ(cut(1), parameterSets());
    EXPECT_TRUE(cut(1).ends_with("Not exist I-frame in the next stream\n")) << log.dump();
    EXPECT_TRUE(cut(1).ends_with("Not exist next stream\n")) << log.dump();
}

} // namespace test

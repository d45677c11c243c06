#include "tests/engine/engine_fixture.h"

namespace test {

TEST(BlockMakerTest, StampsOfPicturesThatAreFewAndFarBetween) {
    constexpr uint32_t kAtMs = 100000;
    const struct {
        const char* what;
        PBTYPE type;
        uint32_t speed;
        int sinceLastMs;    ///< picture time since the previous block
        uint32_t frameRate; ///< 250: 3600 units a frame
        uint32_t step;
    } cases[] = {
        {"fast, two frames at 1x", PB_FF, 20, 160, 250, 3600},
        {"fast, just below", PB_FF, 20, 159, 250, 7150},
        {"reverse, just below", PB_REW, 20, -159, 250, 7150},
        {"fast, divided before multiplied", PB_FF, 70, 100, 250, 1280},
        {"fast, frame rate unknown", PB_FF, 20, 1000, 0, 3000},
        {"normal, frame rate unknown", PB_NORMAL, 10, 0, 0, 3000},
        {"step back, frame rate unknown", PB_STEP_BACK, 10, -40, 0, 3000},
    };
    for (const auto& c : cases) {
        BlockMaker output;
        const auto last = kAtMs - static_cast<uint32_t>(c.sinceLastMs);
        output.countFrom({last / 1000, last % 1000});
        EXPECT_EQ(output.stampStep({c.type, c.speed}, {kAtMs / 1000, kAtMs % 1000}, c.frameRate), c.step)
            << c.what;
    }
}

TEST_F(EngineTest, APictureThatCannotBeReadIsTriedAgain) {
    card.stream(1).from("12:00:00").pictures(5).closed();
    PICTURE_HEADER unreadable = card.pictureHeader(1, 0);
    unreadable.size = 4;
    card.setPictureHeader(1, 0, unreadable);
    Engine engine(1);
    ASSERT_EQ(engine.preGetData(), 1);
    engine.play({{"Jump", "oldest"}});
    EXPECT_EQ(engine.turn(), "");
    EXPECT_EQ(engine.turn(), "") << "not PAUSE";
    const std::string second = std::to_string(at("12:00:00").seconds());
    EXPECT_TRUE(log.has(6, "m_pbType changed. streamID=1 pbTime=" + second, "getPictureData")) << log.dump();
}

TEST_F(EngineTest, FirstPositioningNeedsTheStream) {
    EXPECT_EQ(Engine(9).preGetData(), 0);
    EXPECT_TRUE(log.has(6, "sendThread will return.[video stream error]")) << log.dump();
    card.stream(1).from("12:00:00").pictures(50).closed();
    CpbPickerThread byTime({.searchMode = kStartAtTime, .searchValue = at("12:00:01").seconds()});
    EXPECT_EQ(byTime.preGetData(), 1);
}

} // namespace test

#include "tests/engine/engine_fixture.h"

namespace test {

TEST_F(EngineTest, BlockAndTimestampFollowPlayType) {
    card.stream(1).from("12:00:00").fps(25).pictures(5).closed();             // 3600 units a frame
    card.stream(2).from("12:10:00").fps(25).frameSet(0).pictures(5).closed(); // no frame rate
    const struct {
        const char* what;
        uint32_t stream;
        PBTYPE type;
        uint32_t speed;
        int sinceLastMs; ///< picture time since the previous block
        uint32_t step;   ///< of the time stamp; 0 = a still block instead of the picture
    } cases[] = {
        {"normal", 1, PB_NORMAL, 10, 40, 3600},
        {"normal, the same picture", 1, PB_NORMAL, 10, 0, 3600},
        {"normal, frame rate 0", 2, PB_NORMAL, 10, 0, 3000},
        {"slow", 1, PB_SLOW, 5, 40, 7200},
        {"fast, two frames at 1x", 1, PB_FF, 20, 160, 3600},
        {"fast, just below", 1, PB_FF, 20, 159, 7150},
        {"fast, divided before multiplied", 1, PB_FF, 70, 100, 1280},
        {"fast, frame rate 0", 2, PB_FF, 20, 1000, 3000},
        {"fast, no further", 1, PB_FF, 20, 0, 0},
        {"reverse", 1, PB_REW, 10, -40, 3600},
        {"reverse, no further", 1, PB_REW, 10, 0, 0},
        {"slow reverse", 1, PB_SLOW_REW, 5, -39, 7020},
        {"step", 1, PB_STEP_FWD, 10, 40, 3600},
        {"step back, frame rate 0", 2, PB_STEP_BACK, 10, -40, 3000},
        {"pause, another picture", 1, PB_PAUSE, 0, 40, 3600},
        {"pause", 1, PB_PAUSE, 0, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Engine engine(c.stream);
        ASSERT_EQ(engine.preGetData(), 1);
        engine.m_pbType = c.type;
        engine.playSpeed = c.speed;
        const PB_STREAM_TIME pts = engine.m_pbStream.getNowPts();
        const auto ms = static_cast<uint32_t>(std::abs(c.sinceLastMs));
        const PB_STREAM_TIME span(ms / 1000, ms % 1000);
        engine.m_prevPts = c.sinceLastMs < 0 ? pts + span : pts - span;
        engine.m_timestamp = 0xFFFFFFFF;
        EXPECT_EQ(engine.block(), c.step > 0 ? pictureBytes(c.stream, 0, true) : "PAUSE");
        EXPECT_EQ(engine.m_timestamp, 0xFFFFFFFF + c.step);
        const bool step = c.type == PB_STEP_FWD || c.type == PB_STEP_BACK;
        EXPECT_EQ(engine.m_pbType, step ? PB_PAUSE : c.type);
    }
    const std::string second = std::to_string(at("12:00:00").seconds());
    EXPECT_TRUE(log.has(6, "m_pbType changed. streamID=1 pbTime=" + second, "getPictureData")) << log.dump();

    PICTURE_HEADER unreadable = card.pictureHeader(2, 0);
    unreadable.size = 4;
    card.setPictureHeader(2, 0, unreadable);
    Engine paused(2);
    ASSERT_EQ(paused.preGetData(), 1);
    paused.m_pbRefresh = 1;
    EXPECT_EQ(paused.block(), "");
    EXPECT_EQ(paused.m_pbRefresh, 1u) << "until it can be read";
}

TEST_F(EngineTest, FirstPositioningNeedsTheStream) {
    EXPECT_EQ(Engine(9).preGetData(), 0);
    EXPECT_TRUE(log.has(6, "sendThread will return.[video stream error]")) << log.dump();
    card.stream(1).from("12:00:00").pictures(50).closed();
    CpbPickerThread byTime({.searchMode = kSearchModeTime, .searchValue = at("12:00:01").seconds()});
    EXPECT_EQ(byTime.preGetData(), 1);
}

} // namespace test

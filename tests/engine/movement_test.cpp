#include <atomic>
#include <cstdlib>

#include "tests/engine/engine_fixture.h"

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && !defined(__clang__)
#define COUNTS_ALLOCATIONS 1
static std::atomic<long> allocations{0};
extern "C" void* __libc_malloc(size_t);
extern "C" void* malloc(size_t size) {
    ++allocations;
    return __libc_malloc(size);
}
#endif

namespace test {

constexpr char kStill[] = "PAUSE";

class MovementTest : public EngineTest {
protected:
    /// Ten seconds at 30 frames, an I-picture every second. The recorder's scale is the wall clock: play
    /// leaves its time stamp as the playback time, which a step across streams searches by.
    void tenSeconds(uint32_t stream, const char* from) {
        card.stream(stream).from(from).firstPts(atMs(from)).fps(30).pictures(300).gop(30).closed();
    }
    void expectPausedAt(Engine& engine, uint8_t reason, uint32_t offset) {
        EXPECT_EQ(engine.getCurrentPlayMode(), PB_PAUSE);
        EXPECT_EQ(engine.getCurrentPauseMode(), reason);
        EXPECT_EQ(engine.offset(), offset);
    }
};

TEST_F(MovementTest, NormalPlayShowsEveryPictureOnceAcrossStreams) {
    card.stream(1).from("12:00:00").pictures(40).gop(30).closed();
    card.stream(2).from("12:00:05").pictures(3).closed();
    Engine engine(1);
    ASSERT_EQ(engine.preGetData(), 1);
    engine.play();
    for (uint32_t i = 0; i < 40; ++i) EXPECT_EQ(engine.turn(), pictureBytes(1, i, i % 30 == 0)) << i;
    for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(engine.turn(), pictureBytes(2, i, i == 0)) << i;
    EXPECT_FALSE(log.has(6, "m_moveStream error!"));
    EXPECT_EQ(engine.turn(), kStill);
    EXPECT_TRUE(log.has(6, "m_moveStream error!")) << log.dump();
    expectPausedAt(engine, kPauseEnd, 2);
}

TEST_F(MovementTest, FastPlayGoesBySkipTimeAndStopsAtBothEnds) {
    tenSeconds(1, "12:00:00");
    Engine engine(1);
    ASSERT_EQ(engine.preGetData(), 1);
    engine.play({{"Scale", "2"}});
    for (const uint32_t i : {60u, 120u, 180u, 240u}) EXPECT_EQ(engine.turn(), pictureBytes(1, i, true)) << i;
    EXPECT_EQ(engine.turn(), pictureBytes(1, 270, true));
    EXPECT_TRUE(log.has(6, "m_moveStreamTime rearch end")) << log.dump();
    expectPausedAt(engine, kPauseEnd, 270);

    engine.play({{"Scale", "-4"}});
    for (const uint32_t i : {150u, 30u}) EXPECT_EQ(engine.turn(), pictureBytes(1, i, true)) << i;
    EXPECT_EQ(engine.turn(), pictureBytes(1, 0, true));
    EXPECT_TRUE(log.has(6, "m_moveStreamTime rearch start")) << log.dump();
    expectPausedAt(engine, kPauseStart, 0);
}

TEST_F(MovementTest, StepsShowOnePictureAndPause) {
    tenSeconds(1, "12:00:00");
    tenSeconds(2, "12:01:00");
    Engine engine(2);
    ASSERT_EQ(engine.preGetData(), 1);
    const struct {
        const char* step;
        uint32_t stream, offset;
    } cases[] = {{"3", 2, 3}, {"1", 2, 4}, {"-1", 2, 0}, {"-1", 1, 270}, {"-5", 1, 240}, {"29", 1, 269}};
    for (const auto& c : cases) {
        engine.play({{"Step", c.step}});
        EXPECT_EQ(engine.turn(), pictureBytes(c.stream, c.offset, c.offset % 30 == 0)) << c.step;
        expectPausedAt(engine, kPauseNone, c.offset);
        EXPECT_EQ(engine.turn(), kStill);
    }
    engine.play({{"Step", "-1000"}});
    engine.turn();
    expectPausedAt(engine, kPauseStart, 0);
    EXPECT_TRUE(log.has(6, "m_moveStreamStep error!")) << log.dump();
}

TEST_F(MovementTest, PlayingWithinAStreamNeitherAllocatesNorLogs) {
    tenSeconds(1, "12:00:00");
    Engine engine(1);
    ASSERT_EQ(engine.preGetData(), 1);
    engine.play();
    engine.turn();
    const size_t lines = log.lines().size();
    int shown = 0;
#ifdef COUNTS_ALLOCATIONS
    simulated::takeSleeps();
    const long before = allocations;
#endif
    for (int i = 0; i < 250; ++i) {
        engine.m_sleepTimer({}, {});
        shown += engine.movePictureData() == 0 && engine.getPictureData(engine.m_buffer.data()) > 5;
    }
#ifdef COUNTS_ALLOCATIONS
    // The simulated clock's list of sleeps grows as vectors do; nothing else may.
    EXPECT_LE(allocations - before, 10);
#endif
    EXPECT_EQ(shown, 250);
    EXPECT_EQ(log.lines().size(), lines) << log.dump();
}

} // namespace test

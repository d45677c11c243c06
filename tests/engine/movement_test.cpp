#include <atomic>
#include <cstdlib>

#include "tests/engine/engine_fixture.h"

static std::atomic<long> allocations{0};
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) && !defined(__clang__)
extern "C" void* __libc_malloc(size_t);
extern "C" void* malloc(size_t size) {
    ++allocations;
    return __libc_malloc(size);
}
#endif

namespace test {

TEST_F(EngineTest, PlayingWithinAStreamNeitherAllocatesNorLogs) {
    card.stream(1).from("12:00:00").pictures(300).closed();
    Engine engine(1);
    ASSERT_EQ(engine.preGetData(), 1);
    engine.play();
    engine.turn();
    const size_t lines = log.lines().size();
    simulated::takeSleeps();
    const long before = allocations;
    int shown = 0;
    for (int i = 0; i < 250; ++i) {
        engine.m_sleepTimer({}, {});
        shown += engine.movePictureData() == 0 && engine.getPictureData(engine.m_buffer.data()) > 5;
    }
    // The simulated clock's list of sleeps grows as vectors do; nothing else may.
    EXPECT_LE(allocations - before, 10);
    EXPECT_EQ(shown, 250);
    EXPECT_EQ(log.lines().size(), lines) << log.dump();
}

} // namespace test

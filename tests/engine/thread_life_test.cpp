#include <thread>
#include <unistd.h>

#include "platform/kw_com.h"
#include "platform/output_reader.h"
#include "platform/paths.h"
#include "tests/engine/engine_fixture.h"

namespace test {

TEST_F(EngineTest, ThreadPutsOutWhatItReadsUntilEnded) {
    card.stream(1).from("12:00:00").pictures(40).gop(30).closed();
    auto* const engine = static_cast<CpbPickerThread*>(
        CpbPickerThread::Instance({.searchMode = kStartAtStream, .searchValue = 1}));
    simulated::hold(); // time moves only while the reader waits, so that it misses nothing
    engine->startThread();
    OutputReader reader;
    while (!reader.attach(paths().ipcKey, kOutputMemoryProject)) std::this_thread::yield();
    OutputBlock block;
    while (reader.next(block, std::chrono::milliseconds(10)) == ReadResult::timeout)
        simulated::advanceUs(100'000);
    EXPECT_TRUE(engine->isWatched());
    EXPECT_EQ(std::string(block.data.begin(), block.data.end()), pictureBytes(1, 0, true));
    engine->end(); // wakes it from a pause that would not pass
    EXPECT_TRUE(log.dump().ends_with("endGetData\n")) << log.dump();
    EXPECT_FALSE(OutputReader().attach(paths().ipcKey, kOutputMemoryProject));
    simulated::resume();
}

TEST_F(EngineTest, TeardownIsTriedFromSecond61UntilItIsDelivered) {
    Engine byHand(1); // without its thread and without output memory
    byHand.setKeepAlive(7);
    int listening = -1;
    for (const int second : {0, 60, 61, 62, 63, 64}) {
        if (second == 63) listening = s_create_serv_socket(paths().controlSocket);
        if (second == 64) close(listening);
        byHand.pass(byHand.m_buffer.data());
        simulated::advanceUs(second == 0 ? 60'000'000 : 1'000'000);
    }
    EXPECT_EQ(log.count(3, "s_connect_serv error", "m_sendTeardown"), 2) << log.dump();
    EXPECT_EQ(log.count(3, "shm_write_data error", "pickerThread"), 6) << log.dump();
}

} // namespace test

#include <thread>
#include <unistd.h>

#include "platform/kw_com.h"
#include "platform/output_reader.h"
#include "platform/paths.h"
#include "tests/engine/engine_fixture.h"

namespace test {

class ThreadLifeTest : public EngineTest {
protected:
    ThreadLifeTest() { card.stream(1).from("12:00:00").pictures(40).gop(30).closed(); }
    ~ThreadLifeTest() override {
        simulated::resume();
        if (CpickerThread::m_Instance != nullptr) CpickerThread::m_Instance->end();
    }

    static CpbPickerThread* openEngine() {
        return static_cast<CpbPickerThread*>(
            CpbPickerThread::Instance({.searchMode = kStartAtStream, .searchValue = 1}));
    }
};

TEST_F(ThreadLifeTest, RunsUntilEndedWhileTheMainThreadCommands) {
    CpbPickerThread* const engine = openEngine();
    ASSERT_EQ(engine->preGetData(), 1);
    char sets[kParameterSetAnswerBytes];
    EXPECT_GT(engine->get_sps_pps(sets, 1), 0);
    simulated::hold(); // time moves only while the reader waits, so that it misses nothing
    engine->startThread();
    OutputReader reader;
    while (!reader.attach(paths().ipcKey, kOutputMemoryProject)) std::this_thread::yield();
    OutputBlock block;
    while (reader.next(block, std::chrono::milliseconds(10)) == ReadResult::timeout)
        simulated::advanceMs(100);
    simulated::resume();
    EXPECT_EQ(std::string(block.data.begin(), block.data.end()), pictureBytes(1, 0, true));
    const rtsp_request play = makeRequest(RTSP_REQ_PLAY), pause = makeRequest(RTSP_REQ_PAUSE);
    for (int i = 0; i < 50; ++i) {
        engine->analyzeEventData(i % 3 == 0 ? &pause : &play);
        engine->setKeepAlive(987);
        engine->setFFSkipTime(500);
        engine->getCurrentPlayMode();
        engine->getCurrentPauseMode();
        EXPECT_EQ(engine->getFatalError(), 0u);
        ASSERT_EQ(reader.next(block, std::chrono::seconds(20)), ReadResult::block);
    }
    simulated::hold();
    engine->end(); // wakes it from a pause that would not pass
    EXPECT_TRUE(log.lines().back().text.ends_with("endGetData")) << log.dump();
    EXPECT_FALSE(OutputReader().attach(paths().ipcKey, kOutputMemoryProject));
}

TEST_F(ThreadLifeTest, EngineWithoutOutputMemoryCanStillBeEnded) {
    unlink(paths().ipcKey);
    CpbPickerThread* const engine = openEngine();
    engine->startThread();
    engine->end();
    EXPECT_TRUE(log.has(3, "shm_create error")) << log.dump();
    EXPECT_FALSE(log.has(6, "preGetData()")) << log.dump();
    EXPECT_FALSE(log.has(6, "endGetData", "pickerThread"));
}

TEST_F(ThreadLifeTest, TeardownIsTriedFromSecond61UntilItIsDelivered) {
    Engine engine(1); // its thread begins at second 0, driven by hand and without output memory
    int listening = -1;
    for (const time_t second : {60, 61, 62, 63, 64}) {
        if (second == 63) listening = s_create_serv_socket(paths().controlSocket);
        if (second == 64) close(listening);
        simulated::set({.tv_sec = second, .tv_usec = 0});
        engine.pass(engine.m_buffer.data());
    }
    EXPECT_EQ(log.count(3, "s_connect_serv error", "m_sendTeardown"), 2) << log.dump();
    EXPECT_EQ(log.count(3, "shm_write_data error", "pickerThread"), 5) << log.dump();
}

} // namespace test

#include <fcntl.h>
#include <thread>
#include <unistd.h>

#include "platform/kw_com.h"
#include "platform/output_reader.h"
#include "platform/paths.h"
#include "shm/shm_server.h"
#include "tests/engine/engine_fixture.h"

namespace test {

class ThreadLifeTest : public EngineTest {
protected:
    ThreadLifeTest() { card.stream(1).from("12:00:00").pictures(40).gop(30).closed(); }
    ~ThreadLifeTest() override {
        if (CpickerThread::m_Instance != nullptr) CpickerThread::m_Instance->end();
    }

    CpbPickerThread* openEngine(CtavirnShmServer* shm = nullptr) {
        return static_cast<CpbPickerThread*>(
            CpbPickerThread::Instance({.searchMode = kSearchModeId, .searchValue = 1, .shmServer = shm}));
    }
    /// Attached to the output of a thread that has just been started.
    void attach(OutputReader& reader) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!reader.attach(paths().ipcKey, kOutputMemoryProject)) {
            ASSERT_LT(std::chrono::steady_clock::now(), deadline);
            std::this_thread::yield();
        }
    }
};

TEST_F(ThreadLifeTest, OneEngineAtATimeMarkedActive) {
    CtavirnShmServer shm;
    shm.m_status = static_cast<REC_STATUS*>(shm.creat(world.statusKey()));
    ASSERT_NE(shm.m_status, nullptr);
    EXPECT_EQ(CpickerThread::Instance({}), nullptr);
    CpbPickerThread* const engine = openEngine(&shm);
    EXPECT_EQ(CpbPickerThread::Instance({}), engine);
    EXPECT_EQ(shm.m_status->pbActive, 1u);
    engine->end(); // before anything was started
    EXPECT_EQ(shm.m_status->pbActive, 0u);
    EXPECT_EQ(CpickerThread::m_Instance, nullptr);
}

TEST_F(ThreadLifeTest, RunsUntilEndedWhileTheMainThreadCommands) {
    CpbPickerThread* const engine = openEngine();
    ASSERT_EQ(engine->preGetData(), 1);
    char sets[kParameterSetAnswerBytes];
    EXPECT_GT(engine->get_sps_pps(sets, 1), 0);
    simulated::hold(); // time moves only while the reader waits, so that it misses nothing
    engine->startThread();
    OutputReader reader;
    attach(reader);
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
    engine->end();
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

class KeepAliveTest : public ThreadLifeTest {
protected:
    // A thread that begins at second 0, driven by hand.
    KeepAliveTest() { simulated::set({.tv_sec = 0, .tv_usec = 0}); }
    void passAt(time_t second) {
        simulated::set({.tv_sec = second, .tv_usec = 0}); // the pass begins with a pause of 100 ms
        engine.pass(engine.m_buffer.data());
    }
    Engine engine{1};
};

TEST_F(KeepAliveTest, SilentSessionIsTornDownAfterSixtySeconds) {
    const int listening = s_create_serv_socket(paths().controlSocket);
    ASSERT_GE(listening, 0);
    fcntl(listening, F_SETFL, O_NONBLOCK);
    engine.setKeepAlive(987);
    // Each delivered notice counts as a keep-alive, taken by the pass behind it.
    for (const auto& [second, notice] : {std::pair(1, 0), {61, 0}, {62, 1}, {63, 0}, {123, 0}, {124, 1}}) {
        passAt(second);
        const int client = s_accept_client(listening);
        EXPECT_EQ(client >= 0, notice == 1) << second;
        if (client < 0) continue;
        rtsp_request request;
        ASSERT_GE(s_read_data(client, &request, sizeof request), 0);
        rtsp_request expected = makeRequest(RTSP_REQ_TEARDOWN, {{"Session", "987"}});
        EXPECT_EQ(std::memcmp(&request, &expected, sizeof request), 0);
        close(client);
    }
    // Without a running thread there is no memory to write to; a pass says so and goes on.
    EXPECT_EQ(log.count(3, "shm_write_data error", "pickerThread"), 6) << log.dump();
    close(listening);
}

TEST_F(KeepAliveTest, UndeliveredNoticeIsTriedAgainInEveryPass) {
    for (const time_t second : {60, 61, 62, 63}) passAt(second);
    engine.setKeepAlive(987);
    passAt(64);
    EXPECT_EQ(log.count(3, "s_connect_serv error", "m_sendTeardown"), 3) << log.dump();
}

} // namespace test

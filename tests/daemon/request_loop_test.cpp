// A request loop on its world's real socket, with the real engine and a clock that the test moves.
#include "daemon/request_loop.h"

#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <thread>
#include <unistd.h>

#include "daemon/signals.h"
#include "platform/kw_com.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "shm/shm_server.h"
#include "tests/support/card.h"
#include "tests/support/log_recorder.h"
#include "tests/support/simulated_clock.h"
#include "tools/control_client.h"

namespace {

namespace simulated = test::simulated;

std::string refusal(char byte3) {
    std::string answer(96, '\xFF');
    answer[3] = byte3;
    return answer;
}
const std::string kSetUpFailed(96, '\0');

/// Asks again until the answer is the one waited for; each question waits for its answer.
template <class Question> bool eventually(Question question) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!question())
        if (std::chrono::steady_clock::now() > end) return false;
    return true;
}

/// Holds the clock, so that no simulated minute passes behind the test's back.
struct RequestLoopTest : testing::Test {
    void SetUp() override {
        simulated::hold();
        status.m_status = static_cast<REC_STATUS*>(status.creat(world.statusKey()));
        g_loopFlag = kLoopRun;
        setStopSocket(listening);
        thread = std::thread([this] {
            RequestLoop loop(listening, status);
            loop.run();
            loop.shutDown();
        });
    }
    void TearDown() override { stop(); }

    void stop() {
        if (!thread.joinable()) return;
        simulated::freeze();
        sigcatch(SIGTERM);
        thread.join();
        simulated::resume();
        setStopSocket(-1);
        close(listening);
    }

    std::string ask(int32_t type, const std::string& session = "", const std::string& name = "",
                    const std::string& value = "") {
        ControlRequest request(type);
        if (!session.empty()) request.with("Session", session);
        if (!name.empty()) request.with(name, value);
        return exchange(paths().controlSocket, request.record).value_or("no answer");
    }
    /// Asks for something that ends the engine, whose thread has to come out of its pause for that.
    std::string askFreely(int32_t type, const std::string& session = "") {
        simulated::freeze();
        const std::string answer = ask(type, session);
        simulated::hold();
        return answer;
    }
    std::string statusWord(const std::string& session = "") {
        return readStatusAnswer(ask(RTSP_REQ_STATUS, session));
    }
    /// Lets the playback thread go on until the status is `word`; each look renews the keep-alive.
    bool becomes(const std::string& word, long stepMs) {
        return eventually([&] {
            simulated::advanceMs(stepMs);
            return statusWord("77") == word;
        });
    }
    bool logged(int priority, const std::string& text) const { return log.has(priority, text, "main"); }

    test::World world;
    test::LogRecorder log;
    CtavirnShmServer status;
    const int listening = s_create_serv_socket(paths().controlSocket);
    std::thread thread;
};

TEST_F(RequestLoopTest, SaysWhyNoSessionWasOpened) {
    EXPECT_EQ(statusWord(), "init");
    EXPECT_EQ(ask(RTSP_REQ_OPEN), refusal('\xFC'));
    EXPECT_TRUE(log.has(LOG_INFO, "error No = 5")) << log.dump();
    EXPECT_EQ(statusWord(), "error") << "the last set-up failed";

    test::Card card(world);
    EXPECT_EQ(ask(RTSP_REQ_OPEN), refusal('\xFE'));
    EXPECT_TRUE(logged(LOG_ERR, "stream not found")) << log.dump();

    card.stream(1).from("12:00:00").pictures(30).gop(10).closed();
    EXPECT_EQ(ask(RTSP_REQ_OPEN), test::parameterSets());
    EXPECT_TRUE(logged(LOG_INFO, "SPS/PPS found")) << log.dump();
    EXPECT_EQ(ask(RTSP_REQ_OPEN), refusal('\xFD'));
    EXPECT_TRUE(logged(LOG_ERR, "picker already existed")) << log.dump();
    EXPECT_EQ(statusWord(), "pause") << "the open session is untouched";
    EXPECT_EQ(askFreely(RTSP_REQ_TEARDOWN), "");
    EXPECT_EQ(statusWord(), "init");
    EXPECT_EQ(status.m_status->pbActive, 0u);
}

TEST_F(RequestLoopTest, ServesTheRegisteredSessionOnly) {
    test::Card(world).stream(1).from("12:00:00").pictures(90).gop(10).closed();
    ASSERT_EQ(ask(RTSP_REQ_OPEN), test::parameterSets());
    ask(RTSP_REQ_SESSION, "77");
    ask(RTSP_REQ_SESSION, "78"); // too late
    EXPECT_EQ(statusWord("77"), "pause");
    for (const char* stranger : {"78", ""}) {
        EXPECT_EQ(statusWord(stranger), "error");
        EXPECT_EQ(ask(RTSP_REQ_PLAY, stranger), "");
        EXPECT_EQ(ask(RTSP_REQ_FFTIME, stranger, "FFTime", "500"), "");
    }
    ask(RTSP_REQ_TEARDOWN, "78");
    for (const int32_t type : {0, 2, 9, -1, INT32_MIN, INT32_MAX}) EXPECT_EQ(ask(type, "77"), "") << type;
    simulated::advanceMs(1000);
    EXPECT_EQ(statusWord("77"), "pause");

    ask(RTSP_REQ_PLAY, "77");
    EXPECT_TRUE(becomes("play", 10));
    ask(RTSP_REQ_PAUSE, "77");
    EXPECT_TRUE(becomes("pause", 10));
    ask(RTSP_REQ_PLAY, "77", "Jump", "oldest");
    EXPECT_TRUE(becomes("pause(sof)", 100));
    ask(RTSP_REQ_PLAY, "77");
    EXPECT_TRUE(becomes("pause(eof)", 100));

    askFreely(RTSP_REQ_TEARDOWN, "77");
    EXPECT_EQ(log.count(LOG_INFO, "TEARDOWN", "main"), 1) << log.dump();
    ask(RTSP_REQ_SESSION, "78");
    EXPECT_EQ(statusWord("78"), "init") << "also while idle, a number registers";
    ask(RTSP_REQ_TEARDOWN, "78");
    EXPECT_EQ(statusWord("78"), "init") << "and a teardown leaves it";
}

TEST_F(RequestLoopTest, WalksDownPastStreamsThatCantBePlayed) {
    test::Card card(world);
    for (const uint32_t id : {1u, 2u, 3u})
        card.stream(id)
            .from(id == 1   ? "12:00:00"
                  : id == 2 ? "12:01:00"
                            : "12:02:00")
            .pictures(30)
            .gop(10)
            .closed();
    card.setStreamHeader(2, STREAM_HEADER{});
    card.sql("UPDATE STREAM SET chunkID = 60000 WHERE streamID = 3");
    const auto openTries = [&](uint32_t id) {
        log.clear();
        const std::string answer = ask(RTSP_REQ_OPEN);
        EXPECT_TRUE(logged(LOG_INFO, "DB_STREAM streamID=" + std::to_string(id) + "\n")) << log.dump();
        return answer;
    };
    EXPECT_EQ(openTries(3), kSetUpFailed);
    EXPECT_TRUE(logged(LOG_ERR, "m_picker->get_sps_pps() error") && logged(LOG_ERR, "fatalerror=2"))
        << log.dump();
    EXPECT_EQ(statusWord(), "error");
    simulated::advanceMs(299'900);
    EXPECT_EQ(openTries(2), kSetUpFailed);
    EXPECT_EQ(statusWord(), "init") << "a damaged header is no fatal error";
    EXPECT_EQ(openTries(1), test::parameterSets());
    askFreely(RTSP_REQ_TEARDOWN);
    EXPECT_EQ(openTries(3), kSetUpFailed) << "a success forgets the bound";
    simulated::advanceMs(300'000);
    EXPECT_EQ(openTries(3), kSetUpFailed) << "and so do 300 seconds";

    card.sql("DELETE FROM STREAM WHERE streamID <> 2; UPDATE STREAM SET streamID = 1");
    EXPECT_EQ(openTries(1), kSetUpFailed);
    EXPECT_EQ(openTries(1), kSetUpFailed) << "below stream 1 there is nothing to look for";
}

TEST_F(RequestLoopTest, EndsTheSessionWhenTheCardIsFormattedAndWhenItStops) {
    test::Card(world).stream(1).from("12:00:00").pictures(30).gop(10).closed();
    ask(RTSP_REQ_OPEN);
    ask(RTSP_REQ_SESSION, "77");
    sigcatch(SIGUSR1);
    sigcatch(SIGUSR2); // taken back before anyone asked
    EXPECT_EQ(statusWord("77"), "pause");
    sigcatch(SIGUSR1);
    EXPECT_EQ(askFreely(RTSP_REQ_OPEN), test::parameterSets()) << "the request itself is served";
    EXPECT_TRUE(logged(LOG_ERR, "format: destroy pickerThread")) << log.dump();
    EXPECT_EQ(log.count(LOG_INFO, "catch SIGUSR1 (10)", "sigcatch"), 2) << log.dump();
    EXPECT_EQ(statusWord(), "pause") << "a new session, no number registered yet";

    stop();
    EXPECT_TRUE(logged(LOG_INFO, "loop out")) << log.dump();
    EXPECT_TRUE(log.has(LOG_INFO, "catch SIGINT|SIGTERM|SIGQUIT (15)", "sigcatch")) << log.dump();
    EXPECT_EQ(status.m_status->pbActive, 0u);
}

TEST_F(RequestLoopTest, EndsASessionThatNobodyKeepsAlive) {
    test::Card(world).stream(1).from("12:00:00").pictures(30).gop(10).closed();
    ask(RTSP_REQ_OPEN);
    ask(RTSP_REQ_SESSION, "77");
    ask(RTSP_REQ_PAUSE, "77"); // the notice carries the number of the last keep-alive
    const timeval begin = simulated::now();
    simulated::resume();
    // A status request of no session renews nothing; it fits once the session's number is forgotten.
    EXPECT_TRUE(eventually([&] { return statusWord() == "init"; }));
    EXPECT_GE(simulated::now().tv_sec - begin.tv_sec, 61);
    EXPECT_TRUE(logged(LOG_INFO, "TEARDOWN")) << log.dump();
}

} // namespace

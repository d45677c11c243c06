// The requests' meaning: with the real engine, on a clock that the test moves, and without the loop round it.
#include "daemon/request_loop.h"

#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "daemon/signals.h"
#include "platform/kw_com.h"
#include "platform/paths.h"
#include "shm/shm_server.h"
#include "tests/daemon/said.h"
#include "tests/support/card.h"
#include "tests/support/simulated_clock.h"
#include "tools/client/control_client.h"

namespace {

namespace simulated = test::simulated;

std::string refused(char byte3) {
    std::string answer(kParameterSetAnswerBytes, '\xFF');
    answer[3] = byte3;
    return answer;
}
const std::string kSetUpFailed(kParameterSetAnswerBytes, '\0');

std::string recordBytes(int32_t type) {
    const ControlRequest request(type);
    return {reinterpret_cast<const char*>(&request.record), sizeof request.record};
}

/// A request and what must come of it.
struct Row {
    int32_t type;
    std::string session;
    std::string answer = "";  ///< a status answer's word, else all bytes
    std::string message = ""; ///< logged, perhaps among others
    std::string header = "";  ///< "name: value"
    std::string until = "";   ///< the status word that comes of it
    long msBefore = 0;        ///< what passes since the row above
};

/// Holds the clock, so that no simulated minute passes behind the test's back.
struct RequestLoopTest : testing::Test {
    RequestLoopTest() {
        simulated::hold();
        g_loopFlag = kLoopNotBegun;
        status.openStatus(world.statusKey());
    }
    ~RequestLoopTest() override {
        simulated::resume();
        loop.shutDown();
        close(listening);
    }

    std::string ask(int32_t type, const std::string& session, const std::string& header = "") {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        const size_t colon = header.find(": ");
        ControlRequest request = ControlRequest(type).with("Session", session);
        if (!header.empty()) request.with(header.substr(0, colon), header.substr(colon + 2));
        loop.handle(request.record, ends[0]);
        close(ends[0]);
        std::string answer(200, '\0');
        answer.resize(static_cast<size_t>(recv(ends[1], answer.data(), answer.size(), MSG_WAITALL)));
        close(ends[1]);
        return type == RTSP_REQ_STATUS ? readStatusAnswer(answer) : answer;
    }
    void serve(const std::vector<Row>& rows) {
        for (const Row& row : rows) {
            SCOPED_TRACE(std::to_string(row.type) + " " + row.session + " " + row.header);
            log.clear();
            simulated::advanceMs(row.msBefore);
            // An engine that is ended has to come out of its pause.
            if (row.type == RTSP_REQ_TEARDOWN || row.type == RTSP_REQ_OPEN) simulated::freeze();
            EXPECT_EQ(ask(row.type, row.session, row.header), row.answer);
            EXPECT_NE(said(log).find(row.message), std::string::npos) << row.message << log.dump();
            simulated::hold();
            if (!row.until.empty()) waitUntil([&] { return ask(RTSP_REQ_STATUS, row.session) == row.until; });
        }
    }
    /// Time passes only as the playback thread sleeps, so that nothing is over before it is seen; by what it
    /// sleeps, or more.
    template <class Condition> void waitUntil(Condition holds, long seconds = 0) {
        for (int looks = 0; looks < 1'000'000; ++looks) {
            if (holds()) return;
            if (const auto sleeps = simulated::takeSleeps(); !sleeps.empty()) {
                lastSleep = sleeps.back();
                simulated::advance(seconds != 0 ? timeval{seconds, 0} : lastSleep);
            } else {
                std::this_thread::yield();
            }
        }
        ADD_FAILURE() << "has not come about";
    }
    /// Whether somebody waits to be accepted.
    bool isKnocking() const {
        pollfd knock{listening, POLLIN, 0};
        return poll(&knock, 1, 0) == 1;
    }

    test::World world;
    test::LogRecorder log;
    CtavirnShmServer status;
    const int listening = s_create_serv_socket(paths().controlSocket);
    RequestLoop loop{listening, status};
    timeval lastSleep{}; ///< of the playback thread, as far as waitUntil has seen it
};

TEST_F(RequestLoopTest, SaysWhyNoSessionIsOpenedAndServesTheOneThatIs) {
    serve({{RTSP_REQ_STATUS, "", "init"},
           {RTSP_REQ_OPEN, "", refused('\xFC'), "6 error No = 5\n"},
           {RTSP_REQ_STATUS, "", "error"}});
    test::Card card(world);
    serve({{RTSP_REQ_OPEN, "", refused('\xFE'), "3 main() stream not found\n"},
           {RTSP_REQ_STATUS, "", "error"}}); // for the search before
    card.stream(1).from("12:00:00").pictures(90).gop(10).closed();
    serve({{RTSP_REQ_OPEN, "", test::parameterSets(), "6 main() SPS/PPS found\n"},
           {RTSP_REQ_OPEN, "", refused('\xFD'), "3 main() picker already existed\n"},
           {RTSP_REQ_STATUS, "", "pause"},
           {RTSP_REQ_SESSION, "77"},
           {RTSP_REQ_SESSION, "78"}, // too late
           {RTSP_REQ_TEARDOWN, "78"},
           {RTSP_REQ_STATUS, "78", "error"},
           {RTSP_REQ_STATUS, "", "error"},
           {RTSP_REQ_STATUS, "77", "pause"}});
    for (const char* stranger : {"78", ""}) ask(RTSP_REQ_PLAY, stranger, "Jump: latest");
    EXPECT_EQ(said(log).find("Jump"), std::string::npos) << log.dump();
    serve({{.type = RTSP_REQ_PLAY, .session = "77", .until = "play"},
           {.type = RTSP_REQ_PAUSE, .session = "77", .until = "pause"},
           {RTSP_REQ_PLAY, "77", "", "Jump: oldest", "Jump: oldest", "pause(sof)"},
           {.type = RTSP_REQ_PLAY, .session = "77", .until = "pause(eof)"}});
    EXPECT_EQ(status.m_status->pbActive, 1u);
    const std::string cardAway = std::string(paths().card) + ".away";
    std::filesystem::rename(paths().card, cardAway);
    serve({{.type = RTSP_REQ_PLAY, .session = "77", .header = "Jump: oldest", .until = "error"}});
    std::filesystem::rename(cardAway, paths().card);
    serve({{.type = RTSP_REQ_PLAY, .session = "77", .header = "Jump: oldest", .until = "pause(sof)"},
           {RTSP_REQ_FFTIME, "77", "", "", "FFTime: 500"},
           {RTSP_REQ_FFTIME, "78", "", "", "FFTime: 400"},
           {RTSP_REQ_FFTIME, "77"},
           {.type = RTSP_REQ_PLAY, .session = "77", .header = "Scale: 2", .until = "play"}});
    waitUntil([&] { return lastSleep.tv_usec == 500'000; });
    serve({{RTSP_REQ_TEARDOWN, "", "", "6 main() TEARDOWN\n"}, // of whatever session there is
           {RTSP_REQ_SESSION, "78"}, // also while idle a number registers, and no teardown takes it back
           {RTSP_REQ_TEARDOWN, "78"},
           {RTSP_REQ_STATUS, "78", "init"},
           {RTSP_REQ_STATUS, "", "error"}});
    EXPECT_EQ(status.m_status->pbActive, 0u);
}

TEST_F(RequestLoopTest, WalksDownPastStreamsThatCantBePlayed) {
    test::Card card(world);
    for (const auto& [id, start] : {std::pair(1u, "12:00:00"), {2u, "12:01:00"}, {3u, "12:02:00"}})
        card.stream(id).from(start).pictures(30).gop(10).closed();
    card.setStreamHeader(2, STREAM_HEADER{});
    card.sql("UPDATE STREAM SET chunkID = 60000 WHERE streamID = 3");
    const std::string tried = "6 main() DB_STREAM streamID=";
    const auto fails = [&](const std::string& id, const std::string& error, long msBefore = 0) {
        const std::string gaveUp = "\n\n3 main() m_picker->get_sps_pps() error\n3 main() fatalerror=";
        return Row{RTSP_REQ_OPEN, "", kSetUpFailed, tried + id + gaveUp + error + "\n", "", "", msBefore};
    };
    serve({{RTSP_REQ_SESSION, "5"}, // forgotten by the failure
           fails("3", "2"),
           {RTSP_REQ_STATUS, "", "error"},
           fails("2", "0", 299'900), // a damaged header is no fatal error
           {RTSP_REQ_STATUS, "", "init"},
           {RTSP_REQ_OPEN, "", test::parameterSets(), tried + "1\n\n", "", "", 299'900},
           {RTSP_REQ_TEARDOWN, "", "", "6 main() TEARDOWN\n"},
           fails("3", "2"), // a success forgets the bound, and so do 300 seconds, a clock set back
           fails("3", "2", 300'000),
           fails("3", "2", -1000)});
    world.setCardState('1', '1');
    serve({{RTSP_REQ_OPEN, "", refused('\xFC'), "6 error No = 6\n"}});
    world.setCardState('1', '0');
    serve({fails("3", "2")}); // and so does a search that gave nothing
    card.sql("DELETE FROM STREAM WHERE streamID <> 2; UPDATE STREAM SET streamID = 1");
    serve({fails("1", "0"), fails("1", "0")}); // there is nothing to look for below stream 1
}

TEST_F(RequestLoopTest, EndsTheSessionWhenNobodyKeepsItAliveTheCardIsFormattedOrTheLoopStops) {
    test::Card(world).stream(1).from("12:00:00").pictures(30).gop(10).closed();
    const Row opens{RTSP_REQ_OPEN, "", test::parameterSets()};
    serve({opens, {RTSP_REQ_SESSION, "77"}});
    for (const int32_t type : {RTSP_REQ_PLAY, RTSP_REQ_PAUSE, RTSP_REQ_STATUS, RTSP_REQ_FFTIME}) {
        for (int i = 0; i < 4; ++i) {
            const time_t then = simulated::now().tv_sec + 20;
            waitUntil([&] { return simulated::now().tv_sec >= then; }, 10);
            ask(type, "77");
        }
        EXPECT_FALSE(isKnocking()) << type << " keeps the session alive";
    }
    const timeval begin = simulated::now();
    waitUntil([&] { return isKnocking(); }, 10);
    rtsp_request notice{};
    const int connection = recv_rtsp_request(listening, &notice);
    EXPECT_EQ(rtsp_session_id(&notice), 77u) << "of the last keep-alive";
    EXPECT_GE(simulated::now().tv_sec - begin.tv_sec, 61);
    simulated::freeze(); // the engine has to come out of its pause
    loop.handle(notice, connection);
    close(connection);
    serve({{RTSP_REQ_STATUS, "", "init"}, opens, {RTSP_REQ_SESSION, "78"}});

    sigcatch(SIGUSR1);
    serve({{RTSP_REQ_OPEN, "", test::parameterSets(), "3 main() format: destroy pickerThread\n"},
           {RTSP_REQ_STATUS, "", "pause"}}); // a new session, no number registered yet

    simulated::freeze();
    setStopSocket(listening);
    const int silent = s_create_client_socket();
    EXPECT_GE(s_connect_serv(silent, paths().controlSocket), 0);
    sigcatch(SIGTERM);
    setStopSocket(-1);
    EXPECT_EQ(recv_rtsp_request(listening, &notice), -1) << "a client that was in the queue sends nothing";
    close(silent);
    EXPECT_EQ(recv_rtsp_request(listening, &notice), -1) << "the loop had tested its flag before the signal";
    loop.run();
    loop.shutDown();
    for (const char* text : {"6 sigcatch() catch SIGUSR1 (10)\n", "6 main() loop out\n"})
        EXPECT_NE(said(log).find(text), std::string::npos) << text << log.dump();
    EXPECT_EQ(status.m_status->pbActive, 0u);
}

TEST_F(RequestLoopTest, EndsASessionWithoutPlaybackThreadToo) {
    test::Card(world).stream(1).from("12:00:00").pictures(30).gop(10).closed();
    unlink(paths().ipcKey); // so that there is no output memory
    serve({{RTSP_REQ_OPEN, "", test::parameterSets()}, {RTSP_REQ_SESSION, "77"}});
    g_loopFlag = kLoopRun;
    std::thread server([&] { loop.run(); });
    const auto word = [&](const char* session) {
        const ControlRequest request = ControlRequest(RTSP_REQ_STATUS).with("Session", session);
        return readStatusAnswer(exchange(paths().controlSocket, request.record, 300'000).value_or(""));
    };
    simulated::advanceMs(60'999);
    EXPECT_EQ(word("77"), "pause");
    EXPECT_EQ(word("78"), "error"); // served once the one before has been noted
    simulated::advanceMs(60'999);
    EXPECT_EQ(word("78"), "error");
    EXPECT_EQ(said(log).find("TEARDOWN"), std::string::npos);
    simulated::advanceMs(1);
    waitUntil([&] { return said(log).find("6 main() TEARDOWN") != std::string::npos; });
    EXPECT_EQ(word(""), "init");
    simulated::resume(); // for the rest behind the accept that fails
    g_loopFlag = kLoopStop;
    shutdown(listening, SHUT_RDWR);
    server.join();
    g_loopFlag = kLoopNotBegun;
}

TEST_F(RequestLoopTest, ServesOnAfterTwoHundredClientsThatDontBehave) {
    simulated::resume(); // the second of rest behind each that closes early
    const auto descriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = descriptors();
    g_loopFlag = kLoopRun;
    sigcatch(SIGUSR2);
    std::thread server([&] { loop.run(); });
    while (said(log).empty()) std::this_thread::yield(); // told before anybody connects
    const std::string records[] = {"",
                                   "short",
                                   std::string(sizeof(rtsp_request), '\xFF'),
                                   std::string(sizeof(rtsp_request) + 1, '\0'),
                                   recordBytes(RTSP_REQ_STATUS),
                                   recordBytes(RTSP_REQ_OPEN)};
    std::vector<int> clients;
    for (size_t n = 0; n < 200; ++n) {
        const std::string& bytes = records[n % std::size(records)];
        clients.push_back(s_create_client_socket());
        ASSERT_GE(s_connect_serv(clients.back(), paths().controlSocket), 0);
        send(clients.back(), bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n % 3 == 0) shutdown(clients.back(), SHUT_WR); // and never reads
    }
    for (const int client : clients) close(client);
    // Its turn comes behind the two hundred, and their simulated rests each give way to whatever else runs
    // here.
    const auto answer = exchange(paths().controlSocket, ControlRequest(RTSP_REQ_STATUS).record, 300'000);
    EXPECT_EQ(readStatusAnswer(answer.value_or("")), "error") << "no index, so no stream was found";
    EXPECT_EQ(descriptors(), before);
    g_loopFlag = kLoopStop;
    shutdown(listening, SHUT_RDWR);
    server.join();
}

TEST_F(RequestLoopTest, ReportsWhatCannotBeReadOrWritten) {
    rtsp_request request{};
    const int client = s_create_client_socket();
    EXPECT_GE(s_connect_serv(client, paths().controlSocket), 0);
    EXPECT_GE(s_write_data(client, &request, sizeof request - 1), 0);
    close(client);
    EXPECT_EQ(recv_rtsp_request(listening, &request), -1);
    EXPECT_EQ(recv_rtsp_request(-1, &request), -1);
    simulated::takeSleeps();
    simulated::freeze();
    loop.handle(ControlRequest(RTSP_REQ_STATUS).record, -1);
    loop.handle(ControlRequest(RTSP_REQ_OPEN).record, -1);
    std::string expected = "3 recv_rtsp_request() s_read_data error\n3 recv_rtsp_request() accept error\n";
    for (int i = 0; i < 3; ++i) expected += "3 send_status() s_write_data(sps) error\n";
    expected += "3 main() status send error\n6 error No = 5\n";
    for (int i = 0; i < 3; ++i) expected += "3 send_sps_pps() s_write_data(sps) error\n";
    EXPECT_EQ(said(log), expected + "3 main() sps/pps send error\n");
    const auto sleeps = simulated::takeSleeps();
    EXPECT_EQ(sleeps.size(), 6u);
    for (const timeval& span : sleeps) EXPECT_EQ(span.tv_sec * 1'000'000 + span.tv_usec, 100'000);
}

} // namespace

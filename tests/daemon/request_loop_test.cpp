// The requests, how they are read and what they mean: with the real engine, on a clock that the test moves,
// and without the loop round it.
#include <csignal>
#include <filesystem>
#include <sys/sem.h>
#include <sys/shm.h>
#include <thread>

#include "platform/clock.h"
#include "tests/daemon/request_loop_fixture.h"
#include "tests/support/worked_example.h"

namespace test {
namespace {

TEST(ControlChannel, PagesExampleIsWhatAClientSends) {
    const ControlRequest play = ControlRequest(RTSP_REQ_PLAY).with("Session", "987").with("Scale", "-2.0");
    EXPECT_EQ(exampleBytes("control-channel.md", "play-request", sizeof play.record), bytesOf(play.record));
}

TEST(ControlChannel, ReadsTheFirstNumberOfAName) {
    const std::tuple<std::string, std::string, unsigned long> cases[] = {
        {"Session", "  77xyz", 77},
        {"Session-X", "\t\n\v\f\r 9", 9},
        {"Sessio", "77", 0},
        {"Session", "-5", 0},
        {"Session", "36893488147419103233", 4294967295},                    // 2^65 + 1
        {"Session" + std::string(57, 'x'), std::string(255, '0') + "7", 7}, // no NUL in either field
    };
    for (const auto& [name, value, number] : cases)
        EXPECT_EQ(rtsp_session_id(&ControlRequest(0).with(name, value).record), number)
            << name << ": " << value;
    auto twice = ControlRequest(0).with("FFTime", " 500 ms").with("Session", "4").with("Session", "5");
    EXPECT_EQ(rtsp_ff_skiptime(&twice.record), 500u);
    for (const auto& [headerNum, number] : {std::pair(65, 4u), {2, 4u}, {1, 0u}, {-1, 0u}}) {
        twice.record.headerNum = headerNum;
        EXPECT_EQ(rtsp_session_id(&twice.record), number) << headerNum;
    }
}

std::string refused(char byte3) {
    std::string answer(kParameterSetAnswerBytes, '\xFF');
    answer[3] = byte3;
    return answer;
}
const std::string kSearchFailed = refused('\xFC'), kSetUpFailed(kParameterSetAnswerBytes, '\0');

TEST_F(RequestLoopTest, ServesTheSessionThatIsOpenAndNoOther) {
    Card(world).stream(1).from("12:00:00").pictures(90).gop(10).closed();
    serve({{RTSP_REQ_OPEN, "", parameterSets(), "SPS/PPS found"},
           {RTSP_REQ_OPEN, "", refused('\xFD'), "picker already existed"},
           {RTSP_REQ_STATUS, "", "pause"},
           {RTSP_REQ_SESSION, "77"},
           {RTSP_REQ_SESSION, "78"}, // too late
           {RTSP_REQ_TEARDOWN, "78"},
           {RTSP_REQ_STATUS, "78", "error"},
           {RTSP_REQ_STATUS, "", "error"},
           {RTSP_REQ_STATUS, "77", "pause"}});
    for (const char* stranger : {"78", ""}) ask(RTSP_REQ_PLAY, stranger, "Jump: latest");
    EXPECT_EQ(log.dump().find("Jump"), std::string::npos) << log.dump();
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
           {.type = RTSP_REQ_FFTIME, .session = "77", .header = "FFTime: 500"},
           {.type = RTSP_REQ_FFTIME, .session = "78", .header = "FFTime: 400"},
           {.type = RTSP_REQ_FFTIME, .session = "77"},
           {.type = RTSP_REQ_PLAY, .session = "77", .header = "Scale: 2", .until = "play"}});
    waitUntil([&] { return lastSleepUs == 500'000; });
    serve({{RTSP_REQ_TEARDOWN, "", "", "TEARDOWN"}, // of whatever session there is
           {RTSP_REQ_SESSION, "78"}, // also while idle a number registers, and no teardown takes it back
           {RTSP_REQ_TEARDOWN, "78"},
           {RTSP_REQ_STATUS, "78", "init"},
           {RTSP_REQ_STATUS, "", "error"}});
    EXPECT_EQ(status.m_status->pbActive, 0u);
}

TEST_F(RequestLoopTest, OpensTheNewestRecordedStreamElseTheOneBeingRecorded) {
    const Row ends{RTSP_REQ_TEARDOWN, "", "", "TEARDOWN"}, failed{RTSP_REQ_STATUS, "", "error"};
    serve({{RTSP_REQ_STATUS, "", "init"}, {RTSP_REQ_OPEN, "", kSearchFailed, "error No = 5\n"}, failed});
    Card card(world);
    const Row nothing{RTSP_REQ_OPEN, "", refused('\xFE'), "apiDB setSql not found record"};
    serve({nothing, failed}); // by the search before
    card.stream(12).from("12:01:00").pictures(30).gop(10).closed();
    card.stream(13).from("12:02:00").pictures(30).gop(10).recording();
    card.sql("UPDATE STREAM SET recSize = 0 WHERE streamID = 13");
    const auto withCard = [&](char detect, char readOnly, const Row& row) {
        world.setCardState(detect, readOnly);
        serve({row});
    };
    withCard('1', '1', {RTSP_REQ_OPEN, "", kSearchFailed, "error No = 6\n"});
    withCard('\0', '0', {RTSP_REQ_OPEN, "", kSearchFailed, "error No = 4\n"}); // an empty file
    withCard('0', '\0', {RTSP_REQ_OPEN, "", kSearchFailed, "error No = 4\n"});
    withCard('0', '1', {RTSP_REQ_OPEN, "", parameterSets(), "DB_STREAM streamID=12\n"});
    serve({{RTSP_REQ_STATUS, "", "pause"}, ends, {RTSP_REQ_STATUS, "", "init"}});
    card.sql("UPDATE STREAM SET recSize = 0");
    const auto whileRecording = [&](uint32_t id, uint32_t pictures, const Row& row) {
        *status.m_status = {.recStreamID = id, .recPictures = pictures, .unused = {}, .pbActive = 0};
        serve({row});
    };
    whileRecording(0, 30, nothing);
    whileRecording(13, 0, nothing);
    whileRecording(14, 30, nothing); // not in the index
    whileRecording(13, 30, {RTSP_REQ_OPEN, "", parameterSets(), "DB_STREAM streamID=13\n"});
    writeFile(paths().index, "no database");
    serve({ends, {RTSP_REQ_OPEN, "", kSearchFailed, "error No = 1\n"}});
}

TEST_F(RequestLoopTest, WalksDownPastStreamsThatCantBePlayed) {
    Card card(world);
    for (const auto& [id, start] : {std::pair(1u, "12:00:00"), {2u, "12:01:00"}, {3u, "12:02:00"}})
        card.stream(id).from(start).pictures(30).gop(10).closed();
    card.unsealStream(2);
    card.sql("UPDATE STREAM SET chunkID = 60000 WHERE streamID = 3");
    const auto tries = [](const std::string& id, long msBefore = 0) {
        const std::string logged = (id == "2" ? "m_video.stH.id       = " : "found stream ID = ") + id + "\n";
        return Row{RTSP_REQ_OPEN, "", id == "1" ? parameterSets() : kSetUpFailed, logged, "", "", msBefore};
    };
    serve({{RTSP_REQ_SESSION, "5"}, // forgotten by the failure
           tries("3"),
           {RTSP_REQ_STATUS, "", "error"},
           tries("2", 299'900), // a damaged header is no fatal error
           {RTSP_REQ_STATUS, "", "init"},
           tries("1", 299'900),
           {RTSP_REQ_TEARDOWN, ""},
           tries("3"), // a success forgets the bound, and so do 300 seconds, a clock set back
           tries("3", 300'000),
           tries("3", -1000)});
    world.setCardState('1', '1');
    serve({{RTSP_REQ_OPEN, "", kSearchFailed}});
    world.setCardState('1', '0');
    serve({tries("3")}); // and so does a search that gave nothing
    EXPECT_NE(log.dump().find("fatalerror=2\n"), std::string::npos) << log.dump();
    card.sql("DELETE FROM STREAM WHERE streamID <> 2; UPDATE STREAM SET streamID = 1");
    const Row below{RTSP_REQ_OPEN, "", kSetUpFailed, "found stream ID = 1\n"};
    serve({below, below}); // there is nothing to look for below stream 1
}

TEST_F(RequestLoopTest, EndsTheSessionWhenNobodyKeepsItAliveTheCardIsFormattedOrTheLoopStops) {
    Card(world).stream(1).from("12:00:00").pictures(30).gop(10).closed();
    const Row opens{RTSP_REQ_OPEN, "", parameterSets()};
    serve({opens, {RTSP_REQ_SESSION, "77"}});
    rtsp_request notice{};
    int connection = -1;
    const auto pass = [&](long seconds) {
        const time_t then = wallclock::now().tv_sec + seconds;
        waitUntil([&] { return wallclock::now().tv_sec >= then; }, 10);
    };
    for (const int32_t type : {RTSP_REQ_PLAY, RTSP_REQ_PAUSE, RTSP_REQ_STATUS, RTSP_REQ_FFTIME}) {
        pass(50);
        ask(type, "77");
        pass(50);
        EXPECT_EQ(recv_rtsp_request(listening, &notice), -1) << type << " keeps the session alive";
        ask(type, "77");
    }
    pass(50);
    waitUntil([&] { return (connection = recv_rtsp_request(listening, &notice)) >= 0; }, 10);
    EXPECT_EQ(rtsp_session_id(&notice), 77u) << "of the last keep-alive";
    loop.handle(notice, connection);
    close(connection);
    serve({{RTSP_REQ_STATUS, "", "init"}, opens, {RTSP_REQ_SESSION, "78"}});

    sigcatch(SIGUSR1);
    sigcatch(SIGUSR2);
    serve({{RTSP_REQ_STATUS, "78", "pause"}}); // taken back in time
    sigcatch(SIGUSR1);
    serve({{RTSP_REQ_OPEN, "", parameterSets(), "format: destroy pickerThread"},
           {RTSP_REQ_STATUS, "", "pause"}}); // a new session, no number registered yet

    setStopSocket(listening);
    setReadingFrom(1 << 20); // no file
    errno = 0;
    sigcatch(SIGTERM);
    EXPECT_EQ(errno, 0) << "that of whoever is interrupted";
    setStopSocket(-1);
    EXPECT_EQ(recv_rtsp_request(listening, &notice), -1) << "the loop had tested its flag before the signal";
    loop.run();
    loop.shutDown();
    EXPECT_TRUE(log.has(LOG_INFO, "loop out", "main")) << log.dump();
}

TEST_F(RequestLoopTest, EndsASessionWithoutPlaybackThreadToo) {
    Card(world).stream(1).from("12:00:00").pictures(30).gop(10).closed();
    unlink(paths().ipcKey); // so that there is no output memory
    serve({{RTSP_REQ_OPEN, "", parameterSets()}, {RTSP_REQ_SESSION, "77"}});
    g_loopFlag = kLoopRun;
    std::thread server([&] { loop.run(); });
    const auto word = [&](const char* session) {
        const ControlRequest request = ControlRequest(RTSP_REQ_STATUS).with("Session", session);
        return readStatusAnswer(exchange(paths().controlSocket, request.record, 300'000).value_or(""));
    };
    simulated::advanceUs(60'999'000);
    EXPECT_EQ(word("77"), "pause");
    EXPECT_EQ(word("78"), "error"); // served once the one before has been noted
    simulated::advanceUs(60'999'000);
    EXPECT_EQ(word("78"), "error");
    EXPECT_FALSE(log.has(LOG_INFO, "TEARDOWN", "main"));
    simulated::advanceUs(1000);
    EXPECT_TRUE(eventually([&] { return word("") == "init"; })); // the loop looks ten times a second
    simulated::resume();                                         // for the rest behind the accept that fails
    g_loopFlag = kLoopStop;
    shutdown(listening, SHUT_RDWR);
    server.join();
}

TEST_F(RequestLoopTest, TriesThreeTimesToAnswerAndSaysSo) {
    simulated::resume();
    simulated::takeSleepsUs();
    for (const int32_t type : {RTSP_REQ_STATUS, RTSP_REQ_OPEN}) loop.handle(ControlRequest(type).record, -1);
    for (const char* name : {"send_status", "send_sps_pps"})
        EXPECT_EQ(log.count(LOG_ERR, "s_write_data(sps) error", name), 3) << name;
    EXPECT_TRUE(log.has(LOG_ERR, "status send error", "main") &&
                log.has(LOG_ERR, "sps/pps send error", "main"));
    const auto sleeps = simulated::takeSleepsUs();
    EXPECT_TRUE(sleeps.size() == 6 && sleeps.back() == 100'000);
}

// Each kind of call fails once, and from then on, as the first, the second, the third ... of its kind.
TEST_F(RequestLoopTest, FailingCallsEndInADocumentedAnswerAndLeaveNothing) {
    Card(world).stream(1).from("12:00:00").pictures(90).gop(10).closed();
    // What a session says once it has played for some passes, if it can.
    const auto play = [&](int looks = 1'000'000) {
        const std::string answer = ask(RTSP_REQ_OPEN, "");
        ask(RTSP_REQ_PLAY, "", "Jump: oldest");
        for (int passes = 0; looks > 0 && passes < 20; --looks, usleep(20)) {
            ask(RTSP_REQ_PLAY, "");
            const auto sleeps = simulated::takeSleepsUs();
            for (const int64_t us : sleeps) simulated::advanceUs(us);
            passes += !sleeps.empty();
        }
        const std::string word = ask(RTSP_REQ_STATUS, "");
        ask(RTSP_REQ_TEARDOWN, "");
        return answer == kSearchFailed || answer == kSetUpFailed ? "refused" : word;
    };
    EXPECT_EQ(play(), "play");
    const auto before = openFiles();
    const std::pair<const char*, const char*> rows[] = {
        // what comes of it when none succeeds
        {"open", "refused"}, {"pread", "refused"},        {"malloc", "refused"},
        {"shmget", "pause"}, {"shmat", "pause"},          {"semget", "pause"},
        {"semop", "pause"},  {"pthread_create", "pause"}, {"large malloc", "pause"},
    };
    for (const auto& [call, none] : rows) {
        for (const bool forGood : {true, false}) {
            bool reached = true;
            // One by one through the set-up; later ones repeat themselves, so that steps may grow.
            for (long n = 1; reached && !HasFailure(); n += 1 + n / 8) {
                SCOPED_TRACE(call + std::to_string(n) + (forGood ? " for good" : ""));
                failing::arm(call, n, forGood);
                const std::string word = play(100);
                reached = failing::disarm();
                EXPECT_TRUE(forGood ? n > 1 || word == none : word != "error") << word;
                EXPECT_EQ(shmget(world.outputKey(), 0, 0), -1);
                EXPECT_EQ(play(), "play") << "works again";
                EXPECT_EQ(semget(world.outputKey(), 0, 0), -1);
                // What a thread keeps of the card goes with it, which may be a little after the session.
                EXPECT_TRUE(eventually([&] { return openFiles() <= before; })) << openFiles();
                EXPECT_EQ(semctl(semget(world.statusKey(), 1, 0), 0, GETVAL), 1) << "nobody holds it";
            }
        }
    }
}

} // namespace
} // namespace test

// Every system call that the daemon makes fails once, and from then on, one after the other: over start-up,
// ten seconds of playing and the end. The result is a documented one, nothing is left over, and as soon as
// the call works again, so does the same daemon.
#include <atomic>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "daemon/request_loop.h"
#include "daemon/signals.h"
#include "platform/clock.h"
#include "platform/kw_com.h"
#include "shm/shm_server.h"
#include "tests/support/card.h"
#include "tests/system_calls/failing_calls.h"
#include "tools/client/control_client.h"

// A clock that sleeping moves on at once, by a second at most between two requests, so that no session times
// out while the client is kept waiting by the machine. It allocates nothing.
static std::atomic<int64_t> g_now{1'704'196'800'000'000}, g_limit{g_now.load()};

timeval wallclock::now() {
    const int64_t now = g_now;
    return {.tv_sec = static_cast<time_t>(now / 1'000'000),
            .tv_usec = static_cast<suseconds_t>(now % 1'000'000)};
}
void wallclock::sleepFor(timeval span) {
    const int64_t wake = g_now += int64_t{span.tv_sec} * 1'000'000 + span.tv_usec;
    do std::this_thread::yield();
    while (wake > g_limit);
}
void wallclock::sleepWhile(const std::atomic<bool>&, timeval span) {
    sleepFor(span);
}
void wallclock::wakeSleepers() {}

namespace {

using failing::Product;

constexpr long kOneByOne = 60;
constexpr int64_t kPlayed = 10'000'000; ///< microseconds
constexpr int kAnswerMs = 200;          ///< real time; whoever does not answer by then does not
constexpr int kAfterLockMs = 3000;      ///< a lock that was not given back is waited for: a second

/// What a client sees. `open` is malformed when nobody answers.
struct Seen {
    bool started = false;
    OpenAnswer open = OpenAnswer::malformed;
    std::string status; ///< while it plays
    bool operator==(const Seen&) const = default;
};

class Daemon {
public:
    Daemon() {
        {
            Product product;
            m_listening = s_create_serv_socket(paths().controlSocket);
            m_status.m_status =
                static_cast<REC_STATUS*>(m_status.creat(ftok(paths().ipcKey, kStatusSegmentProject)));
        }
        if (!started()) return;
        g_loopFlag = kLoopRun;
        m_thread = std::thread([this] {
            Product product;
            RequestLoop loop(m_listening, m_status);
            loop.run();
            loop.shutDown();
        });
    }
    ~Daemon() {
        g_loopFlag = kLoopStop;
        g_limit = INT64_MAX;
        if (started()) shutdown(m_listening, SHUT_RDWR);
        if (m_thread.joinable()) m_thread.join();
        if (m_listening >= 0) close(m_listening);
        unlink(paths().controlSocket);
        g_loopFlag = kLoopNotBegun;
    }
    bool started() const { return m_listening >= 0 && m_status.m_status; }

    /// A session from open to teardown.
    Seen play(int answerMs = kAnswerMs) {
        m_answerMs = answerMs;
        Seen seen;
        seen.started = started();
        if (!seen.started) return seen;
        ask(ControlRequest(RTSP_REQ_TEARDOWN)); // of what nobody was told about
        seen.open = readOpenAnswer(ask(ControlRequest(RTSP_REQ_OPEN)));
        if (seen.open != OpenAnswer::opened) return seen;
        ask(ControlRequest(RTSP_REQ_SESSION).with("Session", "1"));
        ask(ControlRequest(RTSP_REQ_PLAY).with("Session", "1").with("Jump", "oldest"));
        ask(ControlRequest(RTSP_REQ_PLAY).with("Session", "1"));
        const int64_t end = g_now + kPlayed;
        for (int looks = 0; looks < 500 && g_now < end; ++looks) { // a thread that never began moves no clock
            for (int i = 0; i < 4; ++i)                            // more than fit into one node of the queue
                ask(ControlRequest(RTSP_REQ_PLAY).with("Session", "1"));
            seen.status = readStatusAnswer(ask(ControlRequest(RTSP_REQ_STATUS).with("Session", "1")));
            usleep(100);
        }
        ask(ControlRequest(RTSP_REQ_TEARDOWN));
        return seen;
    }

private:
    std::string ask(const ControlRequest& request) {
        if (request.record.type != RTSP_REQ_PLAY) // which nobody waits for
            g_limit = request.record.type == RTSP_REQ_TEARDOWN ? INT64_MAX : g_now + 1'000'000;
        if (m_answerMs == 0) return "";
        const auto answer = exchange(paths().controlSocket, request.record, m_answerMs);
        if (!answer) m_answerMs = 0; // nor will it answer what follows
        return answer.value_or("");
    }

    int m_answerMs = kAnswerMs;
    CtavirnShmServer m_status;
    int m_listening = -1;
    std::thread m_thread;
};

struct SystemCalls : testing::Test {
    SystemCalls() {
        failing::ownThread();
        card.stream(1).from("12:00:00").pictures(900).gop(30).closed();
    }
    static auto descriptors() {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    }

    test::World world;
    test::Card card{world};
};

const Seen kWell{true, OpenAnswer::opened, "play"};

TEST_F(SystemCalls, FailingOnceOrForGoodEndInADocumentedResultAndLeaveNothing) {
    const struct {
        failing::Call call;
        const char* name;
        Seen forGood; ///< what comes of it when none succeeds
    } rows[] = {
        {failing::kOpen, "open", {true, OpenAnswer::searchFailed, ""}},
        {failing::kPread, "pread", {true, OpenAnswer::searchFailed, ""}},
        {failing::kShmget, "shmget", {}},
        {failing::kShmat, "shmat", {}},
        {failing::kSemget, "semget", {}},
        {failing::kSemop, "semop", {true, OpenAnswer::opened, "pause"}}, // no output memory, so no playing
        {failing::kMalloc, "malloc", {true, OpenAnswer::searchFailed, ""}},
        {failing::kSqliteMalloc, "SQLite's malloc", {true, OpenAnswer::searchFailed, ""}},
        {failing::kThread, "pthread_create", {true, OpenAnswer::opened, "pause"}},
        {failing::kSocket, "socket", {}},
        {failing::kBind, "bind", {}},
        {failing::kAccept, "accept", {true, OpenAnswer::malformed, ""}},
    };
    ASSERT_EQ(Daemon().play(), kWell) << "with nothing failing";
    const auto before = descriptors();
    std::string told;
    for (const auto& [call, name, forGood] : rows) {
        long runs = 0;
        for (const bool always : {true, false}) {
            bool reached = true;
            // One by one through the set-up; later ones repeat themselves, so that steps may grow.
            for (long n = 1; reached; n += n < kOneByOne ? 1 : n / 8, runs += reached) {
                SCOPED_TRACE(std::string(name) + " " + std::to_string(n) + (always ? " for good" : ""));
                failing::arm(call, n, always);
                {
                    Daemon daemon;
                    const Seen seen = daemon.play();
                    reached = failing::reached();
                    failing::arm(failing::kNone, 0, false);
                    if (always && n == 1) {
                        EXPECT_TRUE(seen == forGood)
                            << seen.started << " " << static_cast<int>(seen.open) << " " << seen.status;
                    }
                    EXPECT_TRUE(seen.open != OpenAnswer::noStream && seen.open != OpenAnswer::alreadyOpen);
                    EXPECT_TRUE(seen.open != OpenAnswer::opened ||
                                seen.status.starts_with("p") || // play, pause
                                (always && seen.status == "error") || call == failing::kAccept)
                        << seen.status;
                    if (daemon.started()) {
                        EXPECT_EQ(daemon.play(kAfterLockMs), kWell) << "works again";
                        EXPECT_EQ(semctl(semget(world.statusKey(), 1, 0), 0, GETVAL), 1) << "nobody holds it";
                    }
                }
                EXPECT_EQ(descriptors(), before);
                EXPECT_EQ(shmget(world.statusKey(), 0, 0) + semget(world.statusKey(), 0, 0), -2);
                EXPECT_EQ(shmget(world.outputKey(), 0, 0) + semget(world.outputKey(), 0, 0), -2);
                if (HasFailure()) break;
            }
        }
        told += std::string(name) + " " + std::to_string(runs) + ", ";
    }
    std::cout << "runs: " << told << "each of them with a failing call" << std::endl;
}

} // namespace

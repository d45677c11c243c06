// The daemon's life as init and its neighbours see it, and clients: one of somebody else's, and some that do
// not behave.
#include <cerrno>
#include <chrono>
#include <csignal>
#include <functional>
#include <gmock/gmock.h>
#include <sqlite3.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include "platform/kw_com.h"
#include "tests/support/card.h"
#include "tests/support/process.h"
#include "tools/client/control_client.h"
#include "tools/tour/session.h"

namespace test {
namespace {

bool leftNothing(const World& world) {
    return !fileExists(world.root() + "/tmp/tavirn") && !fileExists(world.root() + "/var/run/tavirn.pid") &&
           shmget(world.statusKey(), 0, 0) < 0 && semget(world.statusKey(), 0, 0) < 0 &&
           shmget(world.outputKey(), 0, 0) < 0 && semget(world.outputKey(), 0, 0) < 0;
}

/// A daemon in a world of its own, a session with it, and a client that stays connected.
struct Stand {
    ~Stand() {
        close(client);
        sqlite3_close(recorder);
    }
    void lockIndex() {
        sqlite3_open(paths().index, &recorder);
        EXPECT_EQ(sqlite3_exec(recorder, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
    }
    void connect(size_t sent) {
        const std::string bytes(sent, 'x');
        EXPECT_GE(s_connect_serv(client, paths().controlSocket), 0);
        EXPECT_GE(s_write_data(client, bytes.data(), static_cast<int>(sent)), 0);
    }
    void play(const std::string& scale, const std::string& status) {
        EXPECT_TRUE(session.open());
        session.ask(RTSP_REQ_PLAY, "Scale", scale);
        EXPECT_TRUE(eventually([&] { return Session::status() == status; })) << Session::status();
    }

    const World world;
    DaemonProcess daemon{world.root()};
    Session session;
    const int client = s_create_client_socket();
    sqlite3* recorder = nullptr;
};

// A second of rest behind the accept or the read that a stop has ended, and the leave.
TEST(Life, StopsWithinASecondAndAHalfInEveryStateAndLeavesNothing) {
    const struct {
        std::string state;
        int signal;
        std::function<void(Stand&)> reach;
    } rows[] = {
        {"idle", SIGTERM, [](Stand&) {}},
        {"a silent client", SIGINT, [](Stand& stand) { stand.connect(0); }},
        {"half a request", SIGQUIT, [](Stand& stand) { stand.connect(sizeof(rtsp_request) / 2); }},
        {"playing", SIGQUIT, [](Stand& stand) { stand.play("1.0", "play"); }},
        {"paused", SIGINT, [](Stand& stand) { stand.play("0", "pause"); }},
        {"a jump that asks a locked index", SIGTERM,
         [](Stand& stand) {
             stand.play("1.0", "play");
             stand.lockIndex();
             stand.session.ask(RTSP_REQ_PLAY, "Jump", "clock=20240102T000000");
         }},
    };
    for (const auto& row : rows) {
        Stand stand;
        Card(stand.world).stream(1).from("12:00:00").pictures(3000).closed();
        ASSERT_TRUE(stand.daemon.serving());
        row.reach(stand);
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(stand.daemon.stop(row.signal), 0) << row.state;
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
        EXPECT_LT(took.count(), TAVIRN_SANITIZED ? 5.0 : 1.5) << row.state;
        EXPECT_TRUE(leftNothing(stand.world)) << row.state;
    }
}

// The last one serves the client of the documents, built from what is installed.
TEST(Life, AKilledOnesLeftoversAreTakenOverAndOneThatIsLeavingIsWaitedFor) {
    const World world;
    Card(world).stream(1).from("12:00:00").pictures(45).gop(15).closed();
    DaemonProcess killed(world.root());
    EXPECT_EQ(killed.stop(SIGKILL), 128 + SIGKILL);
    EXPECT_TRUE(fileExists(paths().controlSocket));
    DaemonProcess leaving(world.root());
    runTool({TAVIRN_ROOTED}, world.root(), 5); // is served
    kill(leaving.pid(), SIGTERM);
    Process next({TAVIRN_ROOTED, "--foreground"}, world.root());
    EXPECT_EQ(leaving.stop(SIGTERM), 0);
    EXPECT_EQ(runTool({TAVIRN_CLIENT}, world.root()), "45 pictures\n");
    next.signal(SIGINT);
    EXPECT_EQ(next.wait(), 0);
    EXPECT_THAT(next.errors(), testing::HasSubstr("catch SIGINT|SIGTERM|SIGQUIT (2)"));
    EXPECT_TRUE(leftNothing(world));
}

// The longest that one client can hold the daemon, and the second of rest behind it.
TEST(Life, NoClientHoldsTheDaemonLongerThanTwentySeconds) {
    Stand stand;
    ASSERT_TRUE(stand.daemon.serving());
    stand.connect(1);
    const auto isAnswered = [](int ms) {
        return exchange(paths().controlSocket, ControlRequest(0).record, ms).has_value();
    };
    EXPECT_FALSE(isAnswered(1000));
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_TRUE(isAnswered(30000));
}

} // namespace
} // namespace test

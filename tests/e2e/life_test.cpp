// The daemon's life as init and its neighbours see it, and clients that do not behave.
#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <optional>
#include <sqlite3.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>

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

TEST(Life, TheRootedDaemonSaysWhyItDoesNotServe) {
    const World world;
    const std::string root = world.root(), run = root + "/var/run", pidFile = paths().pidFile;
    std::optional<DaemonProcess> first;
    const auto startFirst = [&] {
        remove(pidFile.c_str());
        first.emplace(root);
    };
    const auto endFirst = [&] {
        EXPECT_FALSE(fileExists(pidFile)) << "who was refused wrote a number that misleads";
        first.reset();
        remove(paths().cardReadOnly);
    };
    const struct {
        std::vector<std::string> options;
        std::function<void()> spoil;
        int code;
        std::string says;
    } cases[] = {
        {{"--nonsense"}, [] {}, 2, "cannot take --nonsense"},
        {{"--root", ""}, [] {}, 2, "no world is named"},
        {{"--root", root + "/none"}, [] {}, 1, "no key file " + root + "/none/tmp/shm9"},
        {{"--root", root + std::string(90, 'x')}, [] {}, 6, "is longer than 107 bytes"},
        {{}, [&] { mkdir(paths().controlSocket, 0700); }, 6, "/tmp/tavirn is no socket"},
        {{}, [&] { writeFile(pidFile, ""); }, 5, pidFile + " holds no process id"},
        {{}, [&] { writeFile(pidFile, std::to_string(getpid())); }, 5, "process " + std::to_string(getpid())},
        {{}, startFirst, 5, "a daemon serves this world, process "},
        {{}, [&] { remove(pidFile.c_str()); }, 5, "a daemon serves this world, process "},
        {{}, endFirst, 1, "ReadOnly (No such file or directory); make it with tavirn-record"},
        {{}, [&] { std::filesystem::remove_all(run); }, 1, "cannot write to " + run},
    };
    for (const auto& [options, spoil, code, says] : cases) {
        spoil();
        std::vector<std::string> words{TAVIRN_ROOTED};
        words.insert(words.end(), options.begin(), options.end());
        Process refused(words, root);
        EXPECT_EQ(refused.wait(), code) << says;
        EXPECT_THAT(refused.errors(), testing::StartsWith("tavirn-rooted: "));
        EXPECT_THAT(refused.errors(), testing::HasSubstr(says));
        rmdir(paths().controlSocket);
    }
}

TEST(Life, AKilledOnesLeftoversAreTakenOverAndOneThatIsLeavingIsWaitedFor) {
    const World world;
    DaemonProcess killed(world.root());
    EXPECT_EQ(killed.stop(SIGKILL), 128 + SIGKILL);
    EXPECT_TRUE(fileExists(paths().controlSocket));
    DaemonProcess leaving(world.root());
    EXPECT_EQ(Session::status(), "error");
    kill(leaving.pid(), SIGTERM);
    Process next({TAVIRN_ROOTED, "--foreground"}, world.root());
    EXPECT_EQ(leaving.stop(SIGTERM), 0);
    EXPECT_TRUE(
        eventually([] { return exchange(paths().controlSocket, ControlRequest(0).record).has_value(); }));
    next.signal(SIGINT);
    EXPECT_EQ(next.wait(), 0);
    EXPECT_THAT(next.errors(), testing::HasSubstr("catch SIGINT|SIGTERM|SIGQUIT (2)"));
    EXPECT_TRUE(leftNothing(world));
}

// The longest that one client can hold the daemon: twenty seconds for its record, however it trickles, and
// the second of rest behind it.
TEST(Life, NoClientHoldsTheDaemonLongerThanTwentySeconds) {
    Stand stand;
    ASSERT_TRUE(stand.daemon.serving());
    stand.connect(1);
    Process asking({TAVIRN_CTL, "status"}, stand.world.root());
    const auto isAnswered = [&] {
        s_write_data(stand.client, "x", 1);
        return asking.wait(1) == 0;
    };
    EXPECT_FALSE(eventually(isAnswered, 2000));
    EXPECT_TRUE(eventually(isAnswered, 12000)) << asking.errors(); // each look takes twice its time
}

} // namespace
} // namespace test

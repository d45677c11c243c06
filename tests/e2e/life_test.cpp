// The daemon's life as init and its neighbours see it, and clients that do not behave.
#include <csignal>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <memory>
#include <optional>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <thread>

#include "platform/kw_com.h"
#include "tests/e2e/session.h"
#include "tests/support/card.h"

namespace test {
namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

bool leftNothing(const World& world) {
    return !fileExists(world.root() + "/tmp/tavirn") && !fileExists(world.root() + "/var/run/tavirn.pid") &&
           shmget(world.statusKey(), 0, 0) < 0 && semget(world.statusKey(), 0, 0) < 0 &&
           shmget(world.outputKey(), 0, 0) < 0 && semget(world.outputKey(), 0, 0) < 0;
}

/// A daemon in a world of its own, its viewer, and clients that stay connected.
struct Stand {
    ~Stand() {
        for (const int client : clients) close(client);
    }
    void connect(int count, size_t sent) {
        const std::string bytes(sent, 'x');
        for (; count > 0; --count) {
            clients.push_back(s_create_client_socket());
            EXPECT_GE(s_connect_serv(clients.back(), paths().controlSocket), 0);
            EXPECT_GE(s_write_data(clients.back(), bytes.data(), static_cast<int>(sent)), 0);
        }
    }
    void play(const std::string& scale, const std::string& status) {
        EXPECT_EQ(viewer.open(), OpenAnswer::opened);
        viewer.registerSession();
        viewer.play("Scale", scale);
        EXPECT_TRUE(eventually([&] { return viewer.status() == status; })) << viewer.status();
    }
    void openWithoutKeyFile() {
        const std::string key = paths().ipcKey, threads = "/proc/" + std::to_string(daemon.pid()) + "/task";
        std::filesystem::rename(key, key + ".away");
        EXPECT_EQ(viewer.open(), OpenAnswer::opened);
        EXPECT_TRUE(
            eventually([&] { return std::distance(std::filesystem::directory_iterator(threads), {}) == 1; }));
        std::filesystem::rename(key + ".away", key);
    }

    const World world;
    DaemonProcess daemon{world.root()};
    Viewer viewer;
    std::vector<int> clients;
};

// A second of rest behind the accept or the read that a stop has ended, and the leave.
TEST(Life, StopsWithinASecondAndAHalfInEveryStateAndLeavesNothing) {
    const struct {
        std::string state;
        int signal;
        std::function<void(Stand&)> reach;
    } rows[] = {
        {"idle", SIGTERM, [](Stand&) {}},
        {"silent clients", SIGINT, [](Stand& stand) { stand.connect(2, 0); }},
        {"half a request", SIGQUIT, [](Stand& stand) { stand.connect(1, sizeof(rtsp_request) / 2); }},
        {"playing", SIGTERM, [](Stand& stand) { stand.play("1.0", "play"); }},
        {"fast", SIGTERM, [](Stand& stand) { stand.play("8.0", "play"); }},
        {"paused", SIGINT, [](Stand& stand) { stand.play("0", "pause"); }},
        {"playing beside a silent client", SIGQUIT,
         [](Stand& stand) {
             stand.play("1.0", "play");
             stand.connect(1, 0);
         }},
        {"opened without key file", SIGTERM, [](Stand& stand) { stand.openWithoutKeyFile(); }},
    };
    std::vector<std::unique_ptr<Stand>> stands;
    for (const auto& row : rows) {
        Stand& stand = *stands.emplace_back(std::make_unique<Stand>());
        Card(stand.world).stream(1).from("12:00:00").pictures(3000).closed();
        ASSERT_TRUE(stand.daemon.serving());
        row.reach(stand);
    }
    std::vector<std::thread> stops;
    for (size_t i = 0; i < stands.size(); ++i) {
        stops.emplace_back([&row = rows[i], &stand = *stands[i]] {
            const auto begin = Clock::now();
            EXPECT_EQ(stand.daemon.stop(row.signal), 0) << row.state;
            EXPECT_LT(secondsSince(begin), TAVIRN_SANITIZED ? 5.0 : 1.5) << row.state;
            EXPECT_TRUE(leftNothing(stand.world)) << row.state;
        });
    }
    for (std::thread& stop : stops) stop.join();
}

TEST(Life, TheRootedDaemonSaysWhyItDoesNotServe) {
    const World world;
    const std::string root = world.root(), pidFile = paths().pidFile;
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
        {{},
         [&] { std::filesystem::remove_all(root + "/var/run"); },
         1,
         "cannot write to " + root + "/var/run"},
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
    EXPECT_EQ(Viewer().status(), "error");
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
    const auto begin = Clock::now();
    stand.connect(1, 1);
    Process asking = startTool(stand.world, "ctl --root @ status");
    const auto isAnswered = [&] {
        s_write_data(stand.clients[0], "x", 1);
        return asking.wait(1) == 0;
    };
    EXPECT_TRUE(eventually(isAnswered, 30000)) << asking.errors();
    EXPECT_GT(secondsSince(begin), 19.0);
    EXPECT_LT(secondsSince(begin), 24.0);
}

} // namespace
} // namespace test

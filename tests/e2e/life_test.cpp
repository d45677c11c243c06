// The daemon's life as init and its neighbours see it, and clients that do not behave.
#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
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

TEST(Life, SecondInstanceIsRefusedAndAKilledOnesLeftoversAreTakenOver) {
    World world;
    DaemonProcess first(world.root());
    ASSERT_TRUE(first.serving());
    {
        DaemonProcess second(world.root());
        EXPECT_FALSE(second.serving());
        EXPECT_EQ(second.exitCode(), 5);
    }
    // One whose pid file is gone is found by its socket, and its successor writes no number that misleads.
    std::filesystem::remove(world.root() + "/var/run/tavirn.pid");
    {
        Process second({TAVIRN_ROOTED}, world.root());
        EXPECT_EQ(second.wait(), 5);
        const std::string number = std::to_string(first.pid());
        EXPECT_NE(second.errors().find("process " + number), std::string::npos) << second.errors();
        EXPECT_FALSE(fileExists(world.root() + "/var/run/tavirn.pid"));
    }
    EXPECT_EQ(first.stop(SIGKILL), 128 + SIGKILL);
    EXPECT_TRUE(fileExists(world.root() + "/tmp/tavirn"));
    DaemonProcess third(world.root());
    ASSERT_TRUE(third.serving());
    EXPECT_EQ(Viewer().status(), "error");
    kill(third.pid(), SIGTERM);
    Process fourth({TAVIRN_ROOTED, "--foreground"}, world.root()); // waits until the one before has left
    EXPECT_EQ(third.stop(SIGTERM), 0);
    EXPECT_TRUE(eventually([] {
        return exchange(paths().controlSocket, ControlRequest(0).record).has_value();
    })) << fourth.errors();
    fourth.signal(SIGTERM);
    EXPECT_EQ(fourth.wait(), 0);
    EXPECT_TRUE(leftNothing(world));
}

TEST(Life, TheRootedDaemonSaysWhyItDoesNotServe) {
    const World world;
    const std::string root = world.root(), pidFile = root + "/var/run/tavirn.pid";
    const auto nothing = [] {};
    const struct {
        std::vector<std::string> words;
        std::function<void()> spoil;
        int code;
        std::string says;
    } cases[] = {
        {{"--nonsense"}, nothing, 2, "cannot take --nonsense"},
        {{"--root", ""}, nothing, 2, "no world is named"},
        {{"--root", root + "/none"}, nothing, 1, "no key file " + root + "/none/tmp/shm9"},
        {{"--root", root + std::string(90, 'x')}, nothing, 6, "is longer than 107 bytes"},
        {{}, [&] { mkdir(paths().controlSocket, 0700); }, 6, "/tmp/tavirn is no socket"},
        {{}, [&] { writeFile(pidFile, ""); }, 5, pidFile + " holds no process id"},
        {{}, [&] { writeFile(pidFile, std::to_string(getpid())); }, 5, "process " + std::to_string(getpid())},
        {{},
         [&] {
             std::filesystem::remove(pidFile);
             std::filesystem::remove(paths().cardReadOnly);
         },
         1,
         "ReadOnly (No such file or directory); make it with tavirn-record"},
        {{},
         [&] { std::filesystem::remove_all(root + "/var/run"); },
         1,
         "cannot write to " + root + "/var/run"},
    };
    for (const auto& [words, spoil, code, says] : cases) {
        spoil();
        std::vector<std::string> line{TAVIRN_ROOTED};
        line.insert(line.end(), words.begin(), words.end());
        Process refused(line, root);
        EXPECT_EQ(refused.wait(), code) << says;
        EXPECT_TRUE(refused.errors().starts_with("tavirn-rooted: ")) << refused.errors();
        EXPECT_NE(refused.errors().find(says), std::string::npos) << refused.errors();
        rmdir(paths().controlSocket);
    }
}

TEST(Life, TheRootedDaemonInTheForegroundLogsToStandardError) {
    const World world;
    Process daemon({TAVIRN_ROOTED, "--foreground"}, world.root());
    EXPECT_TRUE(
        eventually([] { return exchange(paths().controlSocket, ControlRequest(0).record).has_value(); }));
    daemon.signal(SIGINT);
    EXPECT_EQ(daemon.wait(), 0);
    EXPECT_NE(daemon.errors().find("catch SIGINT|SIGTERM|SIGQUIT (2)"), std::string::npos) << daemon.errors();
}

/// Sends the signal and waits until it is no longer pending: two that are pending together are handled in
/// no order to rely on.
void deliver(pid_t pid, int signal) {
    kill(pid, signal);
    EXPECT_TRUE(eventually([&] {
        const std::string status = readFile("/proc/" + std::to_string(pid) + "/status");
        return status.find("ShdPnd:\t0000000000000000") != std::string::npos;
    }));
}

TEST(Life, FormatSignalEndsTheSessionAtTheNextRequestUnlessTakenBack) {
    World world;
    Card(world).stream(1).from("12:00:00").pictures(3000).closed();
    DaemonProcess daemon(world.root());
    ASSERT_TRUE(daemon.serving());
    Viewer viewer;
    ASSERT_EQ(viewer.open(), OpenAnswer::opened);
    viewer.registerSession();
    viewer.play();
    EXPECT_TRUE(eventually([&] { return viewer.status() == "play"; }));
    deliver(daemon.pid(), SIGUSR1);
    deliver(daemon.pid(), SIGUSR2);
    EXPECT_EQ(viewer.status(), "play");
    deliver(daemon.pid(), SIGUSR1);
    kill(daemon.pid(), SIGHUP);                   // blocked: no effect
    EXPECT_EQ(viewer.open(), OpenAnswer::opened); // the session before it was ended first
    EXPECT_EQ(daemon.stop(SIGTERM), 0);
}

/// A client that connects and does not behave.
class RawClient {
public:
    RawClient() : m_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::string(paths().controlSocket).copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~RawClient() { close(m_fd); }
    bool send(const void* bytes, size_t length) const {
        return ::send(m_fd, bytes, length, MSG_NOSIGNAL) == static_cast<ssize_t>(length);
    }

private:
    int m_fd;
};

// The longest that one client can hold the daemon: twenty seconds for its record, however it trickles, and
// the second of rest behind it.
TEST(WrongInput, NoClientHoldsTheDaemonLongerThanTwentySeconds) {
    World world;
    DaemonProcess daemon(world.root());
    ASSERT_TRUE(daemon.serving());
    const auto begin = Clock::now();
    RawClient trickling;
    Process asking({TAVIRN_CTL, "--root", world.root(), "status"}, world.root());
    int code = -1;
    EXPECT_TRUE(eventually(
        [&] {
            trickling.send("x", 1);
            code = asking.wait(1);
            return code >= 0;
        },
        30000));
    EXPECT_EQ(code, 0) << asking.errors();
    EXPECT_GT(secondsSince(begin), 19.0);
    EXPECT_LT(secondsSince(begin), 24.0);
}

} // namespace
} // namespace test

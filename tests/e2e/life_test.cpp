// The daemon's life as init and its neighbours see it, and clients that do not behave.
#include <csignal>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <optional>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

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

TEST(Life, StopsWithinSecondsIdleAndPlayingAndLeavesNothing) {
    for (const bool playing : {false, true}) {
        for (const int signal : {SIGTERM, SIGINT, SIGQUIT}) {
            World world;
            Card(world).stream(1).from("12:00:00").pictures(3000).closed();
            DaemonProcess daemon(world.root());
            ASSERT_TRUE(daemon.serving());
            struct stat socket {};
            ASSERT_EQ(stat(paths().controlSocket, &socket), 0);
            EXPECT_EQ(socket.st_mode & 0777, 0660u);
            Viewer viewer;
            if (playing) {
                ASSERT_EQ(viewer.open(), OpenAnswer::opened);
                viewer.registerSession();
                viewer.play();
                EXPECT_TRUE(eventually([&] { return viewer.status() == "play"; }));
            }
            const auto begin = Clock::now();
            EXPECT_EQ(daemon.stop(signal), 0);
            EXPECT_LT(secondsSince(begin), 5.0); // one second of rest, and a slow machine's leave
            EXPECT_TRUE(leftNothing(world));
        }
    }
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

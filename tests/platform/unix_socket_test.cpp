#include <atomic>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "platform/kw_com.h"
#include "platform/paths.h"
#include "tests/support/world.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

struct UnixSocket : testing::Test {
    test::World world;
    const char* const path = paths().controlSocket;
};

/// Two connected sockets; transfers at `near` end after 200 ms.
struct Pair {
    int near = -1, far = -1;
    Pair() {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0) near = ends[0], far = ends[1];
        const timeval timeout{0, 200'000};
        for (const int option : {SO_RCVTIMEO, SO_SNDTIMEO})
            setsockopt(near, SOL_SOCKET, option, &timeout, sizeof timeout);
    }
    ~Pair() { close(near), close(far); }
};

TEST_F(UnixSocket, CarriesAWholeRecordBetweenOwnerAndGroupOnly) {
    const int listening = s_create_serv_socket(path);
    struct stat file {};
    ASSERT_EQ(stat(path, &file), 0);
    EXPECT_EQ(file.st_mode & 07777u, 0660u);
    const int client = s_create_client_socket();
    ASSERT_GE(s_connect_serv(client, path), 0);
    const int server = s_accept_client(listening);

    std::string sent(3'000'000, 'r'), got(sent.size(), '\0'); // far beyond what the kernel holds
    std::thread writer([&] { EXPECT_GE(s_write_data(client, sent.data(), 3'000'000), 0); });
    EXPECT_GE(s_read_data(server, got.data(), 3'000'000), 0);
    writer.join();
    EXPECT_TRUE(got == sent);
    for (const int socket : {listening, client, server}) {
        EXPECT_EQ(fcntl(socket, F_GETFD), FD_CLOEXEC);
        close(socket);
    }
}

TEST_F(UnixSocket, ReplacesOnlyASocketFileThatNobodyServes) {
    for (const char* round : {"none", "stale"}) {
        const int listening = s_create_serv_socket(path);
        EXPECT_GE(listening, 0) << round;
        EXPECT_LT(s_create_serv_socket(path), 0) << "served";
        close(listening);
    }
    unlink(path);
    test::writeFile(path, "someone's");
    EXPECT_LT(s_create_serv_socket(path), 0);
    EXPECT_EQ(test::readFile(path), "someone's");
}

TEST_F(UnixSocket, AcceptFailsAtOnceWhenTheListenerIsShutDownBeforeOrDuringTheWait) {
    const int listening = s_create_serv_socket(path);
    std::atomic<pid_t> id = 0;
    std::thread waiting([&] {
        id = gettid();
        EXPECT_LT(s_accept_client(listening), 0);
    });
    const auto asleep = [&] {
        const std::string state = test::readFile("/proc/self/task/" + std::to_string(id) + "/stat");
        return state.find(") S ") != std::string::npos;
    };
    while (id == 0 || !asleep()) std::this_thread::yield();
    shutdown(listening, SHUT_RDWR);
    waiting.join();
    EXPECT_LT(s_accept_client(listening), 0);
    close(listening);
}

TEST_F(UnixSocket, NoPeerHoldsATransferLongerThanItsTime) {
    const Pair pair;
    std::string record(8'000'000, 'r');
    const auto fails = [&](auto transfer) {
        const auto begin = Clock::now();
        EXPECT_LT(transfer(pair.near, record.data(), 8'000'000), 0);
        EXPECT_EQ(errno, ETIMEDOUT);
        EXPECT_GE(Clock::now() - begin, 190ms);
        EXPECT_LT(Clock::now() - begin, 20s);
    };
    fails(s_read_data); // a silent peer
    fails(s_write_data);
    std::jthread trickle([&](std::stop_token stop) {
        for (; !stop.stop_requested(); std::this_thread::sleep_for(5ms)) send(pair.far, "x", 1, MSG_NOSIGNAL);
    });
    fails(s_read_data);
}

TEST_F(UnixSocket, APeerThatGoesAwayFailsTheTransfer) {
    const Pair pair;
    char record[8];
    ASSERT_EQ(write(pair.far, "half", 4), 4);
    shutdown(pair.far, SHUT_RDWR);
    EXPECT_EQ(s_read_data(pair.near, record, sizeof record), -1) << "the stream ends inside the record";
    EXPECT_EQ(s_write_data(pair.near, record, sizeof record), -1) << "and no SIGPIPE";
}

TEST_F(UnixSocket, ConnectingToAServerThatNeverAcceptsEnds) {
    const int listening = s_create_serv_socket(path);
    ASSERT_EQ(listen(listening, 0), 0); // room for one
    const int first = s_create_client_socket(), second = s_create_client_socket();
    EXPECT_GE(s_connect_serv(first, path), 0);
    EXPECT_LT(s_connect_serv(second, path), 0);
    for (const int socket : {listening, first, second}) close(socket);
}

} // namespace

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
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

TEST_F(UnixSocket, ServesOwnerAndGroupAndReplacesOnlyAFileThatNobodyServes) {
    for (const char* round : {"none", "stale"}) {
        const int listening = s_create_serv_socket(path);
        EXPECT_GE(listening, 0) << round;
        EXPECT_LT(s_create_serv_socket(path), 0) << "served";
        EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0660});
        EXPECT_EQ(fcntl(listening, F_GETFD), FD_CLOEXEC);
        close(listening);
    }
    const std::string stale = world.root() + "/stale";
    std::filesystem::rename(path, stale);
    std::filesystem::create_symlink(stale, path);
    EXPECT_LT(s_create_serv_socket(path), 0);
    EXPECT_TRUE(std::filesystem::is_symlink(path) && test::fileExists(stale)) << "a link leads nowhere";
    unlink(path);
    test::writeFile(path, "someone's");
    EXPECT_LT(s_create_serv_socket(path), 0);
    EXPECT_EQ(test::readFile(path), "someone's");
}

TEST_F(UnixSocket, ATransferIsWholeOrEndsWithItsTimeOrPeer) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const int near = ends[0], far = ends[1];
    std::string record(8'000'000, 'r'), got(record.size(), '\0'); // far beyond what the kernel holds
    std::thread writer([&] { EXPECT_GE(s_write_data(near, record.data(), 8'000'000), 0); });
    EXPECT_GE(s_read_data(far, got.data(), 8'000'000), 0);
    writer.join();
    EXPECT_TRUE(got == record);

    const timeval timeout{0, 200'000};
    for (const int option : {SO_RCVTIMEO, SO_SNDTIMEO})
        setsockopt(near, SOL_SOCKET, option, &timeout, sizeof timeout);
    const auto fails = [&](auto transfer) {
        const auto begin = Clock::now();
        EXPECT_LT(transfer(near, record.data(), 8'000'000), 0);
        EXPECT_EQ(errno, ETIMEDOUT);
        EXPECT_TRUE(Clock::now() - begin >= 190ms && Clock::now() - begin < 20s);
    };
    fails(s_read_data); // a silent peer
    fails(s_write_data);
    std::jthread trickle([&](std::stop_token stop) {
        for (; !stop.stop_requested(); std::this_thread::sleep_for(5ms)) send(far, "x", 1, MSG_NOSIGNAL);
    });
    fails(s_read_data);
    trickle = {};
    shutdown(far, SHUT_RDWR);
    EXPECT_EQ(s_read_data(near, record.data(), 8'000'000), -1) << "the stream ends inside the record";
    EXPECT_EQ(s_write_data(near, record.data(), 8'000'000), -1) << "and no SIGPIPE";
    for (const int socket : ends) close(socket);
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

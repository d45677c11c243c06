#include <cerrno>
#include <chrono>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "platform/kw_com.h"
#include "platform/paths.h"
#include "tests/support/world.h"

namespace {

TEST(UnixSocket, ServesOwnerAndGroupAndReplacesOnlyAFileThatNobodyServes) {
    const test::World world;
    const char* const path = paths().controlSocket;
    close(s_create_serv_socket(path)); // its file stays, and nobody serves it
    const int listening = s_create_serv_socket(path);
    EXPECT_LT(s_create_serv_socket(path), 0) << "served";
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0660});
    listen(listening, 0); // room for one: the refused server's look at it
    const int client = s_create_client_socket();
    EXPECT_LT(s_connect_serv(client, path), 0) << "does not wait for ever";
    EXPECT_TRUE(s_connect_serv(client, std::string(108, 'x').c_str()) < 0 && errno == ENAMETOOLONG);
    close(client);
    close(listening);
    const std::string stale = world.root() + "/stale";
    std::filesystem::rename(path, stale);
    std::filesystem::create_symlink(stale, path);
    EXPECT_LT(s_create_serv_socket(path), 0) << "a link leads nowhere";
}

TEST(UnixSocket, ATransferIsWholeOrEndsWithItsTimeOrPeer) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const auto [near, far] = ends;
    std::string record(8'000'000, 'r'), got(record.size(), '\0'); // far beyond what the kernel holds
    std::thread writer([&, to = near] { EXPECT_GE(s_write_data(to, record.data(), 8'000'000), 0); });
    EXPECT_GE(s_read_data(far, got.data(), 8'000'000), 0);
    writer.join();
    EXPECT_TRUE(got == record && recv(far, got.data(), 1, MSG_DONTWAIT) == -1) << "and nothing behind it";
    const timeval timeout{0, 200'000};
    for (const int option : {SO_RCVTIMEO, SO_SNDTIMEO})
        setsockopt(near, SOL_SOCKET, option, &timeout, sizeof timeout);
    std::jthread trickle([to = far](std::stop_token stop) {
        while (!stop.stop_requested() && send(to, "x", 1, MSG_NOSIGNAL) == 1) usleep(5000);
    });
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(s_read_data(near, record.data(), 8'000'000) < 0 && errno == ETIMEDOUT) << "it trickles";
    EXPECT_TRUE(s_write_data(near, record.data(), 8'000'000) < 0 && errno == ETIMEDOUT) << "nobody reads";
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(390)) << "with its time";
    trickle = {};
    shutdown(far, SHUT_RDWR);
    EXPECT_EQ(s_read_data(near, record.data(), 8'000'000), -1) << "the stream ends inside the record";
    EXPECT_EQ(s_write_data(near, record.data(), 8'000'000), -1) << "and no SIGPIPE";
    for (const int socket : ends) close(socket);
}

} // namespace

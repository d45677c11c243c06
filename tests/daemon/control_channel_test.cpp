#include "daemon/control_channel.h"

#include <csignal>
#include <gtest/gtest.h>
#include <memory>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/kw_com.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "tests/support/log_recorder.h"
#include "tests/support/simulated_clock.h"
#include "tests/support/world.h"

namespace {

/// A record whose last entry is the only one with a name; on the heap, so that a read beyond it is caught.
std::unique_ptr<rtsp_request> lastHeader(const std::string& name, const std::string& value) {
    auto request = std::make_unique<rtsp_request>();
    request->headerNum = 64;
    name.copy(request->header[63].name, sizeof request->header[63].name);
    value.copy(request->header[63].value, sizeof request->header[63].value);
    return request;
}

TEST(ControlChannel, ReadsTheFirstNumberOfAName) {
    const struct {
        std::string name, value;
        unsigned long number;
    } cases[] = {
        {"Session", "  77xyz", 77},
        {"Session-X", "\t\n\v\f\r 9", 9},
        {"session", "77", 0},
        {"Sessio", "77", 0},
        {"Session", "", 0},
        {"Session", "-5", 0},
        {"Session", "4294967295", 4294967295},
        {"Session", "36893488147419103233", 4294967295},                    // 2^65 + 1
        {"Session" + std::string(57, 'x'), std::string(255, '0') + "7", 7}, // no NUL in either field
        {"Session", std::string(256, ' '), 0},
    };
    for (const auto& [name, value, number] : cases)
        EXPECT_EQ(rtsp_session_id(lastHeader(name, value).get()), number) << name << ": " << value;
    EXPECT_EQ(rtsp_ff_skiptime(lastHeader("FFTime", " 500 ms").get()), 500u);

    const auto request = lastHeader("Session", "5");
    for (const int32_t count : {64, 65, INT32_MAX, 63, 0, -1, INT32_MIN}) {
        request->headerNum = count;
        EXPECT_EQ(rtsp_session_id(request.get()), count >= 64 ? 5u : 0u) << count;
    }
    request->headerNum = 64;
    request->header[7] = RTSP_HEADER{"Session", "4"};
    EXPECT_EQ(rtsp_session_id(request.get()), 4u);
}

TEST(ControlChannel, ReadsOneWholeRecordAndLimitsEveryWait) {
    const test::World world;
    const test::LogRecorder log;
    const int listening = s_create_serv_socket(paths().controlSocket);
    rtsp_request received{};
    const auto receive = [&](int bytes) {
        const auto sent = lastHeader("Session", "5");
        const int client = s_create_client_socket();
        EXPECT_GE(s_connect_serv(client, paths().controlSocket), 0);
        EXPECT_GE(s_write_data(client, sent.get(), bytes), 0);
        close(client);
        return recv_rtsp_request(listening, &received);
    };
    const int connection = receive(sizeof received);
    EXPECT_EQ(rtsp_session_id(&received), 5u);
    for (const int option : {SO_RCVTIMEO, SO_SNDTIMEO}) {
        timeval timeout{};
        socklen_t length = sizeof timeout;
        getsockopt(connection, SOL_SOCKET, option, &timeout, &length);
        EXPECT_EQ(timeout.tv_sec, 20);
    }
    close(connection);
    EXPECT_EQ(receive(sizeof received - 1), -1);
    EXPECT_TRUE(log.has(LOG_ERR, "s_read_data error", "recv_rtsp_request")) << log.dump();
    close(listening);
    EXPECT_EQ(recv_rtsp_request(listening, &received), -1);
    EXPECT_TRUE(log.has(LOG_ERR, "accept error", "recv_rtsp_request")) << log.dump();
}

TEST(ControlChannel, GivesUpAfterThreeFailedWrites) {
    signal(SIGPIPE, SIG_IGN);
    const test::LogRecorder log;
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    close(ends[1]);
    test::simulated::takeSleeps();
    EXPECT_EQ(send_status(ends[0], "abc", 3), -1);
    EXPECT_EQ(log.count(LOG_ERR, "s_write_data(sps) error", "send_status"), 3) << log.dump();
    const auto sleeps = test::simulated::takeSleeps();
    EXPECT_EQ(sleeps.size(), 3u);
    for (const timeval& span : sleeps) EXPECT_EQ(span.tv_sec * 1000000 + span.tv_usec, 100000);
    close(ends[0]);
}

} // namespace

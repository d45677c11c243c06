// The requests of a session, without a connection for each and without the loop round them.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "daemon/request_loop.h"
#include "daemon/signals.h"
#include "platform/kw_com.h"
#include "platform/paths.h"
#include "shm/shm_server.h"
#include "tests/daemon/failing_calls.h"
#include "tests/support/card.h"
#include "tests/support/simulated_clock.h"
#include "tools/client/control_client.h"

namespace test {

/// Holds the clock, so that no simulated minute passes behind the test's back.
struct SessionTest : testing::Test {
    SessionTest() {
        g_loopFlag = kLoopNotBegun;
        failing::t_product = false;
        simulated::hold();
        status.openStatus(world.statusKey());
    }
    ~SessionTest() override {
        simulated::resume();
        loop.shutDown();
        close(listening);
    }

    /// `header` is "name: value". A status answer's word, else all bytes.
    std::string ask(int32_t type, const std::string& session, const std::string& header = "") {
        const size_t colon = header.find(": ");
        ControlRequest request = ControlRequest(type).with("Session", session);
        if (!header.empty()) request.with(header.substr(0, colon), header.substr(colon + 2));
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        failing::t_product = true;
        loop.handle(request.record, ends[0]);
        failing::t_product = false;
        close(ends[0]);
        std::string answer(200, '\0');
        answer.resize(static_cast<size_t>(recv(ends[1], answer.data(), answer.size(), MSG_WAITALL)));
        close(ends[1]);
        return type == RTSP_REQ_STATUS ? readStatusAnswer(answer) : answer;
    }

    World world;
    CtavirnShmServer status;
    const int listening = s_create_serv_socket(paths().controlSocket);
    RequestLoop loop{listening, status};
};

} // namespace test

// The requests of a session in rows, without a connection for each and without the loop round them.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "daemon/request_loop.h"
#include "daemon/signals.h"
#include "platform/kw_com.h"
#include "platform/log.h"
#include "platform/paths.h"
#include "shm/shm_server.h"
#include "tests/daemon/failing_calls.h"
#include "tests/support/card.h"
#include "tests/support/log_recorder.h"
#include "tests/support/process.h"
#include "tests/support/simulated_clock.h"
#include "tools/client/control_client.h"

namespace test {

/// A request and what must come of it.
struct Row {
    int32_t type;
    std::string session;
    std::string answer = ""; ///< a status answer's word, else all bytes
    std::string logged = ""; ///< perhaps among other lines
    std::string header = ""; ///< "name: value"
    std::string until = "";  ///< the status word that comes of it
    long msBefore = 0;       ///< what passes since the row above
};

/// Holds the clock, so that no simulated minute passes behind the test's back.
struct RequestLoopTest : testing::Test {
    RequestLoopTest() {
        g_loopFlag = kLoopNotBegun;
        failing::t_product = false;
        simulated::hold();
        status.openStatus(world.statusKey());
    }
    ~RequestLoopTest() override {
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

    void serve(const std::vector<Row>& rows) {
        for (const Row& row : rows) {
            SCOPED_TRACE(std::to_string(row.type) + " " + row.session + " " + row.header);
            log.clear();
            simulated::advanceUs(row.msBefore * 1000);
            EXPECT_EQ(ask(row.type, row.session, row.header), row.answer);
            EXPECT_NE(log.dump().find(row.logged), std::string::npos) << log.dump();
            EXPECT_EQ(log.dump().find("send error"), std::string::npos);
            if (!row.until.empty()) waitUntil([&] { return ask(RTSP_REQ_STATUS, row.session) == row.until; });
        }
    }
    /// Time passes only as the playback thread sleeps, so that nothing is over before it is seen; by what it
    /// sleeps, or more.
    template <class Condition> void waitUntil(Condition holds, int64_t seconds = 0) {
        EXPECT_TRUE(eventually([&] {
            if (const auto sleeps = simulated::takeSleepsUs(); !sleeps.empty()) {
                lastSleepUs = sleeps.back();
                simulated::advanceUs(seconds != 0 ? seconds * 1'000'000 : lastSleepUs);
            }
            return holds();
        }));
    }

    World world;
    CtavirnShmServer status;
    const int listening = s_create_serv_socket(paths().controlSocket);
    RequestLoop loop{listening, status};
    LogRecorder log;
    int64_t lastSleepUs = 0; ///< of the playback thread, as far as waitUntil has seen it
};

} // namespace test

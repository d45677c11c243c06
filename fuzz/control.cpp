// Any sequence of control records, through the real handling of requests: the engine plays meanwhile, on a
// clock that never waits.
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

#include "daemon/request_loop.h"
#include "daemon/signals.h"
#include "fuzz/input.h"
#include "shm/shm_server.h"
#include "tests/support/card.h"

namespace {

constexpr const char* kNames[] = {"Session", "Scale", "Step", "Range", "Jump", "FFTime", "Session: 1", ""};
constexpr const char* kValues[] = {"1",          "oldest",     "latest",
                                   "next-alarm", "prev-alarm", "clock=20240102T120002Z-"};

struct Recording {
    Recording() {
        card.stream(1).from("12:00:00").pictures(60).gop(10).closed();
        card.stream(2).from("12:00:05").fps(5).pictures(20).gop(5).closed();
        card.alarm("12:00:01", "12:00:02");
        status.m_status = static_cast<REC_STATUS*>(status.creat(world.statusKey()));
        require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
    }

    test::World world;
    test::Card card{world};
    CtavirnShmServer status;
    int ends[2];
};

rtsp_request record(Input& input) {
    rtsp_request request{};
    request.type = static_cast<int32_t>(input.number());
    request.headerNum = static_cast<int32_t>(input.number());
    for (int n = 0; n < std::clamp(request.headerNum, 0, 64) && !input.empty(); ++n) {
        RTSP_HEADER& header = request.header[n];
        const uint8_t name = input.byte(), value = input.byte();
        std::string nameText = name < std::size(kNames) ? kNames[name] : input.text(name % 65);
        std::string valueText = value < std::size(kValues) ? kValues[value] : input.text(value + 1u);
        nameText.resize(std::min(nameText.size() + 1, sizeof header.name));
        std::memcpy(header.name, nameText.data(), nameText.size());
        std::memcpy(header.value, valueText.data(), valueText.size());
    }
    return request;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Recording recording;
    Input input(data, size);
    RequestLoop loop(-1, recording.status);
    for (int n = 0; n < 12 && !input.empty(); ++n) {
        if (input.byte() == 0xFE) g_formatFlag = 1;
        loop.handle(record(input), recording.ends[0]);
        char answer[200];
        const ssize_t length = recv(recording.ends[1], answer, sizeof answer, MSG_DONTWAIT);
        require(length == -1 || (length >= 1 && length <= 96));
    }
    loop.shutDown();
    return 0;
}

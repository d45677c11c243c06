// Any sequence of control records, through the real handling of requests, while a card of any content is
// played. The playback thread is refused and its passes are made here, as many as the input says and where it
// says, so that an input always does the same; the thread's own life is the tests' matter.
#include <cerrno>
#include <pthread.h>
#include <sys/socket.h>

#include "daemon/request_loop.h"
#include "daemon/signals.h"
#include "engine/pb_picker_thread.h"
#include "fuzz/recording.h"
#include "platform/output_words.h"
#include "tests/support/card.h"
#include "tests/support/simulated_clock.h"

extern "C" int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

namespace {

const std::string kNames[] = {"Session", "Scale", "Step", "Range", "Jump", "FFTime", "Session: 1", ""};
const std::string kValues[] = {"1",          "oldest",     "latest",
                               "next-alarm", "prev-alarm", "clock=20240102T120002Z-"};

bool running = false; ///< an input: the fuzzer has threads of its own

rtsp_request record(Input& input) {
    rtsp_request request{};
    request.type = static_cast<int32_t>(input.number());
    request.headerNum = static_cast<int32_t>(input.number());
    for (int n = 0; n < std::clamp(request.headerNum, 0, 64) && !input.empty(); ++n) {
        const uint8_t name = input.byte(), value = input.byte();
        auto& header = request.header[n];
        (name < std::size(kNames) ? kNames[name] : input.text(name % 65)).copy(header.name, 64);
        (value < std::size(kValues) ? kValues[value] : input.text(value + 1u)).copy(header.value, 256);
    }
    return request;
}

struct Session : CpbPickerThread {
    using CpbPickerThread::m_position;
};

CpbPickerThread* player() {
    return static_cast<CpbPickerThread*>(CpickerThread::Instance({}));
}

/// A pass of the playback thread: the block it would write.
std::string_view pass(CpbPickerThread& player, const Recording& recording) {
    static const auto buffer = std::make_unique<char[]>(CpbPickerThread::kPictureBufferBytes);
    player.m_sleepTimer({}, {});
    const int length = player.movePictureData() == 0 ? player.getPictureData(buffer.get()) : 0;
    require(length >= 0);
    const std::string_view block(buffer.get(), static_cast<size_t>(length));
    PICTURE_HEADER header;
    (player.*&Session::m_position).m_pbStream.getPicH(&header);
    require(block.empty() || block == kPauseBlock || recording.holds(header, block) ||
            recording.holds(block));
    return block;
}

} // namespace

extern "C" int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
                                     void* argument) {
    return running ? EAGAIN : __real_pthread_create(thread, attributes, run, argument);
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Recording recording;
    static const std::string first = test::pictureBytes(1, 0, true);
    static int ends[2];
    static const bool connected = socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0;
    require(connected);
    Input input(data, size), none(data, 0);
    recording.restore(input);
    running = true;
    RequestLoop loop(-1, recording.status);
    for (int steps = 0; steps < 16 && !input.empty(); ++steps) {
        const uint8_t what = input.byte();
        if (what < 32 && player()) {
            for (int passes = 0; passes <= what % 4; ++passes) pass(*player(), recording);
        } else if (what < 64) {
            recording.damage(input);
        } else {
            if (what == 0xFE) g_formatFlag = 1;
            loop.handle(record(input), ends[0]);
            char answer[200];
            const ssize_t length = recv(ends[1], answer, sizeof answer, MSG_DONTWAIT);
            require(length == -1 || (length >= 1 && length <= kParameterSetAnswerBytes));
        }
    }
    recording.restore(none);
    if (player()) {
        const rtsp_request oldest{RTSP_REQ_PLAY, {}, 1, {{"Jump", "oldest"}}};
        player()->analyzeEventData(&oldest);
        require(pass(*player(), recording) == first);
    }
    loop.shutDown();
    test::simulated::takeSleepsUs();
    running = false;
    return 0;
}

// Any sequence of control records, through the real handling of requests, while a card of any content is
// played. The playback thread is refused and its passes are made here, as many as the input says and where it
// says, so that an input always does the same; the thread's own life is the tests' matter.
#include <cerrno>
#include <cstring>
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

constexpr const char* kNames[] = {"Session", "Scale", "Step", "Range", "Jump", "FFTime", "Session: 1", ""};
constexpr const char* kValues[] = {"1",          "oldest",     "latest",
                                   "next-alarm", "prev-alarm", "clock=20240102T120002Z-"};
constexpr int kSteps = 16;

bool running = false; ///< an input: the fuzzer has threads of its own

template <size_t size> void setText(char (&field)[size], const std::string& text) {
    std::memcpy(field, text.c_str(), std::min(text.size() + 1, size));
}

rtsp_request record(Input& input) {
    rtsp_request request{};
    request.type = static_cast<int32_t>(input.number());
    request.headerNum = static_cast<int32_t>(input.number());
    for (int n = 0; n < std::clamp(request.headerNum, 0, 64) && !input.empty(); ++n) {
        const uint8_t name = input.byte(), value = input.byte();
        setText(request.header[n].name, name < std::size(kNames) ? kNames[name] : input.text(name % 65));
        setText(request.header[n].value,
                value < std::size(kValues) ? kValues[value] : input.text(value + 1u));
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
    require(block.empty() || block == kPauseBlock || recording.holds(header, block));
    return block;
}

} // namespace

extern "C" int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
                                     void* argument) {
    return running ? EAGAIN : __real_pthread_create(thread, attributes, run, argument);
}

// Nobody else is there whom the clock could let go first.
extern "C" int __wrap_sched_yield() {
    return 0;
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
    for (int steps = 0; steps < kSteps && !input.empty(); ++steps) {
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
            require(length == -1 || (length >= 1 && length <= 96));
        }
    }
    recording.restore(none);
    if (player()) {
        rtsp_request oldest{};
        oldest.type = RTSP_REQ_PLAY;
        oldest.headerNum = 1;
        oldest.header[0] = {"Jump", "oldest"};
        player()->analyzeEventData(&oldest);
        require(pass(*player(), recording) == first);
    }
    loop.shutDown();
    test::simulated::takeSleeps();
    running = false;
    return 0;
}

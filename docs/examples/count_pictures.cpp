// A client in one page: opens a session, plays the newest stream to its end and counts the pictures that come
// out.
//
//   g++ -std=c++20 count_pictures.cpp $(pkg-config --cflags --libs tavirn-client) -o count-pictures
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <tavirn/control_client.h>
#include <tavirn/output_reader.h>
#include <tavirn/paths.h>
#include <unistd.h>

namespace {

/// Asks again for a few seconds while nobody listens: a daemon that has just been started soon will.
std::string ask(const ControlRequest& request) {
    auto answer = exchange(paths().controlSocket, request.record);
    for (int tries = 50; !answer && (errno == ENOENT || errno == ECONNREFUSED) && tries > 0; --tries) {
        usleep(100'000);
        answer = exchange(paths().controlSocket, request.record);
    }
    if (!answer) {
        std::perror(paths().controlSocket);
        std::exit(1);
    }
    return *answer;
}

ControlRequest inSession(int32_t type) {
    return ControlRequest(type).with("Session", "1");
}

/// The pictures that come, at least one, until the daemon pauses.
unsigned countPictures(OutputReader& reader) {
    OutputBlock block;
    unsigned pictures = 0;
    while (reader.next(block, std::chrono::seconds(10)) == ReadResult::block) {
        if (!isPauseBlock(block))
            ++pictures;
        else if (pictures != 0)
            break;
    }
    return pictures;
}

} // namespace

int main() {
    if (readOpenAnswer(ask(ControlRequest(RTSP_REQ_OPEN))) != OpenAnswer::opened) {
        std::fputs("no session can be opened\n", stderr);
        return 1;
    }
    ask(inSession(RTSP_REQ_SESSION));
    OutputReader reader; // the memory comes with the playback thread, a moment after the answer
    for (int tries = 500; !reader.attach(paths().ipcKey, kOutputMemoryProject) && tries > 0; --tries)
        usleep(10'000);
    reader.rewind();
    countPictures(reader); // the first one is shown at once, and again when it is played
    ask(inSession(RTSP_REQ_PLAY));
    std::printf("%u pictures\n", countPictures(reader));
    ask(inSession(RTSP_REQ_TEARDOWN));
}

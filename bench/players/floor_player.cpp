// The least a player can be: one picture after the other from an elementary stream to standard output, each
// read, copied and written at its time. It knows the pictures' sizes, and that all last as long.
//   floor_player STREAM SIZES MICROSECONDS
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

#include "bench/players/pictures.h"

namespace {

bool readAll(int file, char* to, size_t bytes) {
    while (bytes > 0) {
        const ssize_t got = read(file, to, bytes);
        if (got <= 0) return false;
        to += got;
        bytes -= static_cast<size_t>(got);
    }
    return true;
}

bool writeAll(const char* from, size_t bytes) {
    while (bytes > 0) {
        const ssize_t put = write(STDOUT_FILENO, from, bytes);
        if (put <= 0) return false;
        from += put;
        bytes -= static_cast<size_t>(put);
    }
    return true;
}

void sleepUntil(timespec& due, long microseconds) {
    due.tv_nsec += microseconds * 1000;
    due.tv_sec += due.tv_nsec / 1'000'000'000;
    due.tv_nsec %= 1'000'000'000;
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, nullptr) == EINTR) {
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fputs("usage: floor_player STREAM SIZES MICROSECONDS\n", stderr);
        return 2;
    }
    const int file = open(argv[1], O_RDONLY);
    const std::vector<size_t> sizes = players::sizesFrom(argv[2]);
    const long interval = std::atol(argv[3]);
    if (file == -1 || sizes.empty() || interval <= 0 || interval >= 1'000'000) {
        std::fputs("floor_player: nothing to play, or no interval below a second\n", stderr);
        return 2;
    }
    const size_t largest = *std::max_element(sizes.begin(), sizes.end());
    std::vector<char> picture(largest);
    std::vector<char> copied(largest);
    timespec due{};
    clock_gettime(CLOCK_MONOTONIC, &due);
    for (const size_t bytes : sizes) {
        sleepUntil(due, interval);
        if (!readAll(file, picture.data(), bytes)) return 1;
        std::memcpy(copied.data(), picture.data(), bytes);
        if (!writeAll(copied.data(), bytes)) return 1;
    }
    return 0;
}

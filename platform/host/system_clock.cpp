#include "platform/clock.h"

#include <ctime>

namespace wallclock {

timeval now() {
    timeval t{};
    gettimeofday(&t, nullptr);
    return t;
}

void sleepFor(timeval span) {
    timespec request{};
    request.tv_sec = span.tv_sec;
    request.tv_nsec = static_cast<decltype(request.tv_nsec)>(span.tv_usec) * 1000;
    nanosleep(&request, nullptr);
}

} // namespace wallclock

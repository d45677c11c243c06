#include "tools/tour/transcript.h"

#include <cstdio>
#include <unistd.h>

#include "tools/common/clock_text.h"
#include "tools/common/formatted.h"

namespace {

constexpr size_t kFew = 5;
constexpr size_t kDateLength = 11; ///< of "2024-01-02 03:04:05.250", to the time of day

void printTrimmed(std::string line) {
    line.erase(line.find_last_not_of(' ') + 1);
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

} // namespace

void printHeading(const std::string& title) {
    const bool bold = isatty(STDOUT_FILENO) == 1;
    std::printf("\n%s== %s ==%s\n", bold ? "\033[1m" : "", title.c_str(), bold ? "\033[0m" : "");
    std::fflush(stdout);
}

void printTableHead() {
    printTrimmed(
        formatted("%7s  %-31s %-10s  %-28s  %s", "time", "request", "status", "burned-in time", "pictures"));
}

void printLine(double asked, const std::string& request, const std::string& status, const std::string& times,
               const std::string& remark) {
    printTrimmed(
        formatted("%5.1f s  %-31s %-10s  %-28s  ", asked, request.c_str(), status.c_str(), times.c_str()) +
        remark);
}

std::string timeOfDay(uint64_t ms) {
    return clockText(ms).substr(kDateLength);
}

std::string timesOf(const Came& came) {
    if (came.pictures.empty()) return "";
    const auto clock = [&](size_t n) {
        return came.pictures[n].place ? timeOfDay(came.recorded(n).timeMs) : "?";
    };
    const size_t count = came.pictures.size();
    return count == 1 ? clock(0) : clock(0) + " to " + clock(count - 1);
}

std::vector<Caption> captionsOf(const Came& came, const std::string& request) {
    std::vector<Caption> captions;
    const size_t count = came.pictures.size();
    const auto add = [&](size_t n, const std::string& text) {
        if (captions.empty() || captions.back().picture < n) captions.push_back({n, request + text});
    };
    if (count == 1) add(0, "");
    for (size_t n = 0; n < count && count <= kFew; ++n) add(n, formatted(", %zu", n + 1));
    if (count <= kFew) return captions;
    add(0, ": the first");
    for (size_t n = 1; n < count; ++n) {
        if (!came.crosses(n)) continue;
        add(n - 1, formatted(": stream %u ends", came.recorded(n - 1).stream));
        add(n, formatted(": stream %u begins", came.recorded(n).stream));
    }
    add(count - 1, ": the last");
    return captions;
}

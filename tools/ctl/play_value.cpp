#include "tools/ctl/play_value.h"

#include <cstdint>
#include <ctime>

#include "tools/client/control_client.h"
#include "tools/common/clock_text.h"

namespace {

constexpr char kClock[] = "clock=";
constexpr char kClockFormat[] = "%Y%m%dT%H%M%SZ";

bool isClockText(const std::string& text) {
    tm parsed{};
    const char* rest = strptime(text.c_str(), kClockFormat, &parsed);
    if (!rest || (*rest != '\0' && std::string(rest) != "-")) return false;
    return mktime(&parsed) <= INT32_MAX; // behind that the daemon's clock ends
}

} // namespace

std::optional<std::string> rangeValue(const std::string& text) {
    const bool marked = text.starts_with(kClock);
    const std::string clock = marked ? text.substr(sizeof kClock - 1) : text;
    if (isClockText(clock)) return kClock + clock;
    const std::optional<uint64_t> ms = parseClock(clock);
    if (!ms) return std::nullopt;
    return kClock + daemonClock(static_cast<time_t>(*ms / 1000));
}

std::optional<std::string> jumpValue(const std::string& text) {
    for (const char* word : {"oldest", "latest", "next-alarm", "prev-alarm"})
        if (text == word) return text;
    return rangeValue(text);
}

#include "tools/common/clock_text.h"

#include <cctype>
#include <cstdio>
#include <ctime>

std::optional<uint64_t> parseClock(const std::string& text) {
    std::tm parts{};
    const char* rest = strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &parts);
    if (!rest) return std::nullopt;
    unsigned milliseconds = 0;
    if (*rest == '.') {
        unsigned scale = 100;
        for (++rest; std::isdigit(static_cast<unsigned char>(*rest)) != 0 && scale > 0; ++rest, scale /= 10)
            milliseconds += static_cast<unsigned>(*rest - '0') * scale;
    }
    parts.tm_isdst = -1;
    const int day = parts.tm_mday;
    const std::time_t seconds = std::mktime(&parts); // makes 31 February a day in March
    if (*rest != '\0' || parts.tm_mday != day || seconds <= 0 || seconds > INT32_MAX) return std::nullopt;
    return static_cast<uint64_t>(seconds) * 1000 + milliseconds;
}

std::string clockText(uint64_t ms) {
    const auto seconds = static_cast<std::time_t>(ms / 1000);
    std::tm parts{};
    localtime_r(&seconds, &parts);
    char date[32];
    char text[48];
    std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &parts);
    std::snprintf(text, sizeof text, "%s.%03u", date, static_cast<unsigned>(ms % 1000));
    return text;
}

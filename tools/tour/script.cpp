#include "tools/tour/script.h"

#include <cctype>

#include "tools/common/clock_text.h"
#include "tools/ctl/play_value.h"

namespace {

constexpr char kDay[] = "2024-01-02 ";

int64_t at(const std::string& time) {
    return static_cast<int64_t>(parseClock(kDay + time).value());
}

} // namespace

std::string Step::text() const {
    if (header.empty()) return "play";
    std::string option = header;
    for (char& letter : option) letter = static_cast<char>(std::tolower(letter));
    return "play --" + option + ' ' + value;
}

std::string Step::headerValue() const {
    return header == "Jump" ? jumpValue(value).value() : value;
}

std::vector<std::string> recordedWords() {
    return {"--start",    kDay + std::string("03:04:05.250"),
            "--duration", "24",
            "--split",    "8",
            "--gap",      "5",
            "--event",    "4:512",
            "--event",    "30:512"};
}

std::vector<Step> recordedSteps() {
    const std::string day = kDay;
    return {
        {"Jump", "oldest", 0, "pause(sof)", isFirstOf, 1},
        {"", "", 290, "play", crossesABorder},
        {"Step", "1", 0, "pause", isNext},
        {"Step", "1", 0, "pause", isNext},
        {"Step", "-1", 0, "pause", isIPictureBefore},
        {"Jump", day + "03:04:07", 0, "pause", isAt, at("03:04:07.250")},
        {"Scale", "4", 4, "play", skips, 4000},
        {"Scale", "-2", 4, "play", skips, -2000},
        {"Scale", "0.5", 45, "play", playsAtHalfSpeed},
        {"Jump", "oldest", 0, "pause(sof)", isFirstOf, 1},
        {"Jump", "next-alarm", 0, "pause", isAt, at("03:04:09.250")},
        {"Jump", "next-alarm", 0, "pause", isAt, at("03:04:35.250")},
        {"Jump", "prev-alarm", 0, "pause", isAt, at("03:04:09.250")},
        {"Jump", "latest", 0, "pause(eof)", isAt, at("03:04:38.250")},
    };
}

std::vector<Step> liveSteps() {
    return {
        {"Jump", "latest", 0, "pause(eof)", isNewestOf, 4},
        {"", "", 150, "play", followsClosely, 0, 1000}, // so far behind, play does not catch up with it
    };
}

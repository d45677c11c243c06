#include "engine/request_analysis.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <string_view>

#include "daemon/rtsp_request.h"
#include "platform/log.h"

namespace {

constexpr char kClockFormat[] = "%Y%m%dT%H%M%SZ";
constexpr std::string_view kClockKey = "clock=";

/// A header's value without white space, zero-filled: text behind a keyword may start beyond its end.
class WorkText {
public:
    explicit WorkText(const RTSP_HEADER& header) {
        size_t length = 0;
        for (const char c : fieldText(header.value)) {
            if (std::isspace(static_cast<unsigned char>(c)) == 0) m_text[length++] = c;
        }
    }
    const char* text() const { return m_text; }
    /// The text from its n-th character on.
    const char* from(size_t n) const { return m_text + n; }
    bool startsWith(std::string_view word) const { return std::string_view(m_text).starts_with(word); }
    double number() const { return std::atof(m_text); }

private:
    char m_text[sizeof(RTSP_HEADER::value) + kClockKey.size() + 1] = {};
};

/// Truncated to 32 bits; the largest value for anything beyond, 0 for what is no number.
uint32_t wholePart(double magnitude) {
    constexpr double kBeyond = 4294967296.0;
    if (std::isnan(magnitude)) return 0;
    return magnitude < kBeyond ? static_cast<uint32_t>(magnitude) : std::numeric_limits<uint32_t>::max();
}

/// Local time, seconds since the epoch in 32 bits. Text that doesn't fit the format gives whatever was
/// filled in up to there; a time beyond 32 bits gives -1, as a 32-bit mktime does.
uint32_t clockTime(const char* text) {
    tm fields{};
    strptime(text, kClockFormat, &fields);
    logNamed(LOG_INFO, "analyzeEventData", "%d/%d/%d %d:%d:%d", fields.tm_year, fields.tm_mon, fields.tm_mday,
             fields.tm_hour, fields.tm_min, fields.tm_sec);
    const time_t seconds = std::mktime(&fields);
    const auto narrow = static_cast<int32_t>(seconds);
    const int32_t time = narrow == seconds ? narrow : -1;
    logNamed(LOG_INFO, "analyzeEventData", "mktime() = %ld", asLd(time));
    return static_cast<uint32_t>(time);
}

void analyzeScale(const WorkText& value, PBDATA& record) {
    const double scale = value.number();
    record.reqType = scale < 0 ? kReqScaleReverse : kReqScaleForward;
    record.reqSpeed = wholePart(std::fabs(scale) * 10.0);
    std::printf("playSpeed = %lu\n", asLu(record.reqSpeed));
}

void analyzeStep(const WorkText& value, PBDATA& record) {
    const double step = value.number();
    record.reqType = step < 0 ? kReqStepBackward : kReqStepForward;
    record.reqSpeed = wholePart(std::fabs(step));
}

void analyzeRange(const WorkText& value, PBDATA& record) {
    logNamed(LOG_INFO, "analyzeEventData", "%s", value.text());
    const size_t clock = std::string_view(value.text()).find(kClockKey);
    if (clock == std::string_view::npos) return;
    record.reqJump = JUMP_RANGE;
    record.reqTime = clockTime(value.from(clock + kClockKey.size()));
}

void analyzeJump(const WorkText& value, PBDATA& record) {
    logNamed(LOG_INFO, "analyzeEventData", "Jump: %s", value.text());
    if (value.startsWith("oldest")) {
        record.reqJump = JUMP_OLDEST;
    } else if (value.startsWith("latest")) {
        record.reqJump = JUMP_LATEST;
    } else if (value.startsWith("next-alarm")) {
        record.reqJump = JUMP_NEXT_ALARM;
    } else if (value.startsWith("prev-alarm")) {
        record.reqJump = JUMP_PREV_ALARM;
    } else if (value.startsWith("clock")) {
        const char* const clock = value.from(kClockKey.size()); // whatever stands in place of the "="
        logNamed(LOG_INFO, "analyzeEventData", "%s", clock);
        record.reqJump = JUMP_CLOCK;
        record.reqTime = clockTime(clock);
    }
}

constexpr struct {
    std::string_view name;
    void (*analyze)(const WorkText&, PBDATA&);
} kKeywords[] = {
    {"Scale", analyzeScale}, {"Step", analyzeStep}, {"Range", analyzeRange}, {"Jump", analyzeJump}};

/// Applies the entry when it bears one of the keywords.
bool analyzeHeader(const RTSP_HEADER& header, PBDATA& record) {
    for (const auto& keyword : kKeywords) {
        if (!isNamed(header, keyword.name)) continue;
        keyword.analyze(WorkText(header), record);
        return true;
    }
    return false;
}

} // namespace

std::optional<PBDATA> analyzeRequest(const rtsp_request& request) {
    if (request.type == RTSP_REQ_PAUSE) return PBDATA{.reqType = kReqPause};
    if (request.type != RTSP_REQ_PLAY) return std::nullopt;
    PBDATA record{.reqType = kReqPlay, .reqSpeed = kNormalSpeed};
    // The first entry with a keyword decides; those behind it are not looked at.
    for (int i = 0; i < headerCount(request); ++i) {
        if (analyzeHeader(request.header[i], record)) break;
    }
    return record;
}

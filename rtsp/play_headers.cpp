#include "rtsp/play_headers.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <gst/rtsp/gstrtsprange.h>

#include "tools/common/formatted.h"

namespace {

constexpr double kMostScale = 100;
constexpr int64_t kSecond = 1000;
constexpr double kFarthest = 1e10; ///< seconds; some three hundred years

std::optional<double> number(std::string_view text) {
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value))
        return std::nullopt;
    return value;
}

/// What the daemon makes of it: tenths, cut off, and one slow speed. 0: cannot be played.
int playedScale(double scale) {
    if (scale == 0 || std::abs(scale) > kMostScale) return 0;
    if (std::abs(scale) < 1) return scale > 0 ? kSlowScale : -kSlowScale;
    return static_cast<int>(scale * 10);
}

/// Nothing for the beginning or end that is left open.
std::optional<int64_t> inMs(const GstRTSPTime& time, const GstRTSPTime2& day, int64_t zero) {
    const int64_t ms = std::llround(std::clamp(time.seconds, -kFarthest, kFarthest) * kSecond);
    switch (time.type) {
    case GST_RTSP_TIME_SECONDS:
        return zero + ms;
    case GST_RTSP_TIME_UTC: {
        tm date{};
        date.tm_year = static_cast<int>(day.year) - 1900;
        date.tm_mon = static_cast<int>(day.month) - 1;
        date.tm_mday = static_cast<int>(day.day);
        return timegm(&date) * kSecond + ms;
    }
    default:
        return std::nullopt;
    }
}

bool readRange(const std::string& text, int64_t zero, PlayRequest& play, RangeUnit& unit) {
    // The library takes text that is no number for 0.
    if (text.find_first_not_of("0123456789.:-TZ", text.find('=') + 1) != std::string::npos &&
        text.find("now") == std::string::npos)
        return false;
    GstRTSPTimeRange* range = nullptr;
    if (gst_rtsp_range_parse(text.c_str(), &range) != GST_RTSP_OK) return false;
    play.hasRange = true;
    play.live = range->min.type == GST_RTSP_TIME_NOW;
    play.from = inMs(range->min, range->min2, zero);
    play.until = inMs(range->max, range->max2, zero);
    const bool known = range->unit == GST_RTSP_RANGE_NPT || range->unit == GST_RTSP_RANGE_CLOCK;
    unit = range->unit == GST_RTSP_RANGE_CLOCK ? RangeUnit::clock : RangeUnit::npt;
    gst_rtsp_range_free(range);
    if (!known || !play.from || !play.until) return known;
    return play.scale > 0 ? *play.from <= *play.until : *play.from >= *play.until;
}

/// "intra", "intra/4000", "predicted" (all but the B-pictures that there are none of), "all".
bool readFrames(std::string_view text, PlayRequest& play) {
    const std::string_view kind = text.substr(0, text.find('/'));
    if (kind == "intra" && kind.size() < text.size()) {
        const auto interval = number(text.substr(kind.size() + 1));
        if (!interval || *interval < 0 || *interval > 1e9) return false;
        play.intervalMs = static_cast<int64_t>(*interval);
    }
    play.iPicturesOnly = kind == "intra";
    return kind == "intra" || kind == "predicted" || kind == "all";
}

} // namespace

int readPlay(const RtspRequest& request, int64_t zero, PlayRequest& play, RangeUnit& unit) {
    constexpr int kBad = 400, kBadRange = 457, kOk = 200;
    const std::string_view scale = request.header("Scale"), range = request.header("Range");
    const std::string_view frames = request.header("Frames"), rate = request.header("Rate-Control");
    if (!scale.empty()) {
        play.scale = playedScale(number(scale).value_or(0));
        if (play.scale == 0) return kBad;
    }
    play.replay = !frames.empty() || !rate.empty() || !request.header("Immediate").empty() ||
                  request.header("Require").find("onvif-replay") != std::string_view::npos;
    play.rateControl = rate != "no";
    if (!frames.empty() && !readFrames(frames, play)) return kBad;
    play.cseq = static_cast<uint8_t>(std::atoi(std::string(request.header("CSeq")).c_str()));
    if (!range.empty() && !readRange(std::string(range), zero, play, unit)) return kBadRange;
    return kOk;
}

std::string timeText(RangeUnit unit, int64_t time, int64_t zero) {
    const int64_t ms = std::max<int64_t>(unit == RangeUnit::npt ? time - zero : time, 0);
    const time_t seconds = ms / kSecond;
    const std::string fraction = formatted(".%03d", int(ms % kSecond));
    if (unit == RangeUnit::npt) return std::to_string(seconds) + fraction;
    char text[32];
    tm date{};
    gmtime_r(&seconds, &date);
    std::strftime(text, sizeof text, "%Y%m%dT%H%M%S", &date);
    return text + fraction + 'Z';
}

std::string rangeText(RangeUnit unit, std::optional<int64_t> from, std::optional<int64_t> until,
                      int64_t zero) {
    std::string text = unit == RangeUnit::npt ? "npt=" : "clock=";
    if (from) text += timeText(unit, *from, zero);
    text += '-';
    if (until) text += timeText(unit, *until, zero);
    return text;
}

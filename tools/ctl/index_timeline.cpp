#include "tools/ctl/index_timeline.h"

#include <algorithm>
#include <ctime>
#include <iomanip>
#include <sstream>
#include <vector>

#include "tools/common/formatted.h"

namespace {

constexpr unsigned kMargin = 12; ///< columns before the scale, for the names of the lines
constexpr unsigned kFewestColumns = 40;
constexpr uint64_t kDay = 86400;

struct Span {
    uint64_t fromMs, toMs; ///< toMs: the end, or now for what goes on
    uint32_t number;
    bool goesOn;
};

template <class Row> Span spanOf(const Row& row, uint32_t number, uint64_t nowMs) {
    return {startMs(row), std::max(startMs(row), goesOn(row) ? nowMs : endMs(row)), number, goesOn(row)};
}

/// Which column of a line stands for a time.
struct Scale {
    uint64_t fromMs, toMs; ///< toMs above fromMs
    unsigned width;

    bool shows(uint64_t ms) const { return ms >= fromMs && ms <= toMs; }
    size_t column(uint64_t ms) const {
        return static_cast<size_t>((std::clamp(ms, fromMs, toMs) - fromMs) * (width - 1) / (toMs - fromMs));
    }
};

std::string line(const std::string& name, std::string drawn) {
    drawn.erase(drawn.find_last_not_of(' ') + 1);
    return formatted("%-*s", static_cast<int>(kMargin), name.c_str()) + drawn + '\n';
}

/// Fills the columns of the span and puts `mark` over the first ones.
void draw(std::string& drawn, const Scale& scale, const Span& span, char fill, const std::string& mark) {
    const size_t from = scale.column(span.fromMs);
    const size_t to = scale.column(span.toMs);
    std::fill(drawn.begin() + static_cast<ptrdiff_t>(from), drawn.begin() + static_cast<ptrdiff_t>(to) + 1,
              fill);
    drawn.replace(from, mark.size(), mark);
}

std::string drawStreams(const std::vector<Span>& streams, const Scale& scale) {
    std::string drawn(scale.width, '.');
    for (const Span& stream : streams) {
        const std::string number = std::to_string(stream.number);
        const bool fits = scale.column(stream.toMs) - scale.column(stream.fromMs) > number.size();
        draw(drawn, scale, stream, '=', fits ? number : "|");
        if (stream.goesOn) drawn[scale.column(stream.toMs)] = '>';
    }
    return drawn;
}

std::string drawAlarms(const std::vector<Span>& alarms, const Scale& scale) {
    std::string drawn(scale.width, ' ');
    for (const Span& alarm : alarms)
        if (scale.shows(alarm.fromMs)) draw(drawn, scale, alarm, '-', "!");
    for (const Span& alarm : alarms) // those that began while another went on
        if (scale.shows(alarm.fromMs)) drawn[scale.column(alarm.fromMs)] = '!';
    return drawn;
}

/// As strftime writes it.
std::string timeText(uint64_t seconds, const char* format) {
    const auto time = static_cast<time_t>(seconds);
    tm local{};
    localtime_r(&time, &local);
    std::ostringstream text;
    text << std::put_time(&local, format);
    return text.str();
}

/// Seconds from one label to the next: a round number that leaves room for them.
uint64_t labelStep(const Scale& scale) {
    constexpr uint64_t kSteps[] = {1,     2,     5,     10,   15,       30,       60,
                                   120,   300,   600,   900,  1800,     3600,     7200,
                                   10800, 21600, 43200, kDay, 2 * kDay, 7 * kDay, 28 * kDay};
    for (const uint64_t step : kSteps) {
        const uint64_t room = step < 60 ? 11 : 8;
        if (step * 1000 * scale.width / (scale.toMs - scale.fromMs) >= room) return step;
    }
    return (scale.toMs - scale.fromMs) / 4000 + 1;
}

std::string drawScale(const Scale& scale) {
    std::string drawn(scale.width, ' ');
    const uint64_t step = labelStep(scale);
    const auto begin = static_cast<time_t>(scale.fromMs / 1000);
    tm local{};
    localtime_r(&begin, &local); // round in local time
    const auto offset = static_cast<uint64_t>(local.tm_gmtoff);
    const uint64_t first = (scale.fromMs / 1000 + offset + step - 1) / step * step - offset;
    for (uint64_t at = first; at * 1000 <= scale.toMs; at += step) {
        const std::string label = timeText(at, step < 60 ? "|%H:%M:%S" : step < kDay ? "|%H:%M" : "|%m-%d");
        if (!scale.shows(at * 1000)) continue;
        const size_t column = scale.column(at * 1000);
        if (column + label.size() <= drawn.size()) drawn.replace(column, label.size(), label);
    }
    return drawn;
}

/// A length of time in its largest unit that there are two of.
std::string roughly(uint64_t ms) {
    constexpr struct {
        uint64_t seconds;
        const char* name;
    } kUnits[] = {{kDay, "days"}, {3600, "hours"}, {60, "minutes"}};
    for (const auto& unit : kUnits)
        if (const uint64_t count = ms / 1000 / unit.seconds; count >= 2)
            return std::to_string(count) + ' ' + unit.name;
    return std::to_string(ms / 1000) + " seconds";
}

std::string drawNow(uint64_t nowMs, const Scale& scale) {
    if (scale.shows(nowMs)) return std::string(scale.column(nowMs), ' ') + '^';
    return nowMs < scale.fromMs ? roughly(scale.fromMs - nowMs) + " before"
                                : roughly(nowMs - scale.toMs) + " later";
}

} // namespace

std::string asTimeline(const IndexListing& listing, uint64_t nowMs, unsigned columns) {
    std::vector<Span> streams, alarms;
    for (const DB_STREAM& stream : listing.streams) streams.push_back(spanOf(stream, stream.streamID, nowMs));
    for (const DB_EVENT& alarm : listing.alarms) alarms.push_back(spanOf(alarm, alarm.eventID, nowMs));
    if (streams.empty()) return "";

    Scale scale{UINT64_MAX, 0, std::max(columns, kFewestColumns) - kMargin};
    for (const Span& stream : streams) {
        scale.fromMs = std::min(scale.fromMs, stream.fromMs);
        scale.toMs = std::max(scale.toMs, stream.toMs);
    }
    scale.toMs = std::max(scale.toMs, scale.fromMs + 1);
    // Now is drawn while it is near; further away it would leave the recordings no room.
    if (nowMs > scale.toMs && nowMs - scale.toMs <= (scale.toMs - scale.fromMs) / 4) scale.toMs = nowMs;

    std::string text = line(timeText(scale.fromMs / 1000, "%Y-%m-%d"), drawScale(scale));
    text += line("streams", drawStreams(streams, scale));
    if (!alarms.empty()) text += line("alarms", drawAlarms(alarms, scale));
    return text + line("now", drawNow(nowMs, scale));
}

#include "tools/view/view_stats.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <string_view>

#include "tools/common/formatted.h"
#include "tools/common/json.h"

namespace {

constexpr uint32_t kLongestIncrement = 1000 * kStampsPerMs; // a longer jump begins a run
constexpr uint64_t kLeftOut = 2;                            // pictures at the start of each run

constexpr double kTurnStepMs = 10; // of the daemon's pacing

using Milliseconds = std::chrono::duration<double, std::milli>;

/// The smallest value that `percent` of them do not exceed; `sorted` is not empty.
double percentile(const std::vector<double>& sorted, size_t percent) {
    return sorted[(sorted.size() * percent + 99) / 100 - 1];
}

/// Less the earliest of them.
std::vector<double> againstEarliest(std::vector<double> delays) {
    const double earliest = *std::min_element(delays.begin(), delays.end());
    for (double& delay : delays) delay -= earliest;
    return delays;
}

ViewReport::Lateness percentilesOf(std::vector<double> lateness) {
    std::sort(lateness.begin(), lateness.end());
    return {percentile(lateness, 50), percentile(lateness, 99), lateness.back()};
}

ViewReport::Increments incrementsOf(const std::map<uint32_t, uint64_t>& counts) {
    uint64_t total = 0;
    for (const auto& [increment, count] : counts) total += count;
    uint64_t below = 0;
    auto middle = counts.begin();
    while ((below += middle->second) * 2 < total) ++middle;
    return {counts.begin()->first, middle->first, counts.rbegin()->first};
}

} // namespace

void ViewStats::add(const OutputBlock& block, std::optional<Clock::time_point> arrival) {
    m_report.missedBlocks += block.missed;
    if (isPauseBlock(block)) {
        ++m_report.pauseBlocks;
        m_runPictures = 0;
        return;
    }

    const uint32_t increment = block.timestamp - m_report.lastStamp; // wraps as the stamps do
    const double before = m_runStampMs;
    if (m_runPictures != 0 && increment <= kLongestIncrement) {
        ++m_increments[increment];
        m_runStampMs += static_cast<double>(increment) / kStampsPerMs;
    } else {
        appendLateness(m_lateness);
        m_run.clear();
        m_runStampMs = 0;
        m_runPictures = 0;
        ++m_report.runs;
    }
    ++m_runPictures;
    if (arrival && !m_measured) m_measured = arrival;
    if (arrival && m_runPictures > kLeftOut)
        m_run.push_back({Milliseconds(*arrival - *m_measured).count(), m_runStampMs, before});

    if (m_report.pictures++ == 0) m_report.firstStamp = block.timestamp;
    m_report.lastStamp = block.timestamp;
    m_report.bytes += block.data.size();
}

void ViewStats::appendLateness(Lateness& all) const {
    if (m_run.empty()) return;
    const auto append = [](std::vector<double>& to, const std::vector<double>& more) {
        to.insert(to.end(), more.begin(), more.end());
    };
    std::vector<double> delays;
    for (const Arrival& picture : m_run) delays.push_back(picture.at - picture.stamp);
    append(all.againstStamp, againstEarliest(delays));

    std::vector<double> best;
    double least = 0;
    for (double base = 0; base < kTurnStepMs; ++base) {
        for (size_t i = 0; i < m_run.size(); ++i)
            delays[i] = m_run[i].at - std::floor((m_run[i].before + base) / kTurnStepMs) * kTurnStepMs;
        std::vector<double> lateness = againstEarliest(delays);
        const double sum = std::accumulate(lateness.begin(), lateness.end(), 0.0);
        if (best.empty() || sum < least) {
            least = sum;
            best = std::move(lateness);
        }
    }
    append(all.againstTurn, best);
}

ViewReport ViewStats::report() const {
    ViewReport report = m_report;
    if (!m_increments.empty()) report.increments = incrementsOf(m_increments);
    Lateness lateness = m_lateness;
    appendLateness(lateness);
    if (!lateness.againstTurn.empty()) {
        report.againstTurn = percentilesOf(lateness.againstTurn);
        report.againstStamp = percentilesOf(lateness.againstStamp);
    }
    return report;
}

std::string asText(const ViewReport& r) {
    const auto count = [](const char* name, uint64_t value) {
        return formatted("%-16s %llu\n", name, static_cast<unsigned long long>(value));
    };
    std::string text = count("pictures", r.pictures) + count("bytes", r.bytes) +
                       count("PAUSE blocks", r.pauseBlocks) + count("missed blocks", r.missedBlocks) +
                       count("runs", r.runs);
    if (r.pictures != 0) text += formatted("%-16s %u to %u\n", "stamps", r.firstStamp, r.lastStamp);
    if (r.increments)
        text += formatted("%-16s min %u, median %u, max %u\n", "stamp increments", r.increments->min,
                          r.increments->median, r.increments->max);
    const auto late = [](const char* name, const ViewReport::Lateness& of) {
        return formatted("%-16s p50 %.2f ms, p99 %.2f ms, max %.2f ms\n", name, of.p50, of.p99, of.max);
    };
    if (r.againstTurn) text += late("late on turn", *r.againstTurn) + late("late on stamp", *r.againstStamp);
    return text;
}

std::string asJson(const ViewReport& r) {
    Json json{{"pictures", r.pictures},
              {"bytes", r.bytes},
              {"pauseBlocks", r.pauseBlocks},
              {"missedBlocks", r.missedBlocks},
              {"runs", r.runs}};
    if (r.pictures != 0) {
        json["firstStamp"] = r.firstStamp;
        json["lastStamp"] = r.lastStamp;
    }
    if (r.increments)
        json["stampIncrement"] = {
            {"min", r.increments->min}, {"median", r.increments->median}, {"max", r.increments->max}};
    const auto late = [](const ViewReport::Lateness& of) {
        return Json{{"p50", rounded(of.p50, 3)}, {"p99", rounded(of.p99, 3)}, {"max", rounded(of.max, 3)}};
    };
    if (r.againstTurn) {
        json["latenessMs"] = late(*r.againstTurn);
        json["latenessAgainstStampMs"] = late(*r.againstStamp);
    }
    return jsonLine(json);
}

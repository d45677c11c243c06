// tools/view/ holds the viewer: blocks of the output memory into files and figures, as an RTSP server would
// read them. It never asks the daemon for anything.
//
// Here: what a stream of output blocks says about playback: how much came, whether anything was missed, how
// even the time stamps are and how late the pictures come against them.
//
// Pictures belong to one run as long as no PAUSE block comes between them and their stamps rise by at most a
// second: the daemon takes a new base for its pacing where a run ends. Two figures tell how late a picture
// is, each relative to the earliest picture of its run:
//  - against its turn: the daemon lets a picture go when the wall clock has caught up with the one before it,
//    and counts both clocks from the run's base in whole steps of 10 ms. Where the base lies within such a
//    step is not visible from outside; the place that leaves the least lateness is taken.
//  - against its stamp: what a reader sees that sends every picture on as it comes. The steps show here.
// The first two pictures of a run are left out: the first one goes out an interval early by design, and the
// second follows at once. So are the pictures that the memory already held when it was attached: they did not
// arrive, they were found.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/output_reader.h"
#include "platform/output_words.h"

inline constexpr uint32_t kStampsPerMs = kPtsPerMs;

struct ViewReport {
    struct Increments { ///< of the stamp from picture to picture within a run, 90 units per millisecond
        uint32_t min, median, max;
    };
    struct Lateness { ///< milliseconds
        double p50, p99, max;
    };

    uint64_t pictures = 0;
    uint64_t bytes = 0; ///< of pictures
    uint64_t pauseBlocks = 0;
    uint64_t missedBlocks = 0;
    uint64_t runs = 0;
    uint32_t firstStamp = 0; ///< of the first and last picture
    uint32_t lastStamp = 0;
    std::optional<Increments> increments;
    std::optional<Lateness> againstTurn;
    std::optional<Lateness> againstStamp;
};

class ViewStats {
public:
    using Clock = std::chrono::steady_clock;

    /// `arrival` is nothing for a block that was already there.
    void add(const OutputBlock& block, std::optional<Clock::time_point> arrival);
    /// What has come so far, without increments and lateness.
    const ViewReport& counts() const { return m_report; }
    /// Everything so far; may be taken at any time.
    ViewReport report() const;

private:
    struct Arrival {   ///< of a picture that counts, in milliseconds
        double at;     ///< since the first arrival
        double stamp;  ///< since the run's first stamp
        double before; ///< the stamp of the picture before it, likewise
    };
    struct Lateness {
        std::vector<double> againstTurn;
        std::vector<double> againstStamp;
    };

    /// Appends how late the present run's pictures are.
    void appendLateness(Lateness& all) const;

    ViewReport m_report; ///< the counts
    std::map<uint32_t, uint64_t> m_increments;
    Lateness m_lateness;                         ///< of the runs that have ended
    std::optional<Clock::time_point> m_measured; ///< the first arrival

    uint64_t m_runPictures = 0; ///< 0 = outside a run
    double m_runStampMs = 0;    ///< from the run's first stamp to the last one
    std::vector<Arrival> m_run;
};

std::string asText(const ViewReport& report);
std::string asJson(const ViewReport& report);

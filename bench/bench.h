// What the benchmarks share. Each lives in a world of its own below the temporary directory; what the product
// logs meanwhile is dropped, unless a LogRecorder is there.
#pragma once

#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <memory>
#include <vector>

#include "shm/shm_server.h"
#include "stream/pb_stream_video.h"
#include "tests/support/card.h"

namespace bench {

/// A stream object with the records its operations fill.
class Stream : public CPbStreamVideo {
public:
    using CPbStreamVideo::CPbStreamVideo;

    bool open(uint32_t id) { return !getId(id, &db, &stH, &picH, 0).isNone(); }
    bool toTime(PB_STREAM_TIME time, unsigned char dir) {
        return !getTime(time, &db, &stH, &picH, 1, dir, 0).isNone();
    }
    bool cross(unsigned char dir) {
        PB_STREAM_TIME here;
        return over(dir, &db, &stH, &picH, &here, 0) >= 0;
    }
    bool skip(unsigned char kind, unsigned char dir = 0, PB_STREAM_TIME from = {}) {
        return !getSkip(&from, &db, &stH, &picH, kind, dir, 0, 0).isNone();
    }

    DB_STREAM db{};
    STREAM_HEADER stH{};
    PICTURE_HEADER picH{};
};

/// Seconds that `work` takes.
template <class Work> double timed(Work work) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

inline double median(std::vector<double> values) {
    if (values.empty()) return 0;
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

} // namespace bench

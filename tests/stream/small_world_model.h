// What searching, moving and crossing mean in a small world, plainly and slowly.
#pragma once

#include <algorithm>

#include "stream/pb_video.h"
#include "tests/stream/small_world.h"

namespace small_world {

/// Where the stream object stands. No stream: it is empty.
struct Standing {
    const SmallStream* stream = nullptr;
    uint32_t picture = 0;
};

/// One end that an operation may come to.
struct Outcome {
    Ms result;                           ///< a time, 0 for none; of a crossing its number
    const SmallStream* stream = nullptr; ///< none: the object is empty
    std::optional<uint32_t> picture{};   ///< else any sound one near `time`
    Ms time = 0;
};
/// Two where damage strikes only a search that happens to look there.
using Outcomes = std::vector<Outcome>;

class Model {
public:
    explicit Model(const SmallWorld& world) : m_streams(world.streams) {}

    /// On its first picture that decoding can start at.
    static Outcomes open(const SmallStream& s) {
        const auto found = std::find_if(s.pictures.begin(), s.pictures.end(), isIPicture);
        const auto picture =
            static_cast<uint32_t>(found == s.pictures.end() ? 0 : found - s.pictures.begin());
        return {s.opens && s.damaged != picture ? Outcome{s.start(), &s, picture} : Outcome{0}};
    }

    /// The stream stood on keeps its own times, both ends included; for others the index decides.
    Outcomes getTime(Standing from, Ms time, bool backward) const {
        if (from.stream && from.stream->start() <= time && time <= from.stream->end())
            return positioned(*from.stream, time);
        const SmallStream* s = find(time, backward, nullptr);
        return s && lands(*s, backward) ? positioned(*s, time) : edge(backward, 0);
    }

    /// `time` 0: that of the picture stood on.
    Outcomes over(Standing from, bool backward, Ms time, bool lastFrame) const {
        const SmallStream* s = find(time == 0 ? clock(from) : time, backward, from.stream);
        if (s && !lands(*s, backward)) return {{-1}};
        if (s) return {{backward ? s->last() : 0, s, backward ? s->last() : 0}};
        Outcomes outcomes = edge(backward, backward ? -3 : -2);
        for (Outcome& outcome : outcomes)
            if (lastFrame && !backward && outcome.stream) outcome.picture = outcome.stream->last();
        return outcomes;
    }

    Outcomes latest() const {
        const SmallStream& s = m_streams.back();
        return s.opens ? positioned(s, s.end()) : Outcomes{{0}};
    }
    Outcomes oldest() const {
        const SmallStream* oldest = nullptr;
        for (const SmallStream& s : m_streams)
            if (s.row.recSize != 0 && (!oldest || s.start() < oldest->start())) oldest = &s;
        return {oldest && oldest->opens ? Outcome{oldest->start(), oldest, 0} : Outcome{0}};
    }

    /// By count, then to an I-picture as `search` says; past an end it parks there.
    static Outcome move(Standing from, Ms distance, unsigned char search) {
        if (!from.stream) return {-1};
        const SmallStream& s = *from.stream;
        const Ms to = from.picture + distance;
        if (to < 0 || to > s.last()) return {-1, &s, to < 0 ? 0 : s.last()};
        const auto reached = static_cast<uint32_t>(to);
        if (search == kSearchNone) return {s.damaged == reached ? -1 : to, &s, reached};
        for (Ms n = to; 0 <= n && n <= s.last(); n += search == kSearchBackward ? -1 : 1)
            if (const auto found = static_cast<uint32_t>(n); isIPicture(s.pictures[found]))
                return {n, &s, found};
        return {-1, &s, reached};
    }

    /// Wall clock of the picture stood on; a stamp without whole seconds counts as the stream's start.
    static Ms clock(Standing at) {
        if (!at.stream) return 0;
        return at.stream->pictures[at.picture].pts == 0 ? at.stream->start() : at.stream->timeOf(at.picture);
    }

    /// Three mean picture intervals, reckoned in whole seconds of recording, but at most half a second.
    static Ms tolerance(const SmallStream& s) {
        const Ms seconds = Ms{s.row.endDate} - s.row.startDate;
        return seconds == 0 ? 500 : std::min<Ms>(500, seconds * 1000 / s.header.pictures * 3);
    }

private:
    /// The newest or the oldest recording, in place of what was asked for.
    Outcomes edge(bool backward, Ms result) const {
        Outcomes outcomes = backward ? oldest() : latest();
        for (Outcome& outcome : outcomes) outcome.result = result;
        return outcomes;
    }
    static bool lands(const SmallStream& s, bool backward) {
        return s.opens && s.damaged != (backward ? s.last() : 0);
    }
    static bool sameSecond(Ms a, Ms b) { return a / 1000 == b / 1000; }

    /// In a stream that opens: its first or last picture for times outside it; the end's second is inside.
    static Outcomes positioned(const SmallStream& s, Ms time) {
        if (time < s.start()) return {{time, &s, 0}};
        if (time > s.end() && !sameSecond(time, s.end()))
            return {s.damaged == s.last() ? Outcome{0} : Outcome{time, &s, s.last()}};
        Outcomes outcomes{{time, &s, std::nullopt, time}};
        if (s.damaged) outcomes.push_back({0});
        return outcomes;
    }

    /// The stream that holds the time, else the next one in that direction. `left` is no answer, except
    /// forward from an earlier second than its own start's.
    const SmallStream* find(Ms time, bool backward, const SmallStream* left) const {
        const SmallStream *holding = nullptr, *next = nullptr;
        for (const SmallStream& s : m_streams) {
            const bool other = &s != left;
            if (backward) {
                if (other && s.start() < time && time <= s.end()) holding = &s;
                if (other && s.end() <= time && s.row.recSize != 0) next = &s;
            } else {
                if (other && s.start() <= time && time < s.end() && !holding) holding = &s;
                if ((other || !sameSecond(time, s.start())) && time <= s.start() && !next) next = &s;
            }
        }
        return holding ? holding : next;
    }

    const std::vector<SmallStream>& m_streams; ///< by rising id
};

} // namespace small_world

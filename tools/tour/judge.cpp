#include "tools/tour/judge.h"

#include <algorithm>

#include "platform/output_words.h"
#include "tools/common/formatted.h"

namespace {

// How old a live picture may be when it comes: the newest by a GOP and what the encoder holds back; one that
// is followed by what was rested besides, on a busy machine.
constexpr int64_t kNewestAgeMs = 2500;
constexpr int64_t kFollowedAgeMs = 6000;

void blame(Verdict& verdict, const std::string& fault) {
    if (verdict.fault.empty()) verdict.fault = fault;
}

/// "stream 1, picture 1 (I)", "streams 1 to 2, 290 pictures".
Verdict describe(const Came& came) {
    const size_t count = came.pictures.size();
    if (count == 0) return {};
    const std::string many = counted(count, "picture");
    for (size_t n = 0; n < count; ++n)
        if (!came.pictures[n].place) return {many, formatted("picture %zu was never recorded", n + 1)};
    const RecordedPicture &first = came.recorded(0), &last = came.recorded(count - 1);
    std::string remark = formatted("stream %u", first.stream);
    if (first.stream != last.stream) remark = formatted("streams %u to %u", first.stream, last.stream);
    if (count > 1) return {remark + ", " + many, ""};
    return {remark + formatted(", picture %u%s", first.number, first.iPicture ? " (I)" : ""), ""};
}

Verdict judgeNone(const Came& came, const char* remark) {
    if (came.pictures.empty()) return {remark, ""};
    return {remark, counted(came.pictures.size(), "picture") + " came out"};
}

/// Whether a single picture came, and it `fits`.
template <class Fits> Verdict judgeOne(const Came& came, const std::string& expected, Fits fits) {
    Verdict verdict = describe(came);
    if (came.pictures.size() != 1)
        blame(verdict, counted(came.pictures.size(), "picture") + " came out instead of one");
    else if (verdict.fault.empty() && !fits(came.recorded(0)))
        blame(verdict, expected + " was expected");
    return verdict;
}

/// No picture left out, none twice.
Verdict judgeOrder(const Came& came) {
    Verdict verdict = describe(came);
    std::optional<size_t> before = came.before;
    for (size_t n = 0; n < came.pictures.size(); ++n) {
        const std::optional<size_t> place = came.pictures[n].place;
        if (!before || place != *before + 1)
            blame(verdict, formatted("picture %zu of %zu does not follow the one before", n + 1,
                                     came.pictures.size()));
        before = place;
    }
    if (came.pictures.size() < 2)
        blame(verdict, "only " + counted(came.pictures.size(), "picture") + " came");
    if (verdict.fault.empty()) verdict.remark += ", none left out";
    return verdict;
}

/// The clocks of recorder and reader are the same machine's.
void judgeAge(const Came& came, int64_t mostMs, Verdict& verdict) {
    if (!verdict.fault.empty()) return;
    const size_t last = came.pictures.size() - 1;
    const int64_t age = static_cast<int64_t>(came.pictures[last].arrivalMs - came.recorded(last).timeMs);
    verdict.remark += formatted(", %.1f s old", static_cast<double>(age) / 1000);
    if (age < 0 || age > mostMs) blame(verdict, "that is no live picture");
}

/// The I-picture that is found from a moment on: the next one in that direction.
std::optional<size_t> iPictureFrom(const Recording& recording, int64_t timeMs, bool backward) {
    std::optional<size_t> found;
    for (size_t n = 0; n < recording.size(); ++n) {
        const int64_t time = static_cast<int64_t>(recording[n].timeMs);
        if (!recording[n].iPicture || (backward ? time > timeMs : time < timeMs)) continue;
        found = n;
        if (!backward) break;
    }
    return found;
}

} // namespace

bool Came::crosses(size_t n) const {
    const auto &from = pictures[n - 1].place, &to = pictures[n].place;
    return from && to == *from + 1 && recording[*from].stream != recording[*to].stream;
}

std::optional<size_t> findPlace(const Recording& recording, const std::string& data,
                                std::optional<size_t> before) {
    const size_t next = before ? *before + 1 : 0;
    if (next < recording.size() && recording[next].data == data) return next;
    const auto found = std::find_if(recording.begin(), recording.end(),
                                    [&](const RecordedPicture& picture) { return picture.data == data; });
    if (found == recording.end()) return std::nullopt;
    return static_cast<size_t>(found - recording.begin());
}

Verdict staysThere(const Came& came, int64_t) {
    return judgeNone(came, "stays there");
}

Verdict sessionIsOver(const Came& came, int64_t) {
    return judgeNone(came, "the session is over");
}

Verdict isAt(const Came& came, int64_t timeMs) {
    return judgeOne(came, "another one", [&](const RecordedPicture& picture) {
        return picture.iPicture && static_cast<int64_t>(picture.timeMs) == timeMs;
    });
}

Verdict isFirstOf(const Came& came, int64_t stream) {
    return judgeOne(
        came, formatted("the first of stream %d", static_cast<int>(stream)),
        [&](const RecordedPicture& picture) { return picture.stream == stream && picture.number == 1; });
}

Verdict isNewestOf(const Came& came, int64_t stream) {
    Verdict verdict = judgeOne(
        came, formatted("an I-picture of stream %d", static_cast<int>(stream)),
        [&](const RecordedPicture& picture) { return picture.stream == stream && picture.iPicture; });
    judgeAge(came, kNewestAgeMs, verdict);
    return verdict;
}

Verdict isNext(const Came& came, int64_t) {
    return judgeOne(came, "the next one", [&](const RecordedPicture&) {
        return came.before && came.pictures[0].place == *came.before + 1;
    });
}

Verdict isIPictureBefore(const Came& came, int64_t) {
    return judgeOne(came, "the I-picture before", [&](const RecordedPicture&) {
        if (!came.before || *came.before == 0) return false;
        const auto timeMs = static_cast<int64_t>(came.recording[*came.before - 1].timeMs);
        return came.pictures[0].place == iPictureFrom(came.recording, timeMs, true);
    });
}

Verdict crossesABorder(const Came& came, int64_t) {
    Verdict verdict = judgeOrder(came);
    if (verdict.fault.empty() && came.recorded(0).stream == came.recorded(came.pictures.size() - 1).stream)
        blame(verdict, "no border was crossed");
    return verdict;
}

Verdict followsClosely(const Came& came, int64_t) {
    Verdict verdict = judgeOrder(came);
    judgeAge(came, kFollowedAgeMs, verdict);
    return verdict;
}

Verdict playsAtHalfSpeed(const Came& came, int64_t) {
    Verdict verdict = judgeOrder(came);
    if (!verdict.fault.empty()) return verdict;
    const size_t last = came.pictures.size() - 1;
    const uint32_t stamps = came.pictures[last].stamp - came.pictures[0].stamp; // wraps as the stamps do
    const uint64_t spanMs = came.recorded(last).timeMs - came.recorded(0).timeMs;
    if (stamps != 2 * kPtsPerMs * spanMs)
        blame(verdict, "the stamps are not those of half speed");
    else
        verdict.remark += ", half speed";
    return verdict;
}

Verdict skips(const Came& came, int64_t stepMs) {
    Verdict verdict = describe(came);
    if (came.pictures.size() < 3)
        blame(verdict, "only " + counted(came.pictures.size(), "picture") + " came");
    if (!came.before) blame(verdict, "no picture came before");
    if (!verdict.fault.empty()) return verdict;
    verdict.remark = formatted("%zu I-pictures", came.pictures.size());
    const RecordedPicture* from = &came.recording[*came.before];
    for (size_t n = 0; n < came.pictures.size(); ++n) {
        const RecordedPicture& picture = came.recorded(n);
        if (!picture.iPicture) blame(verdict, formatted("picture %zu is no I-picture", n + 1));
        const auto aim = static_cast<int64_t>(from->timeMs) + stepMs;
        if (came.pictures[n].place != iPictureFrom(came.recording, aim, stepMs < 0))
            blame(verdict, formatted("picture %zu is another one than expected", n + 1));
        const auto distance = static_cast<double>(static_cast<int64_t>(picture.timeMs - from->timeMs));
        verdict.remark += formatted("%s %g%s", n == 0 ? ":" : ",", distance / (stepMs < 0 ? -1000 : 1000),
                                    picture.stream == from->stream ? "" : " (gap)");
        from = &picture;
    }
    verdict.remark += stepMs < 0 ? " s back" : " s on";
    return verdict;
}

std::span<const ShownPicture> longestPlay(std::span<const ShownPicture> shown) {
    std::span<const ShownPicture> longest;
    for (size_t begin = 0, end = 0; begin < shown.size(); begin = end) {
        for (end = begin + 1; end < shown.size(); ++end)
            if (!shown[end - 1].place || shown[end].place != *shown[end - 1].place + 1) break;
        if (end - begin > longest.size()) longest = shown.subspan(begin, end - begin);
    }
    return longest;
}

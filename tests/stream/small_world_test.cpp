// Time search and crossing in thousands of small recordings, against a plain model of what they mean.
#include <algorithm>
#include <cstdlib>
#include <iostream>

#include "platform/paths.h"
#include "tests/stream/small_world.h"
#include "tests/stream/stream_fixture.h"

namespace {

using small_world::Ms;
using small_world::SmallStream;
using small_world::SmallWorld;

constexpr uint32_t kWorlds = TAVIRN_SANITIZED ? 1'000 : 10'000; ///< TAVIRN_SMALL_WORLDS changes it
constexpr uint32_t kSeed = 20'240'102; ///< of the first world; TAVIRN_SMALL_WORLD_SEED changes it
constexpr uint32_t kParts = 8;         ///< that run side by side

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
    bool startOfFile = false;
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
        return {s.opens && !s.damaged[picture] ? Outcome{s.start(), &s, picture} : Outcome{0}};
    }

    /// The stream stood on keeps its own times, both ends included; for others the index decides.
    Outcomes getTime(Standing from, Ms time, bool backward) const {
        if (from.stream && from.stream->start() <= time && time <= from.stream->end())
            return positioned(*from.stream, time);
        const SmallStream* s = find(time, backward, nullptr);
        const auto started = [&](const SmallStream& any) { return any.start() <= time; };
        const bool startOfFile = s && std::none_of(m_streams.begin(), m_streams.end(), started);
        Outcomes outcomes = s && lands(*s, backward) ? positioned(*s, time) : edge(backward, 0);
        for (Outcome& outcome : outcomes) outcome.startOfFile = startOfFile;
        return outcomes;
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

    /// Evenly recorded, four pictures a second or more, and so long that the mean reckoned in whole seconds
    /// is less than twice wrong: there every time is found. Elsewhere a search may give up, if it says so.
    static bool isSteady(const SmallStream& s) {
        const Ms step = s.timeOf(s.last()) - s.timeOf(s.last() - (s.last() > 0 ? 1 : 0));
        for (uint32_t n = 0; n <= s.last(); ++n)
            if (s.timeOf(n) != s.start() + n * step) return false;
        return step <= 250 && s.row.startDate + 2 <= s.row.endDate && s.end() == s.timeOf(s.last());
    }

private:
    /// The newest or the oldest recording, in place of what was asked for.
    Outcomes edge(bool backward, Ms result) const {
        Outcomes outcomes = backward ? oldest() : latest();
        for (Outcome& outcome : outcomes) outcome.result = result;
        return outcomes;
    }
    static bool lands(const SmallStream& s, bool backward) {
        return s.opens && !s.damaged[backward ? s.last() : 0];
    }
    static bool sameSecond(Ms a, Ms b) { return a / 1000 == b / 1000; }

    /// In a stream that opens: its first or last picture for times outside it; the end's second is inside.
    static Outcomes positioned(const SmallStream& s, Ms time) {
        if (time < s.start()) return {{time, &s, 0}};
        if (time > s.end() && !sameSecond(time, s.end()))
            return {s.damaged[s.last()] ? Outcome{0} : Outcome{time, &s, s.last()}};
        Outcomes outcomes{{time, &s, std::nullopt, time}};
        if (std::find(s.damaged.begin(), s.damaged.end(), true) != s.damaged.end()) outcomes.push_back({0});
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

PB_STREAM_TIME pbTime(Ms time) {
    return {static_cast<uint32_t>(time / 1000), static_cast<uint32_t>(time % 1000)};
}
Ms msOf(PB_STREAM_TIME time) {
    return small_world::ms(time.seconds(), time.mSec);
}
template <class Record> bool same(const Record& a, const Record& b) {
    static_assert(std::has_unique_object_representations_v<Record>);
    return std::memcmp(&a, &b, sizeof a) == 0;
}

/// How often what happened, in all worlds.
struct Tally {
    int reached = 0, fellBack = 0, emptied = 0, startOfFile = 0;
    uint32_t digest = 0; ///< of every outcome: the same on every machine

    void add(Ms result, uint32_t streamId, uint32_t picture) {
        for (const uint32_t word : {static_cast<uint32_t>(result), streamId, picture})
            digest = (digest ^ word) * 16'777'619u;
    }
};

/// Every operation in one world, from every stream of it.
class Check {
public:
    Check(const SmallWorld& world, test::LogRecorder& log, Tally& tally)
        : m_world(world), m_model(world), m_chance(~world.seed), m_log(log), m_tally(tally) {}

    /// The story of the first operation that ended as it must not; empty when all is well.
    std::string fault() {
        try {
            getTime();
            skip(m_chance.of({kSkipOldest, kSkipLatest}));
            for (const SmallStream& s : m_world.streams) {
                if (m_chance.oneIn(2)) over();
                stand(s);
                over();
                getTime();
            }
        } catch (const std::runtime_error& wrong) {
            std::string streams;
            for (const SmallStream& s : m_world.streams) streams += s.describe();
            return std::string(wrong.what()) + ", on stream " + std::to_string(m_video.m_video.db.streamID) +
                   " picture " + std::to_string(m_video.getOffset()) + "\nworld of seed " +
                   std::to_string(m_world.seed) + "\n" + streams + "operations:\n" + m_story + m_log.dump();
        }
        return "";
    }

private:
    /// On any sound picture of the stream.
    void stand(const SmallStream& s) {
        begin("getId " + std::to_string(s.row.streamID));
        end(msOf(m_video.getId(s.row.streamID, &m_db, &m_stH, &m_picH, 0)), Model::open(s));
        if (const uint32_t n = m_chance.below(s.header.pictures); m_at.stream && !s.damaged[n]) {
            m_video.m_video.offset = m_at.picture = n;
            m_video.m_stream.m_readPic();
        }
    }
    void getTime() {
        const Ms time = pickTime();
        const bool backward = m_chance.oneIn(2);
        begin("getTime " + std::to_string(time - small_world::kFirstMs) + (backward ? " backward" : ""));
        const Outcomes allowed = m_model.getTime(m_at, time, backward);
        end(msOf(m_video.getTime(pbTime(time), &m_db, &m_stH, &m_picH, 1, backward, 0)), allowed);
        require(m_video.getSOFflag() == allowed[0].startOfFile, "start-of-file flag");
        m_tally.startOfFile += allowed[0].startOfFile;
    }
    void over() {
        const Ms time = m_chance.oneIn(2) ? pickTime() : 0;
        const bool backward = m_chance.oneIn(2);
        const bool lastFrame = m_chance.oneIn(2);
        begin("over " + (time == 0 ? "from the picture" : std::to_string(time - small_world::kFirstMs)) +
              (backward ? " backward" : "") + (lastFrame ? " last frame" : ""));
        const Outcomes allowed = m_model.over(m_at, backward, time, lastFrame);
        PB_STREAM_TIME reference = pbTime(time);
        m_video.setplaylastframemode(lastFrame);
        end(m_video.over(backward, &m_db, &m_stH, &m_picH, time == 0 ? nullptr : &reference, 0), allowed);
        m_video.setplaylastframemode(0);
    }
    void skip(unsigned char kind) {
        begin(kind == kSkipOldest ? "oldest" : "latest");
        const PB_STREAM_TIME reached = m_video.getSkip(nullptr, &m_db, &m_stH, &m_picH, kind, 0, 0, 0);
        end(msOf(reached), kind == kSkipOldest ? m_model.oldest() : m_model.latest());
    }

    /// At an edge or a picture of some stream, or near it.
    Ms pickTime() {
        const auto streams = static_cast<uint32_t>(m_world.streams.size());
        const SmallStream& s = m_world.streams[m_chance.below(streams)];
        const Ms picture = s.timeOf(m_chance.below(s.header.pictures));
        const Ms edge = m_chance.of({s.start(), s.end(), picture});
        const uint32_t room = m_chance.of({400u, 5'000u, 70'000u});
        const Ms away = m_chance.below(room);
        return edge + m_chance.of({Ms{0}, Ms{0}, Ms{-1}, Ms{1}, -away, away});
    }

    void begin(const std::string& operation) {
        m_story += operation + "\n";
        m_log.clear();
        m_db = {};
        m_stH = {};
        m_picH = {};
    }

    void end(Ms result, const Outcomes& allowed) {
        lookAround();
        m_tally.add(result, m_at.stream ? m_at.stream->row.streamID : 0, m_at.picture);
        std::string expected;
        for (const Outcome& o : allowed) {
            if (o.result == result && o.stream == m_at.stream && standsWhere(o)) {
                ++(!m_at.stream ? m_tally.emptied : result > 0 ? m_tally.reached : m_tally.fellBack);
                return;
            }
            expected += ", allowed " + std::to_string(o.result) + " on stream " +
                        std::to_string(o.stream ? o.stream->row.streamID : 0) +
                        (o.picture ? " picture " + std::to_string(*o.picture)
                                   : " near " + std::to_string(o.time - small_world::kFirstMs));
        }
        throw std::runtime_error("result " + std::to_string(result) + expected);
    }
    bool standsWhere(const Outcome& o) {
        if (!o.stream) return true;
        if (o.picture) return m_at.picture == *o.picture;
        if (o.stream->damaged[m_at.picture]) return false;
        if (std::abs(o.stream->timeOf(m_at.picture) - o.time) <= Model::tolerance(*o.stream)) return true;
        if (o.time <= o.stream->end() && Model::isSteady(*o.stream)) return false;
        return m_log.has(LOG_ERR, "offset position is not fixed in 500mS accuracy.", "m_setOffset");
    }

    /// Learns where the object stands; everything it shows must be of there.
    void lookAround() {
        const PB_VIDEO& video = m_video.m_video;
        const auto own = [&](const SmallStream& s) { return s.row.streamID == video.db.streamID; };
        const auto found = std::find_if(m_world.streams.begin(), m_world.streams.end(), own);
        const bool empty = found == m_world.streams.end();
        m_at = empty ? Standing{} : Standing{&*found, video.offset};
        require(empty || video.offset < found->header.pictures, "beyond the last picture");
        const PICTURE_HEADER picture = empty ? PICTURE_HEADER{} : found->pictures[video.offset];
        STREAM_HEADER header = empty ? STREAM_HEADER{} : found->header;
        if (!empty && (header.gops == 0 || header.gops > 120)) header.gops = 5;
        const DB_STREAM row = empty ? DB_STREAM{} : found->row;

        require(same(video.db, row) && same(video.stH, header) && same(video.picH, picture) &&
                    !video.readPic == empty && !video.readSt == empty,
                "records of elsewhere");
        // Where the newest recording's last frame can't be read, the caller keeps the fallback's header.
        require(empty || (same(m_db, row) && same(m_stH, header) &&
                          (same(m_picH, picture) || found->damaged[video.offset])),
                "records copied out");
        require(msOf(m_video.getTimePts()) == Model::clock(m_at), "picture's clock time");

        std::string buffer(small_world::kDataBytes, '?');
        const bool readable = picture.size == small_world::kDataBytes;
        const std::string expected = readable ? m_world.data(*found, video.offset) : buffer;
        const long got = m_video.get(reinterpret_cast<unsigned char*>(buffer.data()));
        require(got == (readable ? asLd(video.offset) : -1) && buffer == expected, "picture's data");
    }

    static void require(bool condition, const char* what) {
        if (!condition) throw std::runtime_error(what);
    }

    const SmallWorld& m_world;
    const Model m_model;
    small_world::Chance m_chance;
    test::LogRecorder& m_log;
    Tally& m_tally;
    Stream m_video{nullptr};
    DB_STREAM m_db{};
    STREAM_HEADER m_stH{};
    PICTURE_HEADER m_picH{};
    Standing m_at;
    std::string m_story;
};

uint32_t setting(const char* name, uint32_t otherwise) {
    const char* value = std::getenv(name);
    return value ? static_cast<uint32_t>(std::strtoul(value, nullptr, 10)) : otherwise;
}

class SmallWorlds : public testing::TestWithParam<uint32_t> {};

TEST_P(SmallWorlds, EveryPositionIsOneThatTheModelAllows) {
    const uint32_t worlds = setting("TAVIRN_SMALL_WORLDS", kWorlds);
    const uint32_t seed = setting("TAVIRN_SMALL_WORLD_SEED", kSeed);
    std::cout << worlds << " worlds from seed " << seed << ", part " << GetParam() << std::endl;
    const test::World place;
    test::Card card(place);
    const std::string chunk = paths().card + std::string("/chunk00000");
    test::writeFile(chunk, std::string(small_world::kRingBytes, ' '));
    test::LogRecorder log;
    Tally tally;
    std::string fault;
    testing::internal::CaptureStdout(); // the stream object says each start of file there
    for (uint32_t n = GetParam(); n < worlds && fault.empty(); n += kParts) {
        const SmallWorld world(seed + n);
        hold(world, card, chunk);
        fault = Check(world, log, tally).fault();
    }
    testing::internal::GetCapturedStdout();
    if (!fault.empty()) FAIL() << fault;

    std::cout << tally.reached << " reached, " << tally.fellBack << " fell back, " << tally.emptied
              << " emptied, " << tally.startOfFile << " before everything, digest " << tally.digest
              << std::endl;
    if (worlds < kWorlds) return;
    for (const int happened : {tally.reached, tally.fellBack, tally.emptied, tally.startOfFile})
        EXPECT_GT(happened, 10);
}

INSTANTIATE_TEST_SUITE_P(Parts, SmallWorlds, testing::Range(0u, kParts));

} // namespace

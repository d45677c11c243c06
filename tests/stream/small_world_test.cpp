// Moving, searching and crossing in thousands of small recordings, against a plain model of what they mean.
#include "tests/stream/small_world_model.h"
#include "tests/stream/stream_fixture.h"
#include "tools/recording/index_writer.h"

namespace {

using namespace small_world;

constexpr uint32_t kWorlds = TAVIRN_SANITIZED ? 1'000 : 4'000; ///< TAVIRN_SMALL_WORLDS changes it
constexpr uint32_t kSeed = 20'240'102;                         ///< of the first world

/// Every operation in one world, from every stream of it.
class Check {
public:
    /// `digest` is of every outcome so far: the same on every machine.
    Check(const SmallWorld& world, test::LogRecorder& log, uint32_t& digest)
        : m_world(world), m_model(world), m_chance(~world.seed), m_log(log), m_digest(digest) {}

    /// Throws at the first operation that ends as it must not.
    void run() {
        getTime();
        skip(m_chance.of({kSkipOldest, kSkipLatest}));
        for (const SmallStream& s : m_world.streams) {
            if (m_chance.oneIn(2)) over();
            getId(s);
            move();
            over();
            getTime();
        }
    }

private:
    void getId(const SmallStream& s) {
        const Ms start = msOf(m_video.open(s.row.streamID));
        const bool closed = m_log.dump().find("open error") != std::string::npos;
        require(s.row.chunkSize == 0 || m_video.getErrorflag() == (closed ? kChunkErrorBit : 0),
                "error flag");
        end(start, Model::open(s));
    }
    /// Within the stream, past its end, or past it by so much that 32 bits could not hold the sum.
    void move() {
        const uint32_t count = m_chance.of({0u, 0u, 0u, 1u << 31, ~13u}) + m_chance.below(14);
        const auto search = m_chance.of({kSearchNone, kSearchForward, kSearchBackward});
        const bool backward = m_chance.oneIn(2);
        const Outcome allowed = Model::move(m_at, backward ? -Ms{count} : Ms{count}, search);
        m_video.getDb(&m_video.out.db);
        m_video.getStH(&m_video.out.stH);
        end(m_video.move(backward ? PBST_BACKWARD : PBST_FORWARD, count, search), {allowed});
    }
    void getTime() {
        const Ms time = pickTime();
        const bool backward = m_chance.oneIn(2);
        const Outcomes allowed = m_model.getTime(m_at, time, backward);
        end(msOf(m_video.toTime(pbTime(time), backward)), allowed);
    }
    void over() {
        const Ms time = m_chance.oneIn(2) ? pickTime() : 0;
        const bool backward = m_chance.oneIn(2);
        const bool lastFrame = m_chance.oneIn(2);
        const Outcomes allowed = m_model.over(m_at, backward, time, lastFrame);
        m_video.setplaylastframemode(lastFrame);
        end(m_video.cross(pbTime(time), backward), allowed);
        m_video.setplaylastframemode(0);
    }
    void skip(unsigned char kind) {
        end(msOf(m_video.skip(kind)), kind == kSkipOldest ? m_model.oldest() : m_model.latest());
    }

    /// At an edge or a picture of some stream, or near it.
    Ms pickTime() {
        const auto streams = static_cast<uint32_t>(m_world.streams.size());
        const SmallStream& s = m_world.streams[m_chance.below(streams)];
        const Ms edge = m_chance.of({s.start(), s.end(), s.timeOf(m_chance.below(s.header.pictures))});
        const Ms away = m_chance.below(m_chance.of({400u, 5'000u, 70'000u}));
        return edge + m_chance.of({Ms{0}, Ms{0}, Ms{-1}, Ms{1}, -away, away});
    }

    void end(Ms result, const Outcomes& allowed) {
        lookAround();
        for (const uint32_t word :
             {static_cast<uint32_t>(result), m_video.m_stream.row().streamID, m_at.picture})
            m_digest = (m_digest ^ word) * 16'777'619u;
        const auto happened = [&](const Outcome& o) {
            return o.result == result && o.stream == m_at.stream && standsWhere(o);
        };
        require(std::any_of(allowed.begin(), allowed.end(), happened),
                "result " + std::to_string(result) + ", on picture " + std::to_string(m_at.picture));
        m_log.clear();
        m_video.out = {};
    }
    bool standsWhere(const Outcome& o) {
        if (!o.stream) return true;
        if (o.picture) return m_at.picture == *o.picture;
        if (o.stream->damaged == m_at.picture) return false;
        if (std::abs(o.stream->timeOf(m_at.picture) - o.time) <= Model::tolerance(*o.stream)) return true;
        // Where pictures come unevenly a search may give up, if it says so.
        return m_log.has(LOG_ERR, "offset position is not fixed in 500mS accuracy.", "m_setOffset");
    }

    /// Learns where the object stands; everything it shows must be of there.
    void lookAround() {
        const DB_STREAM& stoodOn = m_video.m_stream.row();
        const uint32_t offset = m_video.m_stream.getOffset();
        const auto own = [&](const SmallStream& s) { return s.row.streamID == stoodOn.streamID; };
        const auto found = std::find_if(m_world.streams.begin(), m_world.streams.end(), own);
        const bool empty = found == m_world.streams.end();
        m_at = empty ? Standing{} : Standing{&*found, offset};
        require(empty || offset < found->header.pictures, "beyond the last picture");
        Records expected{};
        if (!empty) expected = {found->row, found->header, found->pictures[offset]};
        if (!empty && (expected.stH.gops == 0 || expected.stH.gops > 120)) expected.stH.gops = 5;
        require(test::bytesOf(m_video.shown()) == test::bytesOf(expected), "records of elsewhere");
        // Of a picture that can't be read, the caller keeps the header there was.
        if (empty || found->damaged == offset) expected.picH = m_video.out.picH;
        require(empty || test::bytesOf(m_video.out) == test::bytesOf(expected), "records copied out");
        require(msOf(m_video.getTimePts()) == Model::clock(m_at), "picture's clock time");

        std::string buffer(kDataBytes, '?'), data = empty ? buffer : m_world.data(*found, offset);
        const long got = m_video.get(reinterpret_cast<unsigned char*>(buffer.data()));
        require(got == (empty ? -1 : asLd(offset)) && buffer == data, "picture's data");
    }

    void require(bool condition, const std::string& what) {
        if (condition) return;
        throw std::runtime_error(what + ", world of seed " + std::to_string(m_world.seed) + "\n" +
                                 m_log.dump());
    }

    const SmallWorld& m_world;
    const Model m_model;
    Chance m_chance;
    test::LogRecorder& m_log;
    uint32_t& m_digest;
    Stream m_video{nullptr};
    Standing m_at;
};

TEST(SmallWorlds, EveryPositionIsOneThatTheModelAllows) {
    const char* wanted = std::getenv("TAVIRN_SMALL_WORLDS");
    const unsigned long worlds = wanted ? std::stoul(wanted) : kWorlds;
    const test::World place;
    test::Card card(place);
    test::LogRecorder log;
    uint32_t digest = 0;
    for (uint32_t n = 0; n < worlds; ++n) {
        const SmallWorld world(kSeed + n);
        test::writeFile(paths().card + std::string("/chunk00000"), world.chunk);
        card.sql("DELETE FROM STREAM");
        IndexWriter index(paths().index);
        for (const SmallStream& stream : world.streams) index.addStream(stream.row);
        Check(world, log, digest).run();
    }
    std::printf("all positions reached, digest %u\n", digest);
}

} // namespace

// Small recordings made by chance: a few short streams that join, overlap, leave gaps or have no length, some
// of them damaged. A seed gives the same world on every machine and with every compiler.
#pragma once

#include <random>
#include <utility>

#include "tests/support/card.h"

namespace small_world {

using Ms = int64_t; ///< since the epoch, or a span

constexpr Ms kFirstMs = 1'704'196'800'000; ///< about when the worlds begin
constexpr uint32_t kRingBytes = 4096;      ///< of the one chunk; the largest world takes three quarters
constexpr uint32_t kDataBytes = 8;

inline Ms msOf(PB_STREAM_TIME time) {
    return Ms{time.seconds()} * 1000 + time.mSec;
}
inline PB_STREAM_TIME pbTime(Ms time) {
    return {static_cast<uint32_t>(time / 1000), static_cast<uint32_t>(time % 1000)};
}

/// mt19937 reduced by our own arithmetic: the library's distributions differ from machine to machine. Never
/// two calls in one expression whose order is the compiler's.
class Chance {
public:
    explicit Chance(uint32_t seed) : m_engine(seed) {}
    uint32_t below(uint32_t limit) { return static_cast<uint32_t>(m_engine()) % limit; }
    bool oneIn(uint32_t count) { return below(count) == 0; }
    template <class T> T of(std::initializer_list<T> values) {
        return values.begin()[below(static_cast<uint32_t>(values.size()))];
    }

private:
    std::mt19937 m_engine;
};

/// Row and headers as they stand in the index and on the card.
struct SmallStream {
    DB_STREAM row{};
    STREAM_HEADER header{};
    std::vector<PICTURE_HEADER> pictures;
    std::optional<uint32_t> damaged{}; ///< a picture
    bool opens = true;                 ///< row, chunk, stream header and picture 0 are sound

    Ms start() const { return msOf({row.startDate, row.startMSec}); }
    Ms end() const { return msOf({row.endDate, row.endMSec}); }
    uint32_t last() const { return header.pictures - 1; }
    Ms timeOf(uint32_t picture) const {
        const PICTURE_HEADER &top = pictures[0], &here = pictures[picture];
        return start() + msOf({here.pts, here.msec}) - msOf({top.pts, top.msec});
    }
};

class SmallWorld {
public:
    explicit SmallWorld(uint32_t worldSeed) : seed(worldSeed), m_chance(worldSeed) {
        m_gridMs = m_chance.of({125u, 250u, 500u, 1000u});
        m_place = m_chance.below(kRingBytes);
        for (uint32_t count = 1 + m_chance.below(6); streams.size() < count;) addStream();
    }

    /// A picture's, unlike every other's.
    static std::string data(const SmallStream& stream, uint32_t picture) {
        return std::to_string(10'000'000 + stream.row.streamID * 100 + picture);
    }

    const uint32_t seed;
    std::vector<SmallStream> streams; ///< by rising id
    std::string chunk = std::string(kRingBytes, '\xA5');

private:
    Ms pickStart() {
        if (streams.empty()) return kFirstMs;
        const SmallStream& before = streams.back();
        return m_chance.of({before.end(), before.end(), before.end() + m_gridMs * m_chance.below(20),
                            before.start() + m_gridMs * m_chance.below(8),
                            kFirstMs + m_gridMs * m_chance.below(60'000 / m_gridMs)});
    }

    void addStream() {
        SmallStream s;
        const Ms start = pickStart();
        const uint32_t count = 1 + m_chance.below(12);
        s.row.streamID = (streams.empty() ? 0 : streams.back().row.streamID) + 1 + m_chance.below(2);
        s.row.frameSet = static_cast<uint16_t>(m_chance.below(12) + 0x10);
        s.row.recSize = m_chance.oneIn(5) ? 0 : count;
        s.row.chunkSize = (count + 1) * kHeaderBytes;
        s.row.chunkOffset = take(s.row.chunkSize);
        s.row.startDate = pbTime(start).seconds();
        s.row.startMSec = pbTime(start).mSec;
        const uint32_t gops = m_chance.of({1u, 30u, 120u, 0u, 121u});
        s.header = sealed(
            STREAM_HEADER{kStreamMarker, s.row.streamID, m_place, count * kDataBytes, 0, count, gops, 0, 0});
        const Ms span = addPictures(s);
        const Ms end = m_chance.oneIn(8) ? start : start + span + m_chance.of({0u, 0u, 0u, m_gridMs});
        s.row.endDate = pbTime(end).seconds();
        s.row.endMSec = pbTime(end).mSec;
        if (m_chance.oneIn(6)) damage(s);

        put(s.row.chunkOffset, &s.header, kHeaderBytes);
        put(s.row.chunkOffset + kHeaderBytes, s.pictures.data(), count * kHeaderBytes);
        streams.push_back(std::move(s));
    }

    /// Even or uneven, mostly at another rate than the row's. Returns the time from first to last.
    Ms addPictures(SmallStream& s) {
        const Ms first = m_chance.of({Ms{0}, Ms{250}, Ms{999'999}, Ms{100'000'000'000}});
        const uint32_t stepMs = m_chance.of({33u, 40u, 100u, 500u, 1000u, m_gridMs});
        const bool even = m_chance.oneIn(2);
        Ms pts = first;
        for (uint32_t n = 0; n < s.header.pictures; ++n) {
            if (n > 0) pts += even ? stepMs : m_chance.below(4) * stepMs / 2;
            const uint32_t flags = 8 | m_chance.below(4), place = take(kDataBytes);
            s.pictures.push_back(
                sealed(PICTURE_HEADER{kPictureMarker, s.row.streamID, place, kDataBytes,
                                      pbTime(pts).seconds(), flags, 0, pbTime(pts).mSec, 0}));
            put(place, data(s, n).data(), kDataBytes);
        }
        return pts - first;
    }

    /// A false marker is sealed, and a false checksum leaves the marker right: each has a test of its own.
    void damage(SmallStream& s) {
        const uint32_t kind = m_chance.below(9);
        const uint32_t n = m_chance.below(s.header.pictures);
        if (kind == 0) s.row.chunkID = 7; // no such chunk
        if (kind == 1) s.row.chunkSize = 0;
        if (kind == 2) s.header.offset = kRingBytes;
        if (kind == 3) s.header.marker ^= 1; // the other kind's
        if (kind < 4) s.header = sealed(s.header);
        if (kind == 4) s.header.cs ^= 1;
        if (kind >= 5) s.damaged = n;
        if (kind >= 7) s.pictures[n].marker ^= 1;
        if (kind >= 7) s.pictures[n] = sealed(s.pictures[n]);
        if (kind == 5 || kind == 6) s.pictures[n].cs ^= 1;
        s.opens = kind >= 5 && n != 0;
    }

    uint32_t take(uint32_t bytes) { return std::exchange(m_place, (m_place + bytes) % kRingBytes); }
    void put(uint32_t place, const void* bytes, uint32_t count) {
        for (uint32_t i = 0; i < count; ++i)
            chunk[(place + i) % kRingBytes] = static_cast<const char*>(bytes)[i];
    }

    Chance m_chance;
    uint32_t m_gridMs;
    uint32_t m_place; ///< in the chunk, of the next free byte
};

} // namespace small_world

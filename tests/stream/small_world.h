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

inline Ms ms(uint32_t seconds, uint32_t milliseconds) {
    return Ms{seconds} * 1000 + milliseconds;
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
    std::vector<bool> damaged; ///< picture by picture
    bool opens = true;         ///< row, chunk, stream header and picture 0 are sound

    Ms start() const { return ms(row.startDate, row.startMSec); }
    Ms end() const { return ms(row.endDate, row.endMSec); }
    uint32_t last() const { return header.pictures - 1; }
    Ms timeOf(uint32_t picture) const {
        const PICTURE_HEADER &top = pictures[0], &here = pictures[picture];
        return start() + ms(here.pts, here.msec) - ms(top.pts, top.msec);
    }
    std::string describe() const {
        const auto text = [](Ms value) { return std::string(" ").append(std::to_string(value)); };
        std::string line = "stream" + text(row.streamID) + ":" + text(start() - kFirstMs) + " .." +
                           text(end() - kFirstMs) + ", frame-rate code" + text(row.frameSet & 15) +
                           ", recSize" + text(row.recSize) + (opens ? "" : ", does not open") +
                           ", pictures at";
        for (uint32_t n = 0; n < pictures.size(); ++n)
            line +=
                text(timeOf(n) - kFirstMs) + (isIPicture(pictures[n]) ? "I" : "") + (damaged[n] ? "!" : "");
        return line + ", first stamp" + text(ms(pictures[0].pts, pictures[0].msec)) + "\n";
    }
};

class SmallWorld {
public:
    explicit SmallWorld(uint32_t worldSeed) : seed(worldSeed), m_chance(worldSeed) {
        m_gridMs = m_chance.of({125u, 250u, 500u, 1000u});
        m_damages = m_chance.oneIn(2);
        m_place = m_chance.below(kRingBytes);
        for (uint32_t count = 1 + m_chance.below(6); streams.size() < count;) addStream();
    }

    /// A picture's, told apart from every other world's.
    std::string data(const SmallStream& stream, uint32_t picture) const {
        const uint32_t words[] = {seed, stream.row.streamID << 16 | picture};
        static_assert(sizeof words == kDataBytes);
        return {reinterpret_cast<const char*>(words), sizeof words};
    }

    const uint32_t seed;
    std::vector<SmallStream> streams; ///< by rising id
    std::string chunk = std::string(kRingBytes, '\xA5');

private:
    Ms pickStart() {
        if (streams.empty()) return kFirstMs;
        const SmallStream& before = streams.back();
        const uint32_t kind = m_chance.below(5);
        if (kind == 0) return before.end() + m_gridMs * m_chance.below(20);
        if (kind == 1) return before.start() + m_gridMs * m_chance.below(8);
        if (kind == 2) return kFirstMs + m_gridMs * m_chance.below(60'000 / m_gridMs);
        return before.end();
    }

    void addStream() {
        SmallStream s;
        const Ms start = pickStart();
        const uint32_t count = 1 + m_chance.below(12);
        s.row.streamID = (streams.empty() ? 0 : streams.back().row.streamID) + 1 + m_chance.below(2);
        s.row.frameSet = static_cast<uint16_t>(m_chance.below(12) + 0x10);
        s.row.recSize = m_chance.oneIn(5) ? 0 : count;
        s.row.chunkOffset = take((count + 1) * kHeaderBytes);
        s.row.chunkSize = (count + 1) * kHeaderBytes;
        s.header.marker = kStreamMarker;
        s.header.id = 100 + s.row.streamID;
        s.header.offset = m_place;
        s.header.size = count * kDataBytes;
        s.header.pictures = count;
        s.header.gops = m_chance.of({1u, 30u, 120u, 0u, 121u});
        s.header = sealed(s.header);
        const Ms span = addPictures(s);
        const Ms end = m_chance.oneIn(8) ? start : start + span + m_chance.of({0u, 0u, 0u, m_gridMs});
        s.row.startDate = static_cast<uint32_t>(start / 1000);
        s.row.startMSec = static_cast<uint16_t>(start % 1000);
        s.row.endDate = static_cast<uint32_t>(end / 1000);
        s.row.endMSec = static_cast<uint16_t>(end % 1000);
        if (m_damages && m_chance.oneIn(3)) damage(s);

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
            PICTURE_HEADER picture{};
            picture.marker = kPictureMarker;
            picture.offset = take(kDataBytes);
            picture.size = m_chance.oneIn(40) ? kMinPictureBytes - 1 : kDataBytes;
            picture.pts = static_cast<uint32_t>(pts / 1000);
            picture.msec = static_cast<uint16_t>(pts % 1000);
            picture.pictures = 8 | m_chance.below(4);
            s.pictures.push_back(sealed(picture));
            s.damaged.push_back(false);
            put(picture.offset, data(s, n).data(), kDataBytes);
        }
        return pts - first;
    }

    /// A false marker is sealed, and a false checksum leaves the marker right: each has a test of its own.
    void damage(SmallStream& s) {
        const uint32_t kind = m_chance.below(8);
        const uint32_t n = m_chance.below(s.header.pictures);
        if (kind == 0) s.row.chunkID = 7; // no such chunk
        if (kind == 1) s.row.chunkSize = 0;
        if (kind == 2) s.header.pts ^= 1;
        if (kind == 3) s.header = falselyMarked(s.header);
        if (kind == 4 || kind == 5) s.pictures[n].msec ^= 1;
        if (kind >= 6) s.pictures[n] = falselyMarked(s.pictures[n]);
        s.damaged[n] = kind >= 4;
        s.opens = kind >= 4 && !s.damaged[0];
    }
    template <class Header> static Header falselyMarked(Header header) {
        header.marker ^= 1; // the other kind's
        return sealed(header);
    }

    uint32_t take(uint32_t bytes) { return std::exchange(m_place, (m_place + bytes) % kRingBytes); }
    void put(uint32_t place, const void* bytes, uint32_t count) {
        for (uint32_t i = 0; i < count; ++i)
            chunk[(place + i) % kRingBytes] = static_cast<const char*>(bytes)[i];
    }

    Chance m_chance;
    uint32_t m_gridMs;
    bool m_damages;
    uint32_t m_place; ///< in the chunk, of the next free byte
};

/// Puts the world in the place of the one before. `chunk` must be there, in its size.
inline void hold(const SmallWorld& world, test::Card& card, const std::string& chunk) {
    test::patchFile(chunk, 0, world.chunk);
    // In memory, as far as it goes: nothing of it has to last.
    std::string sql = "PRAGMA synchronous = OFF; PRAGMA journal_mode = MEMORY; BEGIN; DELETE FROM STREAM;";
    for (const auto& [row, header, pictures, damaged, opens] : world.streams) {
        sql += "INSERT INTO STREAM (endMSec, streamID, frameSet, recSize, chunkID, chunkOffset, chunkSize,"
               " startDate, startMSec, endDate) VALUES (" +
               std::to_string(row.endMSec);
        for (const uint32_t cell :
             {row.streamID, uint32_t{row.frameSet}, row.recSize, row.chunkID, row.chunkOffset, row.chunkSize,
              row.startDate, uint32_t{row.startMSec}, row.endDate})
            sql.append(",").append(std::to_string(cell));
        sql += ");";
    }
    card.sql(sql + "COMMIT");
}

} // namespace small_world

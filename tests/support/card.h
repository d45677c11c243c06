// A recording in a line: card.stream(1).from("12:00:00").pictures(1800).gop(30).closed();
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/paths.h"
#include "stream/records.h"
#include "stream/stream_time.h"
#include "tests/support/world.h"
#include "tools/recording/recording_writer.h"

namespace test {

/// "12:00:00.250" on 2024-01-02 as local time.
PB_STREAM_TIME at(const char* clock);
uint64_t atMs(const char* clock);

/// The bytes of a synthetic picture: an I-picture carries SPS, PPS and SEI, then a slice; the payload depends
/// on stream and picture, so that no two are alike. `bytes` 0 = a small one of its own length.
std::string pictureBytes(uint32_t streamId, uint32_t picture, bool iPicture, uint32_t bytes = 0);
/// What the daemon answers for an I-picture of pictureBytes.
std::string parameterSets();

class Card;

/// Collects what a stream is to be, and writes it with closed() or recording().
class StreamBuilder {
public:
    StreamBuilder(Card& card, uint32_t id) : m_card(card) { m_settings.streamId = id; }

    StreamBuilder& from(const char* clock) { return fromMs(atMs(clock)); }
    StreamBuilder& fromMs(uint64_t ms) { return m_settings.startMs = ms, *this; }
    StreamBuilder& pictures(uint32_t count) { return m_pictures = count, *this; }
    StreamBuilder& gop(uint32_t pictures) { return m_gop = pictures, *this; }
    /// Sets both the picture interval and, where one fits, the frame-rate code.
    StreamBuilder& fps(double framesPerSecond);
    /// After fps, overrides the code.
    StreamBuilder& frameSet(uint16_t value) { return m_settings.frameSet = value, *this; }
    /// Of picture 0 on the recorder's scale, else 1000 s.
    StreamBuilder& firstPts(uint64_t ms) { return m_firstPts = ms, *this; }
    /// Pictures before it are no I-pictures.
    StreamBuilder& firstI(uint32_t picture) { return m_firstI = picture, *this; }
    StreamBuilder& pictureSize(uint32_t bytes) { return m_pictureSize = bytes, *this; }

    /// The finished stream; its row ends at the last picture's time.
    void closed();
    /// The stream as it stands while the recorder writes it: row with status 1, no final header.
    void recording();

private:
    friend class Card;
    /// With room in the header area for `spare` more.
    void begin(uint32_t spare);
    void write(uint32_t count);

    Card& m_card;
    StreamSettings m_settings;
    uint32_t m_pictures = 0, m_gop = 30, m_firstI = 0, m_pictureSize = 0;
    double m_intervalMs = 1000.0 / 30;
    uint64_t m_firstPts = 1'000'000;
};

/// The card and index of a world.
class Card {
public:
    explicit Card(const World&, uint32_t chunkBytes = 1u << 20)
        : m_writer({paths().card, paths().index, chunkBytes}) {}

    StreamBuilder stream(uint32_t id) { return {*this, id}; }
    uint32_t alarm(const char* from, const char* to, uint32_t extTrg = 512) {
        return m_writer.addEvent(atMs(from), to && *to ? atMs(to) : 0, extTrg);
    }

    /// Appends pictures to the stream left open by recording(), 400 at most, or finishes it.
    void grow(uint32_t pictures) { m_open.value().write(pictures); }
    void finish() { m_open.reset(), m_writer.finishStream(); }

    /// Runs a statement on the index as the recorder could.
    void sql(const std::string& statement);
    /// The row as it stands in the index.
    DB_STREAM row(uint32_t streamId);

    std::string chunkPath(uint32_t streamId);
    PICTURE_HEADER pictureHeader(uint32_t streamId, uint32_t picture);
    /// Lets `change` alter the header, and seals it anew.
    template <class Change> void changePicture(uint32_t streamId, uint32_t picture, Change change) {
        PICTURE_HEADER header = pictureHeader(streamId, picture);
        change(header);
        patchFile(chunkPath(streamId), headerPlace(streamId, picture + 1), bytesOf(sealed(header)));
    }
    /// Leaves a stream header whose checksum is wrong: damaged, or the recorder is still at it.
    void unsealStream(uint32_t streamId) {
        constexpr std::streamoff cs = offsetof(STREAM_HEADER, cs);
        patchFile(chunkPath(streamId), headerPlace(streamId, 0) + cs, "?!");
    }

    RecordingWriter& writer() { return m_writer; }

private:
    friend class StreamBuilder;
    /// In the chunk: header 0 is the stream's, n + 1 that of picture n. None is cut by the ring's end.
    std::streamoff headerPlace(uint32_t streamId, uint32_t n);

    RecordingWriter m_writer;
    std::optional<StreamBuilder> m_open; ///< the stream that recording() left open
};

inline void StreamBuilder::closed() {
    begin(0);
    m_card.m_writer.finishStream();
}

inline void StreamBuilder::recording() {
    begin(400);
    m_card.m_open.emplace(*this);
}

} // namespace test

// What the recording says about the pictures that the daemon delivers: when each was recorded, what comes
// next, where the recording begins and ends. Reads index and card by itself, through stream/; knows neither
// requests nor clients. All times are milliseconds since the epoch, UTC. One thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "platform/api_db.h"
#include "rtsp/picture.h"
#include "stream/open_stream.h"

class RecordingTime {
public:
    RecordingTime() = default;

    struct Span {
        int64_t oldest; ///< of the first picture of all
        int64_t newest; ///< of the last one, also while it is being recorded
    };
    /// Reads the index anew. Nothing: no index, or nothing recorded.
    std::optional<Span> span();
    /// Pictures per second of the newest stream; 0 when nothing tells.
    double frameRate() const;
    /// Whether the recorder is writing.
    static bool goesOn();

    struct Found {
        int64_t time;
        std::optional<int64_t> next; ///< the picture recorded next; none at the end
        bool gapBefore;              ///< between the picture found before and this one
        bool gapAfter;               ///< between this one and the next one recorded
    };
    /// A picture of the recording; rows come and go, so by the stream's number.
    struct Place {
        uint32_t streamId;
        uint32_t picture;
        int64_t time;
    };
    /// Of the picture found last, where `find` goes on.
    std::optional<Place> lastFound() const { return m_found; }
    void goOnFrom(const std::optional<Place>& place) { m_found = place; }
    /// How much later the newest picture was recorded, in milliseconds; stands on the one found last.
    int64_t behind();
    /// The picture with these bytes. An I-picture is found further away than the others.
    std::optional<Found> find(std::span<const char> bytes, bool iPicture, const Expected& expected);

    // ---- walking over all pictures ----

    /// To the I-picture that a play from this time begins with: the one at or before it; in a gap the first
    /// one behind it (forward) or the last one before it. Beyond the ends: the first or last one of all.
    bool goTo(int64_t time, bool forward);
    /// To the picture recorded next, or before; false, staying, at the end.
    bool step(bool forward);
    int64_t time() const;
    bool atIPicture() const;
    /// The picture stood on is the one found last.
    Found found();
    /// The picture's bytes; empty when they can't be read.
    std::vector<char> read();

private:
    bool loadRows();
    bool open(size_t row);
    bool grow();
    bool stand(Place place);
    Place here() const { return {m_stream.row().streamID, m_stream.getOffset(), time()}; }
    std::optional<size_t> rowOf(uint32_t streamId) const;
    bool gapBetween(size_t row, size_t other) const;
    uint32_t firstFrom(int64_t time);
    std::optional<size_t> rowFor(int64_t time, bool forward);
    bool isHere(std::span<const char> bytes);
    bool findAlong(std::span<const char> bytes, bool forward, bool iPicturesOnly, int steps);
    bool findAround(std::span<const char> bytes, int64_t around);
    int64_t gapMs() const;
    int64_t rowEnd(size_t row);

    CApiDb m_index;
    ErrorFlags m_errorFlags;
    OpenStream m_stream{m_errorFlags};
    std::vector<DB_STREAM> m_rows; ///< that hold pictures, by streamID
    size_t m_row = 0;              ///< the one that m_stream stands on
    bool m_open = false;
    std::optional<Place> m_found;
};

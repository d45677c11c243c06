#include "rtsp/recording_time.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sys/ipc.h>
#include <utility>

#include "platform/paths.h"
#include "shm/shm_client.h"
#include "stream/recorder_link.h"

namespace {

/// Pictures that may have been missed, that fast play leaves out at most, and how far a jump may land.
constexpr int kMissed = 60;
constexpr int kFar = 3000;
constexpr int64_t kAround = 5000;

/// Sleeping between two pictures is no gap, whatever the frame rate.
constexpr int64_t kShortestGapMs = 1000;

int64_t inMs(PB_STREAM_TIME time) {
    return int64_t{time.seconds()} * 1000 + time.mSec;
}

int64_t startOf(const DB_STREAM& row) {
    return inMs({row.startDate, row.startMSec});
}

bool isLive(const DB_STREAM& row) {
    return row.status == DB_STATUS_RECORDING;
}

/// What the recorder publishes at this moment; attached anew, since daemon and segment may have come and
/// gone.
RecorderState recorderState() {
    RecorderState state{};
    CShmClient segment;
    const key_t key = ftok(paths().ipcKey, kStatusSegmentProject);
    if (key == -1 || segment.isShm(key) == 0) return state;
    const void* address = segment.open(key, 0);
    if (address == nullptr) return state;
    REC_STATUS status;
    segment.lockShm();
    std::memcpy(&status, address, sizeof status);
    segment.unlockShm();
    return {status.recStreamID, status.recPictures};
}

} // namespace

// ---- the rows ----

bool RecordingTime::loadRows() {
    const uint32_t stoodOn = m_open ? m_stream.row().streamID : 0;
    const uint32_t live = recorderState().streamId;
    // While the recorder holds the index, what was known last has to do.
    if (m_index.setSql("SELECT * FROM STREAM ORDER BY streamID") != 0) return !m_rows.empty();
    m_rows.clear();
    const int count = m_index.getNTuple();
    for (int n = 0; n < count; ++n) {
        DB_STREAM row{};
        m_index.getStreamValue(n, &row);
        if (isLive(row) ? row.streamID == live : row.recSize != 0) m_rows.push_back(row);
    }
    const auto at = rowOf(stoodOn);
    // One that was under recording and is finished has more pictures than were there when it was opened.
    m_open = m_open && at && m_rows[*at].status == m_stream.row().status;
    m_row = at.value_or(0);
    return !m_rows.empty();
}

std::optional<size_t> RecordingTime::rowOf(uint32_t streamId) const {
    const auto at = std::ranges::lower_bound(m_rows, streamId, {}, &DB_STREAM::streamID);
    if (at == m_rows.end() || at->streamID != streamId) return std::nullopt;
    return static_cast<size_t>(at - m_rows.begin());
}

bool RecordingTime::open(size_t row) {
    if (m_open && row == m_row) return true;
    m_open = false;
    m_stream.clear();
    m_stream.replaceRow(m_rows[row]);
    m_row = row;
    m_open = isLive(m_rows[row]) ? grow() : m_stream.m_openChunk() != -1 && m_stream.pictures() > 0;
    return m_open;
}

/// Takes in what has been recorded since to the stream under recording; false when it is no longer the one.
bool RecordingTime::grow() {
    const RecorderState recorder = recorderState();
    if (recorder.streamId != m_stream.row().streamID || recorder.pictures == 0) return false;
    if (m_open && recorder.pictures == m_stream.pictures()) return true;
    const uint32_t offset = m_open ? m_stream.getOffset() : 0;
    return m_stream.openGrown(recorder.pictures) != -1 && m_stream.goTo(offset) != -1;
}

bool RecordingTime::stand(Place place) {
    const auto row = rowOf(place.streamId);
    return row && open(*row) && m_stream.goTo(place.picture) == 0;
}

int64_t RecordingTime::rowEnd(size_t row) {
    if (!isLive(m_rows[row])) return inMs({m_rows[row].endDate, m_rows[row].endMSec});
    if (!open(row)) return startOf(m_rows[row]);
    grow();
    return m_stream.goTo(m_stream.lastPicture()) == 0 ? time() : startOf(m_rows[row]);
}

std::optional<RecordingTime::Span> RecordingTime::span() {
    if (!loadRows()) return std::nullopt;
    Span span{startOf(m_rows.front()), 0};
    for (const DB_STREAM& row : m_rows) span.oldest = std::min(span.oldest, startOf(row));
    for (size_t row = 0; row < m_rows.size(); ++row)
        if (row + 1 == m_rows.size() || !isLive(m_rows[row]))
            span.newest = std::max(span.newest, rowEnd(row));
    span.newest = std::max(span.newest, span.oldest); // a clock set back, or a damaged row
    return span;
}

int64_t RecordingTime::behind() {
    if (!m_found || !stand(*m_found)) return 0;
    // As in `step`, the index is asked only when the recorder is elsewhere.
    const int64_t newest = isLive(m_rows[m_row]) && grow() ? rowEnd(m_row) : span().value_or(Span{}).newest;
    return stand(*m_found) ? newest - m_found->time : 0;
}

double RecordingTime::frameRate() const {
    if (m_rows.empty()) return 0;
    const DB_STREAM& row = m_rows.back();
    const FrameRateRow* known = frameRateRow(row.frameSet);
    if (known != nullptr) return known->tenthsPerSecond / 10.0;
    const uint32_t seconds = row.endDate - row.startDate;
    return seconds == 0 || isLive(row) ? 0 : static_cast<double>(row.recSize) / seconds;
}

bool RecordingTime::goesOn() {
    return recorderState().streamId != 0;
}

// ---- where a time lies ----

int64_t RecordingTime::time() const {
    return inMs(m_stream.getTimePts());
}

bool RecordingTime::atIPicture() const {
    PICTURE_HEADER header;
    m_stream.getPicH(&header);
    return isIPicture(header);
}

/// The first picture of the open stream that was recorded at `time` or later; its count of pictures when none
/// was.
uint32_t RecordingTime::firstFrom(int64_t wanted) {
    uint32_t low = 0;
    for (uint32_t high = m_stream.pictures(); low < high;) {
        const uint32_t middle = low + (high - low) / 2;
        if (m_stream.goTo(middle) == 0 && time() < wanted)
            low = middle + 1;
        else
            high = middle;
    }
    return low;
}

std::optional<size_t> RecordingTime::rowFor(int64_t wanted, bool forward) {
    std::optional<size_t> before, behind;
    for (size_t row = 0; row < m_rows.size(); ++row) {
        if (startOf(m_rows[row]) > wanted) {
            if (!behind) behind = row;
        } else if (wanted <= rowEnd(row)) {
            return row;
        } else {
            before = row;
        }
    }
    return (forward && behind) || !before ? behind : before;
}

bool RecordingTime::goTo(int64_t wanted, bool forward) {
    if (!loadRows()) return false;
    const auto row = rowFor(wanted, forward);
    if (!row || !open(*row)) return false;
    uint32_t picture = firstFrom(wanted + 1);
    if (picture > 0) --picture;
    if (m_stream.goToIPicture(picture, Direction::backward) == 0 ||
        m_stream.goToIPicture(picture, Direction::forward) == 0)
        return m_stream.m_readPic() == 0;
    return false;
}

bool RecordingTime::step(bool forward) {
    if (!m_open) return false;
    const Place from = here();
    if (forward ? from.picture + 1 < m_stream.pictures() : from.picture > 0)
        return m_stream.goTo(forward ? from.picture + 1 : from.picture - 1) == 0;
    if (forward) { // what was the end may have moved on
        // While the recorder stays on this stream there is no other: asking the index for each picture would
        // make this thread wait for the recorder's writes.
        if (isLive(m_rows[m_row]) && grow())
            return from.picture + 1 < m_stream.pictures() && m_stream.goTo(from.picture + 1) == 0;
        if (!loadRows() || !stand(from)) return false;
        if (from.picture + 1 < m_stream.pictures()) return m_stream.goTo(from.picture + 1) == 0;
    }
    const bool another = forward ? m_row + 1 < m_rows.size() : m_row > 0;
    if (another && open(forward ? m_row + 1 : m_row - 1) &&
        m_stream.goTo(forward ? 0 : m_stream.lastPicture()) == 0)
        return true;
    stand(from);
    return false;
}

std::vector<char> RecordingTime::read() {
    PICTURE_HEADER header;
    m_stream.getPicH(&header);
    if (header.size > kMaxPictureBytes) return {};
    std::vector<char> bytes(header.size);
    if (m_stream.get(reinterpret_cast<unsigned char*>(bytes.data())) < 0) return {};
    return bytes;
}

// ---- a picture's place ----

/// Longer than pictures are apart, so that nothing was recorded meanwhile.
int64_t RecordingTime::gapMs() const {
    const FrameRateRow* rate = frameRateRow(m_stream.row().frameSet);
    return std::max<int64_t>(kShortestGapMs, rate ? 20000 / rate->tenthsPerSecond + 1 : 0);
}

bool RecordingTime::isHere(std::span<const char> bytes) {
    PICTURE_HEADER header;
    m_stream.getPicH(&header);
    return header.size == bytes.size() && std::ranges::equal(read(), bytes);
}

/// From the picture found last, which it may be again.
bool RecordingTime::findAlong(std::span<const char> bytes, bool forward, bool iPicturesOnly, int steps) {
    if (!m_found || !stand(*m_found)) return false;
    do {
        if ((!iPicturesOnly || atIPicture()) && isHere(bytes)) return true;
    } while (steps-- > 0 && step(forward));
    return false;
}

/// The nearest one, where several look alike.
bool RecordingTime::findAround(std::span<const char> bytes, int64_t around) {
    if (!goTo(around - kAround, true)) return false;
    std::optional<Place> best;
    int64_t bestAway = kAround + 1;
    do {
        const int64_t away = time() - around;
        if (away > bestAway) break;
        if (std::abs(away) < bestAway && atIPicture() && isHere(bytes)) {
            best = here();
            bestAway = std::abs(away);
        }
    } while (step(true));
    return best && stand(*best);
}

/// Between two rows, the ends of the streams from one to the other tell.
bool RecordingTime::gapBetween(size_t row, size_t other) const {
    for (size_t n = std::min(row, other); n < std::max(row, other); ++n)
        if (startOf(m_rows[n + 1]) - inMs({m_rows[n].endDate, m_rows[n].endMSec}) > gapMs()) return true;
    return false;
}

std::optional<RecordingTime::Found> RecordingTime::find(std::span<const char> bytes, bool iPicture,
                                                        const Expected& expected) {
    using How = Expected::How;
    if (m_rows.empty() && !loadRows()) return std::nullopt;
    if (m_found && !rowOf(m_found->streamId)) { // deleted while it was played: the next one follows it
        const auto next = std::ranges::upper_bound(m_rows, m_found->streamId, {}, &DB_STREAM::streamID);
        if (next != m_rows.end()) m_found = Place{next->streamID, 0, startOf(*next)};
    }
    bool isFound = iPicture && expected.how == How::around && findAround(bytes, expected.around);
    if (!isFound) isFound = findAlong(bytes, true, false, kMissed);
    if (!isFound && iPicture)
        isFound = findAlong(bytes, expected.how != How::backward, true, kFar) ||
                  findAlong(bytes, expected.how == How::backward, true, kFar);
    return isFound ? std::optional(found()) : std::nullopt;
}

RecordingTime::Found RecordingTime::found() {
    const Place now = here();
    const auto before = std::exchange(m_found, now);
    Found result{now.time, std::nullopt, false, false};
    if (before && now.streamId == before->streamId)
        result.gapBefore = now.picture == before->picture + 1 && now.time - before->time > gapMs();
    else if (const auto row = before ? rowOf(before->streamId) : std::nullopt)
        result.gapBefore = gapBetween(*row, m_row);
    if (step(true)) {
        result.next = time();
        result.gapAfter = *result.next - result.time > gapMs();
        stand(now);
    }
    return result;
}

#include "engine/parameter_sets.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "daemon/rtsp_request.h"
#include "engine/picker_thread.h"
#include "platform/log.h"
#include "stream/pb_stream_video.h"

namespace {

constexpr uint8_t kNalSei = 6;
constexpr uint8_t kNalSps = 7;
constexpr uint8_t kNalPps = 8;

/// The scan never looks at a start code whose position lies in the last so many bytes.
constexpr size_t kScanMargin = 5;

bool startsNal(const uint8_t* bytes, uint8_t type) {
    static constexpr uint8_t kStartCode[] = {0, 0, 0, 1};
    return std::memcmp(bytes, kStartCode, sizeof kStartCode) == 0 && (bytes[4] & 0x1F) == type;
}

/// The first position from `from` on where a NAL of that type starts; `end` when there is none.
size_t findNal(const uint8_t* picture, size_t from, size_t end, uint8_t type) {
    while (from < end && !startsNal(picture + from, type)) ++from;
    return from < end ? from : end;
}

struct FreeBuffer {
    void operator()(unsigned char* buffer) const { std::free(buffer); }
};

/// Moves to the next I-picture, into the next stream where this one ends; its header. False, with a message,
/// when there is none.
bool nextIPicture(CPbStreamVideo& video, PICTURE_HEADER& picture) {
    video.getPicH(&picture);
    if (video.move(PBST_FORWARD, 1, &picture, kSearchForward) >= 0) return true;
    DB_STREAM db;
    STREAM_HEADER stream;
    if (video.over(number(Direction::forward), &db, &stream, &picture, nullptr, 0) < 0) {
        logNamed(LOG_ERR, "m_get_sps_pps", "Not exist next stream");
        return false;
    }
    if (video.move(PBST_FORWARD, 1, &picture, kSearchForward) < 0) {
        logNamed(LOG_ERR, "m_get_sps_pps", "Not exist I-frame in the next stream");
        return false;
    }
    return true;
}

} // namespace

ParameterSets scanParameterSets(const uint8_t* picture, size_t size) {
    if (size <= kScanMargin) return {};
    const size_t end = size - kScanMargin;
    const size_t sps = findNal(picture, 0, end, kNalSps);
    if (sps == end) return {};
    const size_t pps = findNal(picture, sps + 1, end, kNalPps);
    if (pps == end) return {};
    const size_t sei = findNal(picture, pps + 1, end, kNalSei);
    return {.found = true, .position = sps, .length = sei == end ? 0 : sei - sps};
}

int m_get_sps_pps(CPbStreamVideo& video, char* buffer) {
    PICTURE_HEADER picture;
    if (!nextIPicture(video, picture)) return -1;
    // The header comes from the card, so its size is checked before anything is allocated for it.
    if (picture.size < kMinPictureBytes || picture.size > CpickerThread::kPictureBufferBytes) {
        logAt(LOG_ERR, "invalid picH.size=%ld", asLd(picture.size));
        return -1;
    }
    const std::unique_ptr<unsigned char, FreeBuffer> data(
        static_cast<unsigned char*>(std::malloc(picture.size)));
    if (data == nullptr) {
        logAt(LOG_ERR, "malloc error");
        return -1;
    }
    if (video.get(data.get()) < 0) {
        logAt(LOG_ERR, "data get() error");
        return -1;
    }
    const ParameterSets sets = scanParameterSets(data.get(), picture.size);
    if (!sets.found) {
        logAt(LOG_ERR, "Not found SPS/PPS");
        return -1;
    }
    if (sets.length < 1 || sets.length > kParameterSetAnswerBytes) {
        logAt(LOG_ERR, "could not get SPS/PPS");
        return -1;
    }
    std::memcpy(buffer, data.get() + sets.position, sets.length);
    return static_cast<int>(sets.length);
}

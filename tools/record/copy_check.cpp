#include "tools/record/copy_check.h"

#include <algorithm>

#include "stream/records.h"
#include "tools/record/h264.h"
#include "tools/recording/recording_error.h"

namespace {

constexpr uint32_t kClockTextBytes = 64; ///< at least what an SEI with the clock's text adds

} // namespace

bool CopyCheck::look(const MediaPicture& picture) {
    if (m_reason.empty()) m_reason = fault(picture);
    return m_reason.empty();
}

std::string CopyCheck::reason() {
    if (m_reason.empty() && m_iPictures < 2)
        m_reason = "it has fewer than two IDR pictures, and a session opens on no less";
    return m_reason;
}

std::string CopyCheck::fault(const MediaPicture& picture) {
    const bool iPicture = h264::isIPicture(picture.accessUnit);
    if (iPicture) {
        ++m_iPictures;
        m_gop = 0;
    }
    m_longest = std::max(m_longest, ++m_gop);
    if (h264::isBPicture(picture.accessUnit)) return "its pictures are reordered (B-frames)";
    if (m_any && picture.sourceMs <= m_lastMs) return "the times of its pictures do not rise";
    m_any = true;
    m_lastMs = picture.sourceMs;
    if (m_iPictures == 0) return "it does not begin with an IDR picture";
    if (m_gop > kMaxGops)
        return "more than " + std::to_string(kMaxGops) + " pictures pass from one IDR picture to the next";
    if (picture.accessUnit.size() > kMaxPictureBytes - h264::kMaxParameterSetBytes - kClockTextBytes)
        return "it has a picture of " + std::to_string(picture.accessUnit.size()) +
               " bytes, and playback takes " + std::to_string(kMaxPictureBytes);
    try {
        if (iPicture) h264::shaped(picture.accessUnit, "");
    } catch (const RecordingError& error) {
        return error.what();
    }
    return "";
}

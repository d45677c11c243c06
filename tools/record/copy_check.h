// Whether the H.264 of a file can be recorded as it is.
#pragma once

#include <cstdint>
#include <string>

#include "tools/record/media_source.h"

/// Looks at a file's pictures in order. What is copied opens a session and plays in any mode: it begins with
/// an IDR picture, has another before long, and its pictures come in the order they are shown.
class CopyCheck {
public:
    /// False once the file can't be copied; the rest need not be looked at then.
    bool look(const MediaPicture& picture);
    /// Behind the last picture: why it can't be copied, empty when it can.
    std::string reason();
    /// Pictures of the longest GOP so far.
    uint32_t gop() const { return m_longest; }

private:
    std::string fault(const MediaPicture& picture);

    std::string m_reason;
    uint32_t m_iPictures = 0;
    uint32_t m_gop = 0; ///< pictures since the last I-picture, itself included
    uint32_t m_longest = 0;
    bool m_any = false;
    uint64_t m_lastMs = 0;
};

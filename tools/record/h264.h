// What the recorder does to an H.264 byte stream: nothing to the pictures themselves, but every I-picture
// begins with SPS, PPS and SEI behind 4-byte start codes, which is where playback looks for them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "daemon/rtsp_request.h"

namespace h264 {

enum NalType : uint8_t {
    nalSlice = 1,
    nalIdrSlice = 5,
    nalSei = 6,
    nalSps = 7,
    nalPps = 8,
    nalAccessUnitDelimiter = 9,
};

inline NalType nalType(std::string_view unit) {
    return static_cast<NalType>(unit.front() & 0x1F);
}

/// The NAL units of Annex B bytes, in order, without start codes and the zeros before them.
std::vector<std::string_view> nalUnits(std::string_view annexB);

/// Decoding can start at this access unit: it is an IDR picture.
bool isIPicture(std::string_view accessUnit);

/// The access unit holds a B slice, so its source decodes pictures in another order than it shows them.
bool isBPicture(std::string_view accessUnit);

/// A NAL unit of the given first byte around a payload, with emulation prevention where it is needed.
std::string nalUnit(uint8_t header, std::string_view payload);

/// An SEI unit of type user_data_unregistered that carries the text behind this recorder's UUID.
std::string textSei(std::string_view text);

/// Longest that SPS and PPS with their start codes may be: what an open request's answer has room for.
inline constexpr size_t kMaxParameterSetBytes = kParameterSetAnswerBytes;

/// The access unit with 4-byte start codes and without delimiter. An I-picture, which has to hold the
/// parameter sets in force, begins with them and an SEI: its own where it has one, else a new one that
/// carries `text`. Throws RecordingError when there are no parameter sets or they are too long.
std::string shaped(std::string_view accessUnit, std::string_view text);

} // namespace h264

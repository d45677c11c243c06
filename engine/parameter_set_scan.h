// Finding the parameter sets in a coded picture. Pure: bytes in, positions out.
#pragma once

#include <cstddef>
#include <cstdint>

/// Where SPS and PPS lie.
struct ParameterSets {
    bool found = false;  ///< both an SPS and a PPS behind it are there
    size_t position = 0; ///< of the SPS's start code
    size_t length = 0;   ///< bytes up to the start code of the SEI behind the PPS; 0 = no SEI follows
};

/// Scans an H.264 picture in Annex B form. Only four-byte start codes count, and none within the picture's
/// last five bytes.
ParameterSets scanParameterSets(const uint8_t* picture, size_t size);

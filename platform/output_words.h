// The words of an output block: the clock its stamp runs on, and what stands in place of a picture. A leaf:
// whoever reads the output may include it.
#pragma once

#include <cstdint>
#include <string_view>

/// Units of the time stamp.
inline constexpr uint32_t kPtsPerMs = 90;

/// The whole block, without a terminating zero, while there is no new picture.
inline constexpr std::string_view kPauseBlock = "PAUSE";

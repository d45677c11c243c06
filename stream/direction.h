// Which way through the recording: forward is towards newer pictures. A leaf.
#pragma once

#include <cstdint>

/// The numbers are those that the published operations pass.
enum class Direction : uint8_t { forward = 0, backward = 1 };

// How a jump to a clock time chooses among the pictures around it. Pure.
#pragma once

#include <cstdint>

/// The searches a clock jump can end with.
enum class ClockCandidate {
    forward,     ///< forward from the second asked for
    halfLater,   ///< backward from half a second after it
    secondLater, ///< backward from one second after it
};

/// Chooses by how many seconds each search landed away from the second asked for.
ClockCandidate clockCandidate(uint32_t forward, uint32_t halfLater, uint32_t secondLater);

/// The distance of two times in seconds; their difference is taken as signed 32-bit.
uint32_t secondsApart(uint32_t a, uint32_t b);

// What the players' programs share: the pictures of an elementary stream as a list of their sizes.
#pragma once

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace players {

/// Bytes of each picture, a number per line, as `player_reader sizes` prints them; empty without the file.
inline std::vector<size_t> sizesFrom(const char* file) {
    std::ifstream in(file);
    return {std::istream_iterator<size_t>(in), std::istream_iterator<size_t>()};
}

} // namespace players

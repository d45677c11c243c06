// Where an ordinary machine keeps a chunk. A leaf: who writes or reads chunk files may include it.
#pragma once

#include <cstdio>
#include <string>

/// Chunk `chunk`'s file, five decimal digits, below the card's directory.
inline std::string chunkPath(const std::string& card, unsigned chunk) {
    char name[24];
    std::snprintf(name, sizeof name, "/chunk%05u", chunk);
    return card + name;
}

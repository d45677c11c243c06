// The chunk library as its users may rely on it and no kinder: it takes no area without a size, and closes
// only what it is told to. Keeps what it was asked, and breaks down when told to. The program is linked with
// it in place of platform/host's.
#pragma once

#include <functional>
#include <string>

namespace test {

struct ChunkLibrary {
    std::function<void()> atOpen = [] {}; ///< happens meanwhile
    std::string asked;                    ///< the mode of each object made, the size of each area opened
    int areasOpen = 0, reads = 0;
    bool noMemory = false, seekFails = false;
    long readLimit = 1 << 20; ///< bytes that come of a longer read; -1 = it fails
};
inline ChunkLibrary chunkLibrary;

} // namespace test

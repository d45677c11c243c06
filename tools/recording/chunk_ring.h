// The chunk files of a card, filled one after the other. Inside a chunk, room is taken in ring order and
// never given back: a recording only ever grows here.
#pragma once

#include <cstdint>
#include <string>

/// Chunk `number`'s file below the card's directory.
std::string chunkPath(const std::string& cardDirectory, uint32_t number);

class ChunkRing {
public:
    /// New chunks get the numbers above `lastUsed` and above every chunk file in the directory.
    ChunkRing(const std::string& cardDirectory, uint32_t chunkBytes, uint32_t lastUsed);
    ~ChunkRing();
    ChunkRing(const ChunkRing&) = delete;
    ChunkRing& operator=(const ChunkRing&) = delete;

    /// Creates the next chunk, at its full size, and goes on in it.
    void next();

    bool isOpen() const { return m_file != -1; }
    uint32_t number() const { return m_number; }
    const std::string& path() const { return m_path; }
    std::string pathOf(uint32_t number) const;
    uint32_t chunkBytes() const { return m_chunkBytes; }
    uint32_t free() const { return m_chunkBytes - m_taken; }

    /// Takes `bytes` (at most free()) at the fill position; where they begin.
    uint32_t take(uint32_t bytes);
    /// Moves the fill position on to a multiple of 32, or to the end of the free room.
    void alignFill();

    /// Writes at a chunk byte position, going on at the chunk's start past its end.
    void write(uint32_t position, const void* data, uint32_t bytes);

private:
    void writeFlat(uint32_t position, const char* data, uint32_t bytes);

    const std::string m_directory;
    const uint32_t m_chunkBytes;
    uint32_t m_number;
    std::string m_path;
    int m_file = -1;
    uint32_t m_fill = 0;  ///< chunk byte position at which the next room is taken
    uint32_t m_taken = 0; ///< bytes taken so far
};

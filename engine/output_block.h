// What goes out in a pass: which block, and by how much its time stamp moves on.
#pragma once

#include "engine/play_mode.h"
#include "engine/position.h"

enum class BlockKind {
    none,    ///< nothing goes out
    rest,    ///< PAUSE: nothing is new, and nothing is on its way
    still,   ///< PAUSE: play has not come further
    picture, ///< the one stood on
};

class BlockMaker {
public:
    BlockKind kindAt(PBTYPE type, PB_STREAM_TIME pts, bool refresh) const;
    /// Units of 90 kHz that a picture shown now adds to the stamp. A frame rate of 0 is not known.
    uint32_t stampStep(const PlayState& play, PB_STREAM_TIME pts, uint32_t frameRate) const;
    /// The next step counts from here.
    void countFrom(PB_STREAM_TIME pts) { m_prevPts = pts; }

    struct Block {
        int length;         ///< bytes; 0 = the picture can't be read
        uint32_t stampStep; ///< units of 90 kHz
    };
    /// Fills the buffer with a block of that kind, a still one or a picture.
    Block fill(char* buffer, BlockKind kind, const PlayState& play, Position& position);

private:
    PB_STREAM_TIME m_prevPts;      ///< picture time of the previous block
    PBTYPE m_prevPbType = PB_INIT; ///< play type of the previous block
};

/// A PAUSE block; its length.
int fillPauseBlock(char* buffer);

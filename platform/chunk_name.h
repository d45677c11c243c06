// Where an ordinary machine keeps a chunk. A leaf: who writes or reads chunk files may include it.
#pragma once

/// Of the card's directory and the chunk's number, five decimal digits: its file, to printf.
inline constexpr char kChunkPath[] = "%s/chunk%05u";

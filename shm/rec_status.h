// The status record at the start of the segment shared with the recorder. A leaf: anyone may include it.
//
//   byte  0      4            8              16         20             256
//         +------+------------+--------------+----------+--------------+
//         | recStreamID | recPictures | (not ours) | pbActive | (not ours)  |
//         +------+------------+--------------+----------+--------------+
//
// Every access, reading or writing, is made between lockShm and unlockShm.
#pragma once

#include <cstddef>
#include <cstdint>

struct REC_STATUS {
    uint32_t recStreamID; ///< by the recorder: stream being written now; 0 = none
    uint32_t recPictures; ///< by the recorder: pictures written so far to that stream
    uint32_t unused[2];   ///< zeroed at daemon start, otherwise not touched
    uint32_t pbActive;    ///< by the daemon: 1 while a playback engine exists
};

static_assert(sizeof(REC_STATUS) == 20);
static_assert(offsetof(REC_STATUS, recPictures) == 4);
static_assert(offsetof(REC_STATUS, pbActive) == 16);

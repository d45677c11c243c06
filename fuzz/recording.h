// What the card's and the control channel's targets play: three streams in one chunk and an alarm, for a
// fuzzer to damage. The index is a stand-in that answers each query as the input says: with any of the rows,
// changed or not, with none, or with failure. The one over SQLite has a target of its own.
#pragma once

#include <string>
#include <string_view>

#include "fuzz/input.h"
#include "shm/shm_server.h"
#include "stream/records.h"
#include "tests/support/world.h"

class Recording {
public:
    Recording();

    /// Sound again. The index answers as `input` says; soundly, with the first stream, once it has run out.
    void restore(Input& input);
    /// Changes a header's word (and its checksum, so that it is believed), some bytes of the chunk or what
    /// the recorder says.
    void damage(Input& input);
    /// Whether `shown` lies where the header says, and is zeros beyond a whole ring.
    bool holds(const PICTURE_HEADER& header, std::string_view shown) const;
    /// The same for any picture header on the chunk: following a recorder may have moved on since.
    bool holds(std::string_view shown) const;

    CtavirnShmServer status;

private:
    test::World m_world;
    std::string m_sound;     ///< the chunk as it was written
    char* m_chunk = nullptr; ///< its file, mapped
};

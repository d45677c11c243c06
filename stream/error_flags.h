// What the main thread may ask while the playback thread reads: the two error flags and the lock over them.
#pragma once

#include "platform/mutex.h"

/// Kinds of `setErrorflag`, and the bits of `getErrorflag`.
inline constexpr unsigned long kErrorKindIndex = 1;
inline constexpr unsigned long kErrorKindChunk = 2;
inline constexpr unsigned long kIndexErrorBit = 1;
inline constexpr unsigned long kChunkErrorBit = 2;

/// Set by the index and by the open stream, each its own kind; any thread may ask.
class ErrorFlags {
public:
    /// Any other kind changes nothing.
    void setErrorflag(unsigned long kind, unsigned long value) EXCLUDES(m_mutex);
    unsigned long getErrorflag() EXCLUDES(m_mutex);
    /// Waits for a question under way on another thread.
    void drain() EXCLUDES(m_mutex) { m_mutex.drain(); }

private:
    Mutex m_mutex;
    unsigned long m_dbErrorflag GUARDED_BY(m_mutex) = 0;    ///< the last query could not be made
    unsigned long m_chunkErrorflag GUARDED_BY(m_mutex) = 0; ///< the last chunk open failed
};

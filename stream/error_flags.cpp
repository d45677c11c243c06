#include "stream/error_flags.h"

void ErrorFlags::setErrorflag(unsigned long kind, unsigned long value) {
    const MutexLock lock(m_mutex);
    if (kind == kErrorKindIndex) m_dbErrorflag = value;
    if (kind == kErrorKindChunk) m_chunkErrorflag = value;
}

unsigned long ErrorFlags::getErrorflag() {
    const MutexLock lock(m_mutex);
    return (m_dbErrorflag != 0 ? kIndexErrorBit : 0) | (m_chunkErrorflag != 0 ? kChunkErrorBit : 0);
}

#include "stream/stream_read_zuvo.h"

#include "platform/log.h"

CStreamReadZuvo::CStreamReadZuvo(unsigned char mode) : m_zuvo(mode) {}

int CStreamReadZuvo::open(CHUNK_EVENT* event) {
    m_event = *event;
    if (m_event.size == 0) {
        // The area is still growing. Only the second open decides: what the first one lacked, it lacks too.
        m_event.size = 1;
        m_zuvo.openChunkFile(&m_event);
        m_event.size = static_cast<uint32_t>(m_zuvo.getChunkSize());
        m_zuvo.closeChunkFile();
    }
    return m_zuvo.openChunkFile(&m_event);
}

int CStreamReadZuvo::close() {
    return m_zuvo.closeChunkFile();
}

int CStreamReadZuvo::seek(long position, int) {
    const auto bytePosition = static_cast<uint32_t>(position);
    const uint32_t start = m_event.offset;
    // A position before the area's start belongs to its part beyond the ring's end.
    const uint32_t relative = bytePosition >= start
                                  ? bytePosition - start
                                  : static_cast<uint32_t>(m_zuvo.getChunkSize()) - start + bytePosition;
    if (m_zuvo.seekEvent(static_cast<long>(relative), 0) == -1) {
        logPlain(LOG_ERR, "CStreamReadZuvo::seek() m_zuvo->seekEvent() error");
        return -1;
    }
    return 0;
}

int CStreamReadZuvo::seekEvent(long position, int origin) {
    return m_zuvo.seekEvent(position, origin);
}

long CStreamReadZuvo::read(void* buffer, long length) {
    return m_zuvo.read(buffer, length);
}

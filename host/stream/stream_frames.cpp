#include "stream_frames.h"

int StreamFrames::write(uint8_t *buffer, int size)
{
    if (size <= 0) return 0;
    m_frames.checker().feed(buffer, static_cast<size_t>(size));
    m_bytes += static_cast<uint64_t>(size);
    return size;
}

#include "sink.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <poll.h>
#include <unistd.h>

#include "interrupt.h"
#include "ts_packet.h"

namespace {

// Bytes in a write, whole packets. Where entering the kernel is slow, smaller ones cost more.
constexpr size_t BUFFER_SIZE = 128 * 1024 / TS_PACKET_SIZE * TS_PACKET_SIZE;

int write_all(int fd, const uint8_t *data, size_t size);

}  // namespace

Sink::Sink(int fd, TsWatch &sound)
    : m_fd(fd)
    , m_sound(sound)
    , m_buffer(new uint8_t[BUFFER_SIZE])
{
}

int Sink::write(uint8_t *buffer, int size)
{
    // Nearly everything is a packet that is only to be copied. This way has no call in it, which
    // would make it keep registers. m_held is below BUFFER_SIZE.
    if (size != static_cast<int>(TS_PACKET_SIZE) || m_sound.wants(buffer) ||
        BUFFER_SIZE - m_held <= TS_PACKET_SIZE)
        return write_other(buffer, size);
    // A copy of fixed size needs no call either. Header and payload are read as the library has
    // just written them: the processor hands on a store that is still on its way only to a load
    // that lies within it.
    uint8_t *const to = m_buffer.get() + m_held;
    memcpy(to, buffer, TS_HEADER_SIZE);
    memcpy(to + TS_HEADER_SIZE, buffer + TS_HEADER_SIZE, TS_PACKET_SIZE - TS_HEADER_SIZE);
    m_held += TS_PACKET_SIZE;
    return m_error == 0 ? size : -1;
}

int Sink::write_other(const uint8_t *data, int size)
{
    if (size <= 0) return 0;
    if (size == static_cast<int>(TS_PACKET_SIZE) && m_sound.wants(data)) m_sound.look(data);
    for (size_t left = static_cast<size_t>(size); left > 0;) {
        const size_t part = std::min(left, BUFFER_SIZE - m_held);
        memcpy(m_buffer.get() + m_held, data, part);
        m_held += part;
        data += part;
        left -= part;
        if (m_held == BUFFER_SIZE) flush();
    }
    return m_error == 0 ? size : -1;
}

void Sink::flush()
{
    if (m_error == 0) m_error = write_all(m_fd, m_buffer.get(), m_held);
    m_flushed += m_held;
    m_held = 0;
}

namespace {

// Returns 0 or an errno value.
int write_all(int fd, const uint8_t *data, size_t size)
{
    while (size > 0) {
        const ssize_t count = ::write(fd, data, size);
        if (count > 0) {
            data += count;
            size -= static_cast<size_t>(count);
            if (size > 0 && stop_signal() != 0) return EINTR;
        } else if (count < 0 && (errno == EINTR || errno == EAGAIN) && stop_signal() != 0) {
            return EINTR;  // the reader of a pipe may never come
        } else if (count < 0 && errno == EAGAIN) {
            // Whoever shares the pipe may have made it non-blocking.
            pollfd ready = {fd, POLLOUT, 0};
            poll(&ready, 1, -1);
        } else if (count == 0 || errno != EINTR) {
            return count == 0 ? EIO : errno;
        }
    }
    return 0;
}

}  // namespace

#include "sink.h"

#include <algorithm>
#include <cstring>

#include <fcntl.h>
#include <limits.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include "descriptor.h"
#include "ts_packet.h"

namespace {

// Bytes in a write, whole packets. Where entering the kernel is slow, smaller ones cost more.
constexpr size_t BUFFER_SIZE = 128 * 1024 / TS_PACKET_SIZE * TS_PACKET_SIZE;

int write_packets(int fd, const uint8_t *data, size_t size, size_t pipe_size);
size_t size_of_pipe(int fd);

}  // namespace

Sink::Sink(int fd)
    : m_fd(fd)
    , m_pipe_size(size_of_pipe(fd))
{
}

int Sink::write(uint8_t *buffer, int size)
{
    // Nearly everything is a packet that is only to be copied. This way has no call in it, which
    // would make it keep registers. m_held is below BUFFER_SIZE.
    if (size != static_cast<int>(TS_PACKET_SIZE) || m_held == 0 ||
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
    // Packets that were gathered already aren't copied.
    if (m_held == 0 && static_cast<size_t>(size) >= BUFFER_SIZE / 4) {
        write_out(data, static_cast<size_t>(size));
        return m_error == 0 ? size : -1;
    }
    if (m_buffer == nullptr) m_buffer.reset(new uint8_t[BUFFER_SIZE]);
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
    write_out(m_buffer.get(), m_held);
    m_held = 0;
}

void Sink::write_out(const uint8_t *data, size_t size)
{
    if (m_error == 0) m_error = write_packets(m_fd, data, size, m_pipe_size);
    m_flushed += size;
}

namespace {

// Returns 0 or an errno value. A pipe gets only whole packets, even if a signal ends a write to a
// reader that has stopped reading: a write up to PIPE_BUF bytes is done whole or not at all, and so is one
// to an empty pipe up to its size.
int write_packets(int fd, const uint8_t *data, size_t size, size_t pipe_size)
{
    constexpr size_t AT_ONCE = PIPE_BUF / TS_PACKET_SIZE * TS_PACKET_SIZE;
    if (pipe_size == 0) return write_all(fd, data, size);
    while (size > 0) {
        int unread = 0;
        const bool f_empty = ioctl(fd, FIONREAD, &unread) == 0 && unread == 0;
        const size_t part = std::min(size, std::max(f_empty ? pipe_size : 0, AT_ONCE));
        const int error = write_all(fd, data, part);
        if (error != 0) return error;
        data += part;
        size -= part;
    }
    return 0;
}

// Whole packets that an empty pipe takes; 0 if it isn't a pipe.
size_t size_of_pipe(int fd)
{
    struct stat status = {};
    if (fstat(fd, &status) != 0 || !S_ISFIFO(status.st_mode)) return 0;
    const int size = fcntl(fd, F_GETPIPE_SZ);
    return std::max<size_t>(size > 0 ? static_cast<size_t>(size) : 0, PIPE_BUF) / TS_PACKET_SIZE *
           TS_PACKET_SIZE;
}

}  // namespace

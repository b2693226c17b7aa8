// Where the library's packets go: gathered in a buffer, then written to a descriptor.

#ifndef HOST_IO_SINK_H
#define HOST_IO_SINK_H

#include <cstddef>
#include <memory>

#include "libgolt.h"

class Sink : public PELA::AVMuxer::Listener {
public:
    /// fd stays the caller's.
    explicit Sink(int fd);

    int write(uint8_t *buffer, int size) override;
    /// Writes what is still in the buffer.
    void flush();

    /// Bytes taken from the library.
    uint64_t bytes() const { return m_flushed + m_held; }
    /// The errno value of the first write that failed, 0 when none has. After it everything is
    /// dropped: the library goes on, since it doesn't look at the result of a write.
    int error() const { return m_error; }

private:
    [[gnu::noinline]] int write_other(const uint8_t *data, int size);
    void write_out(const uint8_t *data, size_t size);

    int m_fd;
    size_t m_pipe_size;                   // 0 where it is no pipe
    std::unique_ptr<uint8_t[]> m_buffer;  // once it is needed
    size_t m_held = 0;                    // bytes in the buffer
    uint64_t m_flushed = 0;
    int m_error = 0;
};

#endif

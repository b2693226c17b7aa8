#include "descriptor.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include "interrupt.h"
#include "library_log.h"

namespace {

bool wait_until_writable(int fd);

}  // namespace

int Descriptor::close()
{
    if (m_fd < 0) return 0;
    // The descriptor is gone even when a signal interrupts the call.
    const int result = ::close(std::exchange(m_fd, -1));
    return result == 0 || errno == EINTR ? 0 : errno;
}

Descriptor take_standard_output(bool f_shown)
{
    Descriptor own(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));

    // Standard descriptors that the caller has closed are occupied: otherwise the next file opened
    // gets their numbers, and diagnostics land in it.
    int null = -1;
    do {
        null = open("/dev/null", O_RDWR);
    } while (null >= 0 && null <= STDERR_FILENO);
    dup2(!f_shown && null >= 0 ? null : STDERR_FILENO, STDOUT_FILENO);
    if (null >= 0) close(null);

    take_library_messages(f_shown);
    return own;
}

int write_all(int fd, const void *data, size_t size)
{
    const char *at = static_cast<const char *>(data);
    while (size > 0) {
        const bool f_stopping = stop_signal() != 0;
        if (f_stopping && !wait_until_writable(fd)) return EINTR;
        // A descriptor that is writable takes so many bytes without a wait.
        const size_t part = f_stopping ? std::min<size_t>(size, PIPE_BUF) : size;
        const ssize_t count = ::write(fd, at, part);
        if (count > 0) {
            at += count;
            size -= static_cast<size_t>(count);
        } else if (count == 0) {
            return EIO;
        } else if (errno == EAGAIN) {
            // Another process that shares the pipe may have made it non-blocking.
            if (!wait_until_writable(fd)) return EINTR;
        } else if (errno != EINTR) {
            return errno;
        }
    }
    return 0;
}

namespace {

// False when a signal to stop has come, and still nobody takes anything.
bool wait_until_writable(int fd)
{
    constexpr int PATIENCE_MS = 1000;
    for (;;) {
        pollfd ready = {fd, POLLOUT, 0};
        const int count = poll(&ready, 1, stop_signal() != 0 ? PATIENCE_MS : -1);
        if (count != 0 && (count > 0 || errno != EINTR)) return true;  // the write finds errors
        if (count == 0) return false;
    }
}

}  // namespace

#include "descriptor.h"

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

int Descriptor::close()
{
    if (m_fd < 0) return 0;
    // The descriptor is gone even when a signal interrupts the call.
    const int result = ::close(std::exchange(m_fd, -1));
    return result == 0 || errno == EINTR ? 0 : errno;
}

Descriptor take_standard_output(bool f_dropped)
{
    Descriptor own(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));

    // Standard descriptors that the caller has closed are occupied: otherwise the next file opened
    // gets their numbers, and diagnostics land in it.
    int null = -1;
    do {
        null = open("/dev/null", O_RDWR);
    } while (null >= 0 && null <= STDERR_FILENO);
    dup2(f_dropped && null >= 0 ? null : STDERR_FILENO, STDOUT_FILENO);
    if (null >= 0) close(null);

    // In lumps, also on a terminal: a reader that jumps about in its file has much to tell.
    setvbuf(stdout, nullptr, _IOFBF, BUFSIZ);
    return own;
}

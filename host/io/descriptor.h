// Descriptors with an owner, and the standard output that the program keeps for itself.

#ifndef HOST_IO_DESCRIPTOR_H
#define HOST_IO_DESCRIPTOR_H

#include <cstddef>
#include <utility>

class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd)
        : m_fd(fd)
    {
    }
    Descriptor(Descriptor &&other) noexcept
        : m_fd(std::exchange(other.m_fd, -1))
    {
    }
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    ~Descriptor() { close(); }

    bool is_open() const { return m_fd >= 0; }
    int get() const { return m_fd; }
    /// Closes it, if it is open. Returns 0 or an errno value: some file systems report only here that
    /// a write has failed.
    int close();

private:
    int m_fd = -1;
};

/// Takes the standard output away from stdio and returns it; not open when there is none. What is
/// printed there from now on, the library's diagnostics that is, goes to the standard error, or
/// nowhere without f_shown. Call it before anything is printed and before a file is opened.
Descriptor take_standard_output(bool f_shown);

/// Writes all of it, also to a descriptor that doesn't block. Returns 0 or an errno value; EINTR
/// when a signal has come to stop and nobody takes the bytes.
int write_all(int fd, const void *data, size_t size);

#endif

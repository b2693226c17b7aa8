#include "source.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

#include <fmt/format.h>

#include "message.h"

namespace {

Descriptor open_file(const std::string &path)
{
    if (path == "-") throw NotDone("standard input", "can't be sought in; name a file");
    // A pipe without a writer would block here; to a regular file O_NONBLOCK means nothing.
    return Descriptor(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
}

}  // namespace

FileSource::FileSource(const std::string &path)
    : FileSource(path, open_file(path))
{
}

FileSource::FileSource(const std::string &path, Descriptor file)
    : Source(path)
    , m_file(std::move(file))
{
    if (!m_file.is_open() || fstat(m_file.get(), &m_status) != 0)
        throw NotDone(path, error_text(errno));
    if (S_ISDIR(m_status.st_mode)) throw NotDone(path, error_text(EISDIR));
    if (!S_ISREG(m_status.st_mode)) throw NotDone(path, "not a regular file");
    if (m_status.st_size == 0) throw NotDone(path, "the file is empty");
    posix_fadvise(m_file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
}

int FileSource::read(uint8_t *buffer, int size)
{
    if (size <= 0) return 0;
    ssize_t count = 0;
    do {
        count = pread(m_file.get(), buffer, static_cast<size_t>(size), m_position);
    } while (count < 0 && errno == EINTR);

    if (count < 0 && m_fault.empty())
        m_fault = fmt::format("{} at offset {}", error_text(errno), m_position);
    if (count == 0 && m_position < m_status.st_size && m_fault.empty())
        m_fault = "the file became shorter while it was read";
    if (count <= 0) return 0;
    m_position += count;
    return static_cast<int>(count);
}

int64_t FileSource::seek(int64_t offset, int whence)
{
    if (offset < 0 || whence != SEEK_SET) return -1;
    m_position = offset;
    return 0;
}

#include "output.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include "interrupt.h"
#include "message.h"

namespace {

bool is_name_of(const std::string &path, int fd);
std::string behind_links(const std::string &path);
bool is_locked(int fd);
int rename_to_new(const std::string &from, const std::string &to);

}  // namespace

bool leads_to_standard_output(const std::string &path)
{
    struct stat status = {}, standard = {};
    if (fstat(STDOUT_FILENO, &standard) == 0)
        return stat(path.c_str(), &status) == 0 && is_same_file(status, standard);
    return path == "/dev/stdout" || path == "/dev/fd/1" || path == "/proc/self/fd/1";
}

bool is_same_file(const struct stat &one, const struct stat &other)
{
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

Output::Output(const std::string &path, Descriptor standard_output, const struct stat &input,
               bool f_force)
    : m_name(path)
    , m_f_force(f_force)
{
    if (path == "-") {
        m_name = "standard output";
        if (!standard_output.is_open()) throw NotWritten(m_name, error_text(EBADF));
        m_file = std::move(standard_output);
    } else {
        open_file(path, input);
    }
    struct stat status = {};
    if (fstat(m_file.get(), &status) != 0) throw NotWritten(m_name, error_text(errno));
    if (is_same_file(status, input)) throw NotWritten(m_name, "is the input itself");
}

Output::~Output()
{
    remove_at_second_signal(nullptr);
    if (!m_part.empty() && is_name_of(m_part, m_file.get())) unlink(m_part.c_str());
}

void Output::complete()
{
    if (!m_part.empty()) name_file();
    const int error = m_file.close();
    if (error != 0) throw NotWritten(m_name, error_text(error));
}

// The lock on the file holds until it has its name.
void Output::name_file()
{
    // Otherwise a power cut may leave an empty file under the name.
    if (fsync(m_file.get()) != 0) throw NotWritten(m_name, error_text(errno));
    if (!is_name_of(m_part, m_file.get()))
        throw NotWritten(m_part, "was removed or replaced while it was written");
    const int error = m_f_force ? (std::rename(m_part.c_str(), m_target.c_str()) == 0 ? 0 : errno)
                                : rename_to_new(m_part, m_target);
    if (error != 0 && error != EEXIST) throw NotWritten(m_name, error_text(error));
    remove_at_second_signal(nullptr);
    const std::string part = std::exchange(m_part, "");
    if (error == EEXIST)
        throw NotWritten(m_name, "has appeared meanwhile; the stream is left in " + part);
}

void Output::open_file(const std::string &path, const struct stat &input)
{
    struct stat status = {};
    const bool f_exists = stat(path.c_str(), &status) == 0;
    if (!f_exists && errno != ENOENT) throw NotWritten(path, error_text(errno));
    if (f_exists && is_same_file(status, input)) throw NotWritten(path, "is the input itself");
    if (f_exists && S_ISDIR(status.st_mode)) throw NotWritten(path, error_text(EISDIR));
    if (f_exists && !S_ISREG(status.st_mode)) {
        // Nothing in a pipe or device can be overwritten, and none must be replaced by a file.
        m_file = Descriptor(open(path.c_str(), O_WRONLY | O_CLOEXEC));
        if (!m_file.is_open()) throw NotWritten(path, error_text(errno));
        return;
    }
    if (f_exists && !m_f_force) throw NotWritten(path, "exists already; --force replaces it");

    m_target = behind_links(path);
    open_part(input, f_exists ? 0600 : 0666);
    if (f_exists) {
        // Users who could read the old file can read the new one. Another owner takes the rights to
        // give files away; a group only that this user is in it.
        constexpr auto SAME_OWNER = static_cast<uid_t>(-1);
        if (fchown(m_file.get(), status.st_uid, status.st_gid) != 0 &&
            fchown(m_file.get(), SAME_OWNER, status.st_gid) != 0)
            errno = 0;
        fchmod(m_file.get(), status.st_mode & 0777);
    }
}

// A file under its unfinished name has a lock as long as it is being written. Beside such a one
// another run takes a name of its own, and the last to end gives the file its name. Who has the
// lock of the file that a name leads to, and nobody else, removes that name.
void Output::open_part(const struct stat &input, unsigned mode)
{
    constexpr int MOST_TRIES = 8;  // others may make files at the same time
    std::string part = m_target + ".part";
    for (int i = 0; i < MOST_TRIES; ++i) {
        m_file = Descriptor(
            open(part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, static_cast<mode_t>(mode)));
        if (m_file.is_open()) {
            // Another run may have had it before, and taken it for one that was left.
            while (flock(m_file.get(), LOCK_EX) != 0 && errno == EINTR) {
            }
            if (!is_name_of(part, m_file.get())) continue;
            m_part = part;
            return remove_at_second_signal(m_part.c_str());
        }
        if (errno != EEXIST) throw NotWritten(m_name, error_text(errno));
        const Descriptor old(open(part.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        struct stat status = {};
        if (old.is_open() && fstat(old.get(), &status) == 0 && is_same_file(status, input))
            throw NotWritten(part, "is the input itself");
        const bool f_written = is_locked(old.get());
        if (!m_f_force)
            throw NotWritten(part, f_written ? "is being written by another run"
                                             : "was left by a run that was stopped; --force "
                                               "replaces it");
        if (f_written)
            part = m_target + '.' + std::to_string(getpid()) + ".part";
        else if (old.is_open() && !is_name_of(part, old.get()))
            continue;
        else if (unlink(part.c_str()) != 0 && errno != ENOENT)
            throw NotWritten(part, error_text(errno));
    }
    throw NotWritten(part, error_text(EEXIST));
}

namespace {

// Whether the name leads, not by a link, to the file that is open.
bool is_name_of(const std::string &path, int fd)
{
    struct stat named = {}, file = {};
    return lstat(path.c_str(), &named) == 0 && fstat(fd, &file) == 0 && is_same_file(named, file);
}

// Where a link leads, also one that leads to nothing yet: it goes on pointing at the new file.
std::string behind_links(const std::string &path)
{
    constexpr int MOST_LINKS = 40;  // as the system has it
    std::error_code error;
    const std::filesystem::path target = std::filesystem::canonical(path, error);
    if (!error) return target.string();
    std::filesystem::path at = path;
    for (int i = 0; i < MOST_LINKS && std::filesystem::is_symlink(at, error); ++i)
        at = at.parent_path() / std::filesystem::read_symlink(at, error);
    return at.string();
}

bool is_locked(int fd)
{
    return fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

// Returns 0 or an errno value, EEXIST where there is a file of that name.
int rename_to_new(const std::string &from, const std::string &to)
{
    if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
    if (errno != EINVAL && errno != ENOSYS) return errno;
    // A file system that can't do that: by a second name, or, where there is none, with a look
    // before.
    if (link(from.c_str(), to.c_str()) == 0) return unlink(from.c_str()) == 0 ? 0 : errno;
    struct stat status = {};
    if (errno == EEXIST || lstat(to.c_str(), &status) == 0) return EEXIST;
    return std::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

}  // namespace

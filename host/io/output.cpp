#include "output.h"

#include <cerrno>
#include <cstdio>
#include <filesystem>

#include <fcntl.h>
#include <unistd.h>

#include "interrupt.h"
#include "message.h"

namespace {

bool is_same_file(const struct stat &one, const struct stat &other);
std::string behind_links(const std::string &path);

}  // namespace

Output::Output(const std::string &path, Descriptor standard_output, const struct stat &input,
               bool f_force)
    : m_name(path)
{
    // By its name in the file system the standard output would be what stdio prints to by now.
    if (path == "-" || path == "/dev/stdout") {
        m_name = "standard output";
        if (!standard_output.is_open()) throw NotDone(m_name, error_text(EBADF));
        m_file = std::move(standard_output);
    } else {
        open_file(path, input, f_force);
    }
    struct stat status = {};
    if (fstat(m_file.get(), &status) != 0) throw NotDone(m_name, error_text(errno));
    if (is_same_file(status, input)) throw NotDone(m_name, "is the input itself");
}

Output::~Output()
{
    remove_at_second_signal(nullptr);
    if (!m_part.empty()) unlink(m_part.c_str());
}

void Output::complete()
{
    const int error = m_file.close();
    if (error != 0) throw NotDone(m_name, error_text(error));
    if (m_part.empty()) return;
    if (std::rename(m_part.c_str(), m_target.c_str()) != 0)
        throw NotDone(m_name, error_text(errno));
    remove_at_second_signal(nullptr);
    m_part.clear();
}

void Output::open_file(const std::string &path, const struct stat &input, bool f_force)
{
    struct stat status = {};
    const bool f_exists = stat(path.c_str(), &status) == 0;
    if (f_exists && is_same_file(status, input)) throw NotDone(path, "is the input itself");
    if (f_exists && S_ISDIR(status.st_mode)) throw NotDone(path, error_text(EISDIR));
    if (f_exists && !S_ISREG(status.st_mode)) {
        // Nothing in a pipe or device can be overwritten, and none must be replaced by a file.
        m_file = Descriptor(open(path.c_str(), O_WRONLY | O_CLOEXEC));
        if (!m_file.is_open()) throw NotDone(path, error_text(errno));
        return;
    }
    if (f_exists && !f_force) throw NotDone(path, "exists already; --force replaces it");

    m_target = f_exists ? behind_links(path) : path;
    const std::string part = m_target + ".part";
    if (stat(part.c_str(), &status) == 0) {
        if (is_same_file(status, input)) throw NotDone(part, "is the input itself");
        if (!f_force)
            throw NotDone(part, "is being written, or is left of a run that was stopped; "
                                "--force replaces it");
        unlink(part.c_str());
    }
    m_file = Descriptor(open(part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (!m_file.is_open()) throw NotDone(path, error_text(errno));
    m_part = part;
    remove_at_second_signal(m_part.c_str());
}

namespace {

bool is_same_file(const struct stat &one, const struct stat &other)
{
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// A link to the old file goes on pointing at the new one.
std::string behind_links(const std::string &path)
{
    std::error_code error;
    const std::filesystem::path target = std::filesystem::canonical(path, error);
    return error ? path : target.string();
}

}  // namespace

#include "printer.h"

#include <algorithm>
#include <cerrno>

#include <unistd.h>

#include "descriptor.h"
#include "message.h"
#include "text.h"

namespace {

constexpr size_t BUFFER_SIZE = 16 * 1024;

}  // namespace

Printer::Printer(int fd, const std::string &name)
    : m_fd(fd)
    , m_name(name)
    , m_f_terminal(isatty(fd) != 0)
{
}

void Printer::print(const std::string &text)
{
    // Most of it is letters of ASCII alone.
    const bool f_plain = std::all_of(text.begin(), text.end(), [](char letter) {
        return (letter >= ' ' && letter < 0x7F) || letter == '\n';
    });
    m_text += f_plain ? text : printable(text, true);
    if (m_f_terminal || m_text.size() >= BUFFER_SIZE) flush();
}

void Printer::flush()
{
    const int error = m_f_closed ? 0 : write_all(m_fd, m_text.data(), m_text.size());
    m_text.clear();
    if (error == 0) return;
    m_f_closed = true;
    if (error != EPIPE && error != EINTR) throw NotWritten(m_name, error_text(error));
}

#include "printer.h"

#include <cerrno>

#include <unistd.h>

#include "interrupt.h"
#include "message.h"

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
    m_text += text;
    if (m_f_terminal || m_text.size() >= BUFFER_SIZE) flush();
}

void Printer::flush()
{
    for (size_t done = 0; done < m_text.size() && !m_f_closed;) {
        const ssize_t count = ::write(m_fd, m_text.data() + done, m_text.size() - done);
        if (count > 0) done += static_cast<size_t>(count);
        if (count > 0 || (errno == EINTR && stop_signal() == 0)) continue;
        m_f_closed = true;
        if (errno == EPIPE || errno == EINTR) break;
        m_text.clear();
        throw NotDone(m_name, error_text(errno));
    }
    m_text.clear();
}

// The results of a subcommand as text.

#ifndef HOST_IO_PRINTER_H
#define HOST_IO_PRINTER_H

#include <string>

class Printer {
public:
    /// fd stays the caller's. name: of it, in messages.
    Printer(int fd, const std::string &name);

    /// Gathers text, escaped where a terminal would take it for a command; there it appears at once. Throws NotDone when it can't be written. A
    /// reader that goes away is no failure: it has had all that it wanted.
    void print(const std::string &text);
    void flush();
    /// The reader has gone away.
    bool is_closed() const { return m_f_closed; }

private:
    int m_fd;
    std::string m_name;
    bool m_f_terminal;
    bool m_f_closed = false;
    std::string m_text;
};

#endif

// Text that comes from outside, such as names of files and words of servers, made fit to be shown.

#ifndef HOST_IO_TEXT_H
#define HOST_IO_TEXT_H

#include <cstdint>
#include <string>

/// The text for a terminal: what a terminal could take for a command, bytes that are no UTF-8, and
/// letters that turn the direction of writing come out as \x1B or \u202E. f_lines: line feeds and
/// tabs stay.
std::string printable(const std::string &text, bool f_lines = false);

/// The text for XML 1.0: printable, and without the letters that mean something there.
std::string xml_text(const std::string &text);

/// "1 frame", "2 frames"
std::string counted(uint64_t count, const std::string &thing);

/// Whether the path is a URL that the program reads.
bool is_url(const std::string &path);

/// The text with *** in place of each password in a URL.
std::string without_passwords(const std::string &text);

#endif

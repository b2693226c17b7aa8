// Which format a file is in: by its first bytes, or by its name.

#ifndef HOST_IO_RECOGNISE_H
#define HOST_IO_RECOGNISE_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "outline.h"

struct Format {
    const char *name;      ///< as the library calls it
    uint32_t record_size;  ///< bytes of the file for each frame; 0 where that differs
    bool f_times;          ///< frames have times, and the file can be sought in by time
    const char *title;     ///< for people
    Container container;

    /// A file of packets that the library doesn't read.
    bool is_plain_stream() const
    {
        return container == Container::TRANSPORT_STREAM && record_size != 192;
    }
};

/// Bytes of a file that have to be seen at most.
constexpr size_t RECOGNISE_SIZE = 389;

/// head: the first size bytes of a file. Null when they are of no format known here.
const Format *format_of_bytes(const uint8_t *head, size_t size);

/// Why a file isn't read whose bytes are of another format, which it names, such as AVI. Empty when that
/// isn't known either.
std::string why_other_format(const uint8_t *head, size_t size);

/// name: one of the library's names for a format, or a file name's extension without its dot. Null
/// when it isn't known here; the library may still know it.
const Format *format_of_name(const std::string &name);

#endif

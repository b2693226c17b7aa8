// The input file as the library reads it. What goes wrong meanwhile is kept for the report: the
// library can't pass it on.

#ifndef HOST_SOURCE_H
#define HOST_SOURCE_H

#include <string>

#include <sys/stat.h>

#include "descriptor.h"
#include "golt.h"

class Source : public PELA::AVDemuxer::Listener {
public:
    /// Opens a regular file. Throws NotDone.
    explicit Source(const std::string &path);

    /// One pread straight into buffer. An error reads as the end: a negative result would make the
    /// library ask again, and a broken disk takes seconds for each answer.
    int read(uint8_t *buffer, int size) override;
    int64_t seek(int64_t offset, int whence) override;

    const std::string &path() const { return m_path; }
    const struct stat &status() const { return m_status; }
    uint64_t size() const { return static_cast<uint64_t>(m_status.st_size); }
    uint64_t position() const { return static_cast<uint64_t>(m_position); }
    /// Bytes at the end of the file that no read has reached.
    uint64_t unread() const;
    /// What was wrong with the file while it was read; empty when nothing was.
    const std::string &fault() const { return m_fault; }

private:
    std::string m_path;
    Descriptor m_file;
    struct stat m_status = {};
    int64_t m_position = 0;
    int64_t m_furthest = 0;  // end of the bytes delivered
    std::string m_fault;
};

#endif

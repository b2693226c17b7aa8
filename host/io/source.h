// The input as the library reads it. What goes wrong meanwhile is kept for the report: the library
// can't pass it on.

#ifndef HOST_IO_SOURCE_H
#define HOST_IO_SOURCE_H

#include <string>

#include <sys/stat.h>

#include "descriptor.h"
#include "libgolt.h"

class Source : public PELA::AVDemuxer::Listener {
public:
    /// Its name in messages and documents: a URL without its password.
    const std::string &path() const { return m_path; }
    /// Of the file that must not be written to; all 0 where it is none of this machine.
    const struct stat &status() const { return m_status; }
    /// Bytes; 0 where that isn't known.
    virtual uint64_t size() const = 0;
    uint64_t position() const { return static_cast<uint64_t>(m_position); }
    /// Whether a read at any place costs little, a request at most.
    virtual bool is_seekable() const { return true; }
    /// What a server says to tell the file's versions apart; empty for files of this machine, whose
    /// status does.
    virtual std::string version() const { return ""; }
    /// What was wrong with the input while it was read; empty when nothing was.
    const std::string &fault() const { return m_fault; }
    /// Why the input may be incomplete; empty if it is known to be complete.
    const std::string &doubt() const { return m_doubt; }

protected:
    explicit Source(const std::string &path)
        : m_path(path)
    {
    }
    std::string m_path;
    struct stat m_status = {};
    int64_t m_position = 0;
    std::string m_fault;
    std::string m_doubt;
};

class FileSource : public Source {
public:
    /// Opens a regular file. Throws NotDone.
    explicit FileSource(const std::string &path);
    /// file: open for reading. path: for messages. Throws NotDone.
    FileSource(const std::string &path, Descriptor file);

    /// One pread straight into buffer. An error reads as the end: a negative result would make the
    /// library ask again, and a broken disk takes seconds for each answer.
    int read(uint8_t *buffer, int size) override;
    int64_t seek(int64_t offset, int whence) override;
    uint64_t size() const override { return static_cast<uint64_t>(m_status.st_size); }

private:
    Descriptor m_file;
};

#endif

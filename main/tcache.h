// TCache, the object through which every demuxer reads its source: a position, a read and a seek.

#ifndef GOLT_TCACHE_H
#define GOLT_TCACHE_H

#include <cstdint>

#include "pela/PELARemuxerDriver.h"

/// False puts every TCache into pass-through mode, in which reads and seeks go straight to the
/// host.
extern bool g_TCacheEnabled;

/// The way to the host's Listener, which it doesn't own.
class cachebuf_list_t {
public:
    typedef PELA::AVDemuxer::Listener Listener;

    cachebuf_list_t(Listener *listener, uint64_t maxFilesize);

    /// Number of buffers that could be had.
    int numbuffers() const;
    /// The Listener's read; 0 without a Listener.
    int pt_read(uint8_t *buf, int size);
    /// The Listener's seek from the start of the file; -1 without a Listener.
    int64_t pt_seek(int64_t offset);

private:
    Listener *m_listener;
};

class TCache {
public:
    typedef PELA::AVDemuxer::Listener Listener;

    /// listener: stays the host's and outlives the cache. maxFilesize: bytes, 0 where unknown.
    TCache(Listener *listener, uint64_t maxFilesize);
    ~TCache();
    TCache(const TCache &) = delete;
    TCache &operator=(const TCache &) = delete;

    /// Places up to size bytes at buf and returns their number: less than size when the host has no
    /// more, 0 when nothing could be had, never negative. The position moves on by that number.
    int read(uint8_t *buf, int size);
    /// Moves to offset bytes from the start. 0, or -1 where the host refuses; the position moves
    /// all the same.
    int64_t seek(int64_t offset);
    void printState() const {}

private:
    cachebuf_list_t *m_cacheList;
    uint64_t m_outOffset;
};

#endif

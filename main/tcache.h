// TCache, the object through which every demuxer reads its source: a position, a read and a seek.
//
// It keeps 64 KiB blocks of the source in 16 buffers, reads ahead, and waits for a slow host within
// bounds, so that the many small reads of the parsers cost little. The layers below it are in
// this header for the tests: cachebuf_t holds one block, cbuflist_t is a list of them, and
// cachebuf_list_t decides which buffer holds which block and talks to the host.

#ifndef GOLT_TCACHE_H
#define GOLT_TCACHE_H

#include <cstdint>

#include "pela/PELARemuxerDriver.h"

/// False puts every TCache into pass-through mode, in which reads and seeks go directly to the
/// host. It becomes false when there is no memory for the buffers of a TCache, and stays so as long
/// as the library is loaded. A demuxer that is open then has lost its place until its next seek:
/// its host is where the read-ahead ended.
extern bool g_TCacheEnabled;

/// The leading bytes of one block of the source.
class cachebuf_t {
public:
    typedef PELA::AVDemuxer::Listener Listener;

    static constexpr uint32_t BLOCK_SIZE = 0x10000;  ///< bytes; blocks start at its multiples

    /// cachesize: capacity in bytes; 0 makes a buffer without memory, for the head of a list.
    explicit cachebuf_t(uint32_t cachesize);
    ~cachebuf_t();
    cachebuf_t(const cachebuf_t &) = delete;
    cachebuf_t &operator=(const cachebuf_t &) = delete;

    /// Start of the block that holds offset.
    static uint64_t startOffset(uint64_t offset) { return offset & ~uint64_t{BLOCK_SIZE - 1}; }

    /// Gives the buffer to the block that holds off, without any bytes of it.
    void setup(uint64_t off);
    /// Copies up to size bytes from offset off on and returns their number, 0 where it holds none.
    int read(uint64_t off, uint8_t *buf, int size);
    /// Number of bytes held from offset off on that can go out before all are consumed, and
    /// in *pb_at where they are. Who hands them out has to count them.
    uint32_t unconsumed(uint64_t off, const uint8_t **pb_at) const;
    void countOut(uint32_t nbytes) { m_used += nbytes; }
    /// Reads from the host until the bytes up to tgtOffset or the end of the block are there, and
    /// returns how many bytes came. Without fCompleteFill the host is asked once; with it again and
    /// again, with sleeps of 50 ms in total, until it says 0. Every time it is offered all the room
    /// that is left.
    uint32_t fill(uint64_t tgtOffset, Listener *listener, bool fCompleteFill);
    /// Whether a fill up to tgtOffset would ask the host.
    bool needsFill(uint64_t tgtOffset) const { return m_len < minFill(tgtOffset) && isValid(); }
    /// Whether it is for a block that it doesn't hold whole. The distance to the target that lies
    /// behind all others is 65,535 in a block that ends at a multiple of 4 GiB: the last byte of
    /// such a block isn't missed.
    bool hasRoom() const { return needsFill(UINT64_MAX); }
    /// Block, bytes held and bytes handed out as a text; the result is that of snprintf.
    int getDbgInfo(char *str, int maxsize) const;

    uint32_t len() const { return m_len; }
    uint64_t off() const { return m_off; }
    void invalidate();
    bool isValid() const { return m_off != NO_BLOCK; }
    /// Whether it holds bytes of the block of off, be it the byte at off or not.
    bool incache(uint64_t off) const { return m_len != 0 && m_off == startOffset(off); }
    /// Whether as many bytes were handed out as it holds.
    bool consumed() const { return m_used >= m_len && isValid(); }

protected:
    uint8_t *m_buf;  // in sanitizer builds poisoned from m_len on
    uint32_t m_siz;

private:
    static constexpr uint32_t NO_BLOCK = 255;

    // Bytes that a fill up to tgtOffset has to end with. The distance is taken in 32 bits: a target
    // before the block, as after a known end of the file, asks for more than there is.
    uint32_t minFill(uint64_t tgtOffset) const
    {
        const auto wanted = static_cast<uint32_t>(tgtOffset - m_off);
        return wanted < m_siz ? wanted : m_siz;
    }
    uint32_t fillWaiting(uint32_t min_len, Listener *listener);
    int readHost(Listener *listener);
    void setLength(uint32_t len);

    uint32_t m_len;   // at most m_siz; the bytes are those of the file from m_off on
    uint64_t m_off;   // start of the block, or NO_BLOCK; m_len is then 0
    uint32_t m_used;  // sum of the bytes handed out since setup: a range read twice counts twice

public:
    /// What off() is where the buffer is for no block: 255, at which none starts.
    const uint32_t INVALID_OFFSET;
};

/// A buffer as an item of a list, and, with a size of 0, the head of a list. The operations whose
/// names begin with list_ are called on a head; a node is in one list at most.
class cbuflist_t : public cachebuf_t {
public:
    explicit cbuflist_t(uint32_t bufsize);

    /// Whether the node got its memory.
    bool isAvail() const { return m_buf != nullptr; }
    /// Takes this item out from between its neighbours. The head's count and tail stay.
    cbuflist_t *detach();
    /// Puts pItem, unless null, after this node. The head's count and tail stay.
    cbuflist_t *insertAfter(cbuflist_t *pItem);

    /// Appends numItems new items, without those that get no memory.
    void list_create(int numItems, uint32_t bufsize);
    /// Destroys the items. After that the head can only be destroyed.
    void list_destroy();
    /// Takes out pItem, or with null the first item, and returns it; null when there is none.
    cbuflist_t *list_detach(cbuflist_t *pItem);
    /// Puts pItem, unless null, after prevItem, or with null at the front, and returns pItem.
    cbuflist_t *list_insertAfter(cbuflist_t *pItem, cbuflist_t *prevItem);
    /// The first item that holds bytes of the block of offset, or null.
    cbuflist_t *list_search(uint64_t offset) const;
    /// Writes the list as a text of at most maxsize bytes, including its NUL; returns their number.
    int list_getDbgInfo(char *str, int maxsize, bool fVerbose) const;

    int count() const { return m_count; }
    cbuflist_t *front() const { return m_next; }
    cbuflist_t *tail() const { return m_tail; }

private:
    cbuflist_t *m_next;  // in a head: the first item
    cbuflist_t *m_prev;  // the head, for the first item; null in a head
    cbuflist_t *m_tail;  // in a head: the last item, null when the list is empty
    int m_count;         // in a head: number of items
};

/// All the buffers of one cache, and the host behind them. Every buffer is either in use or free.
/// Those handed out and taken back are its own, and so items of its lists.
/// All but numbuffers, pt_read and pt_seek need at least two buffers.
class cachebuf_list_t {
public:
    typedef PELA::AVDemuxer::Listener Listener;

    /// listener: stays the host's and outlives the cache. maxFilesize: bytes, 0 where unknown.
    cachebuf_list_t(Listener *listener, uint64_t maxFilesize);
    ~cachebuf_list_t();
    cachebuf_list_t(const cachebuf_list_t &) = delete;
    cachebuf_list_t &operator=(const cachebuf_list_t &) = delete;

    /// The buffer for the block of offset, at the front of those in use. The one that holds bytes
    /// of it, or else an empty one, for which the last in use is given up when none is free.
    cachebuf_t *search_setup(uint64_t offset);
    /// Number of bytes from offset on whose reading changes nothing but the count of the first
    /// buffer in use, and in *pb_at where they are: the host isn't asked, and no buffer becomes
    /// free.
    uint32_t quietBytes(uint64_t offset, const uint8_t **pb_at) const;
    /// Counts quiet bytes that were handed out.
    void countQuiet(uint32_t nbytes) { m_cbuflist->front()->countOut(nbytes); }
    /// Gives back a buffer that is in use; its bytes are gone.
    void release(cachebuf_t *pCache);
    /// Brings pCache up to tgtOffset, as cachebuf_t::fill does, with the host sent to where its
    /// bytes end. Returns the number of bytes added, 0 also at the end of the file.
    int fillCache(cachebuf_t *pCache, uint64_t tgtOffset, bool fCompleteFill);
    /// Reads ahead, without waiting: one round, and minFill more, of one read of the host each. It
    /// ends when the host has nothing or all the buffers are full.
    void fillBuffers(int minFill)
    {
        while (canReadAhead() && readAhead() > 0 && minFill > 0)
            --minFill;
    }
    /// Prepares for reads at offset. A short way forward is read rather than sought, as a seek may
    /// cost the host a new connection. It doesn't fail.
    void seek(uint64_t offset);
    void printDbgDump(bool) const {}

    /// Number of buffers that could be had.
    int numbuffers() const;
    /// The Listener's read; 0 without a Listener.
    int pt_read(uint8_t *buf, int size);
    /// The Listener's seek from the start of the file; -1 without a Listener.
    int64_t pt_seek(int64_t offset);

private:
    cachebuf_t *reuseBuffer(uint64_t offset);
    bool canReadAhead() const;
    int readAhead();
    cbuflist_t *appendBuffer();
    int fillFromHost(cachebuf_t *pCache, uint64_t tgtOffset, bool fCompleteFill);
    void seekToEndOf(const cachebuf_t &cache);
    void noteFill(uint32_t nFilled);
    void setEof(const char *message);
    void readThrough(uint64_t destOffset);
    void clearEof();

    Listener *m_listener;
    cbuflist_t *m_cbuflist;  // in use: the last requested one first, the read-ahead at the back
    cbuflist_t *m_freelist;
    uint64_t m_maxFilesize;        // 0 where unknown
    uint64_t m_inpOffset;          // where the host's next read is believed to deliver from
    cbuflist_t *m_currFillBuffer;  // filled last; it may be free or another block's by now

public:
    /// 8, a minFill of fillBuffers for a caller with time to spare. Reads ask for one round only.
    const int minFillBuffers;

private:
    bool m_fEof;        // fills beyond m_inpOffset are refused
    int m_eof_retries;  // fills in a row that brought nothing, the size being unknown
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
    /// more or doesn't deliver in time, 0 when nothing could be had, never negative. The position
    /// moves on by that number, and a later call may get what this one didn't.
    int read(uint8_t *buf, int size);
    /// Moves to offset bytes from the start. 0; in pass-through mode -1 where the host refuses. The
    /// position moves all the same.
    int64_t seek(int64_t offset);
    void printState() const {}

private:
    int readOn(uint8_t *buf, int size);
    int readCached(uint8_t *buf, int size);
    int readPassThrough(uint8_t *buf, int size);
    void closeRun();

    cachebuf_list_t *m_cacheList;  // null only in pass-through mode
    uint64_t m_outOffset;          // of the next byte that the demuxer gets
    // A run of quiet bytes, out of which nearly all reads are served. What was taken of it is
    // counted when it is closed.
    const uint8_t *m_run;  // the next of them
    uint32_t m_runLeft;
    uint64_t m_runStart;  // offset of its first byte; m_outOffset where nothing was taken
};

#endif

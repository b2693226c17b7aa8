#include "tcache.h"

#include <algorithm>
#include <cstdio>
#include <new>

#include "tcache_i.h"
#include "tcounter.h"

bool g_TCacheEnabled = true;

// Not used by the library: for measuring the reads.
static timecounter g_tcReads("tcRead", 500);

namespace {

constexpr int NUM_BUFFERS = 16;
constexpr int MIN_BUFFERS = 2;  // one to read from and one to fill
constexpr uint32_t READ_AHEAD_STEP = 0x8000;
constexpr uint64_t READ_THROUGH_WINDOW = 0x40000;  // from the start of the host's block
constexpr int MAX_EOF_RETRIES = 9;

}  // namespace

// cachebuf_list_t

cachebuf_list_t::cachebuf_list_t(Listener *listener, uint64_t maxFilesize)
    : m_listener(listener)
    , m_cbuflist(new (std::nothrow) cbuflist_t(0))
    , m_freelist(new (std::nothrow) cbuflist_t(0))
    , m_maxFilesize(maxFilesize)
    , m_inpOffset(0)
    , m_currFillBuffer(nullptr)
    , minFillBuffers(8)
    , m_fEof(false)
    , m_eof_retries(0)
{
    // Buffers are useful only if both heads exist.
    if (m_cbuflist != nullptr && m_freelist != nullptr)
        m_freelist->list_create(NUM_BUFFERS, cachebuf_t::BLOCK_SIZE);
}

cachebuf_list_t::~cachebuf_list_t()
{
    for (cbuflist_t *head : {m_cbuflist, m_freelist}) {
        if (head != nullptr) head->list_destroy();
        delete head;
    }
}

cachebuf_t *cachebuf_list_t::search_setup(uint64_t offset)
{
    // Sequential reads find their buffer where the last one left it.
    cbuflist_t *pFront = m_cbuflist->front();
    return pFront != nullptr && pFront->incache(offset) ? pFront : reuseBuffer(offset);
}

uint32_t cachebuf_list_t::quietBytes(uint64_t offset, const uint8_t **pb_at) const
{
    const cbuflist_t *pFront = m_cbuflist->front();
    if (pFront == nullptr || canReadAhead()) return 0;
    const uint32_t nbytes = pFront->unconsumed(offset, pb_at);
    if (m_maxFilesize == 0) return nbytes;
    // After a known end of the file every read makes sure of it.
    const uint64_t left = m_maxFilesize - std::min(offset, m_maxFilesize);
    return static_cast<uint32_t>(std::min<uint64_t>(nbytes, left));
}

GOLT_RARE void cachebuf_list_t::release(cachebuf_t *pCache)
{
    pCache->invalidate();
    auto *pItem = static_cast<cbuflist_t *>(pCache);
    m_freelist->list_insertAfter(m_cbuflist->list_detach(pItem), nullptr);
}

int cachebuf_list_t::fillCache(cachebuf_t *pCache, uint64_t tgtOffset, bool fCompleteFill)
{
    if (m_maxFilesize != 0 && tgtOffset > m_maxFilesize) tgtOffset = m_maxFilesize;
    if (m_fEof && m_inpOffset < tgtOffset) return 0;
    if (!pCache->needsFill(tgtOffset)) return 0;
    return fillFromHost(pCache, tgtOffset, fCompleteFill);
}

void cachebuf_list_t::seek(uint64_t offset)
{
    const uint64_t destOffset = cachebuf_t::startOffset(offset);
    const uint64_t currOffset = cachebuf_t::startOffset(m_inpOffset);
    if (destOffset == currOffset || m_cbuflist->list_search(offset) != nullptr) return;
    if (destOffset > m_inpOffset && destOffset - currOffset <= READ_THROUGH_WINDOW) {
        readThrough(destOffset);
    } else {
        m_inpOffset = destOffset;
        printf("GOLT/TCACHE:  seek: 0x%08x\n", low32(destOffset));
        pt_seek(static_cast<int64_t>(destOffset));
    }
    clearEof();
}

int cachebuf_list_t::numbuffers() const
{
    int count = 0;
    for (const cbuflist_t *head : {m_cbuflist, m_freelist})
        count += head != nullptr ? head->count() : 0;
    return count;
}

int cachebuf_list_t::pt_read(uint8_t *buf, int size)
{
    return m_listener != nullptr ? m_listener->read(buf, size) : 0;
}

int64_t cachebuf_list_t::pt_seek(int64_t offset)
{
    return m_listener != nullptr ? m_listener->seek(offset, 0) : -1;
}

// The buffer for the block of offset, where that isn't the first in use.
GOLT_RARE cachebuf_t *cachebuf_list_t::reuseBuffer(uint64_t offset)
{
    cbuflist_t *pCache = m_cbuflist->list_search(offset);
    if (pCache != nullptr) {
        m_cbuflist->list_detach(pCache);
    } else {
        pCache = m_freelist->list_detach(nullptr);
        // The buffer that was read ahead farthest is needed last.
        if (pCache == nullptr) pCache = m_cbuflist->list_detach(m_cbuflist->tail());
    }
    m_cbuflist->list_insertAfter(pCache, nullptr);
    if (!pCache->incache(offset)) pCache->setup(offset);
    return pCache;
}

// False where a round of read-ahead would do nothing: all buffers are full, as they are most of the
// time, or the one being filled ends where the file is known to end.
bool cachebuf_list_t::canReadAhead() const
{
    const cbuflist_t *pFill = m_currFillBuffer;
    if (pFill == nullptr || !pFill->hasRoom()) return m_freelist->front() != nullptr;
    return m_maxFilesize == 0 || pFill->off() > m_maxFilesize ||
           pFill->off() + pFill->len() < m_maxFilesize;
}

// One round of read-ahead; the number of bytes that it brought.
GOLT_RARE int cachebuf_list_t::readAhead()
{
    cbuflist_t *pFillBuffer = m_currFillBuffer;
    if (pFillBuffer == nullptr || !pFillBuffer->hasRoom()) pFillBuffer = appendBuffer();
    if (pFillBuffer == nullptr) return 0;
    const uint32_t len = std::min(pFillBuffer->len() + READ_AHEAD_STEP, cachebuf_t::BLOCK_SIZE);
    return fillCache(pFillBuffer, pFillBuffer->off() + len, false);
}

// A free buffer for the block of the host's position, at the back of those in use; null when none
// is free.
cbuflist_t *cachebuf_list_t::appendBuffer()
{
    cbuflist_t *pCache = m_freelist->list_detach(nullptr);
    if (pCache == nullptr) return nullptr;
    pCache->setup(m_inpOffset);
    return m_cbuflist->list_insertAfter(pCache, m_cbuflist->tail());
}

int cachebuf_list_t::fillFromHost(cachebuf_t *pCache, uint64_t tgtOffset, bool fCompleteFill)
{
    // A buffer goes on exactly where its bytes end, whatever was read since.
    if (m_inpOffset != pCache->off() + pCache->len()) seekToEndOf(*pCache);
    const uint32_t nFilled = pCache->fill(tgtOffset, m_listener, fCompleteFill);
    m_inpOffset += nFilled;
    noteFill(nFilled);
    m_currFillBuffer = static_cast<cbuflist_t *>(pCache);
    return static_cast<int>(nFilled);
}

GOLT_RARE void cachebuf_list_t::seekToEndOf(const cachebuf_t &cache)
{
    m_inpOffset = cache.off() + cache.len();
    printf("GOLT/TCACHE:  seek>> 0x%08x [0x%08x,0x%04x]\n", low32(m_inpOffset), low32(cache.off()),
           cache.len());
    pt_seek(static_cast<int64_t>(m_inpOffset));
    clearEof();
}

// Learns from a fill whether the end of the file has been reached.
void cachebuf_list_t::noteFill(uint32_t nFilled)
{
    if (m_maxFilesize != 0) {
        if (m_inpOffset >= m_maxFilesize) setEof("GOLT/TCACHE:  fillCache: eof[1]");
    } else if (nFilled == 0) {
        // The count stops above the limit: near the end of the 64-bit range fills are tried
        // without end.
        if (m_eof_retries <= MAX_EOF_RETRIES) ++m_eof_retries;
        if (m_eof_retries > MAX_EOF_RETRIES) setEof("GOLT/TCACHE:  fillCache: eof[2]");
    }
    if (nFilled > 0) clearEof();
}

GOLT_RARE void cachebuf_list_t::setEof(const char *message)
{
    puts(message);
    m_fEof = true;
}

// Reads up to the block of destOffset, which lies ahead. Each turn brings bytes or is the last.
void cachebuf_list_t::readThrough(uint64_t destOffset)
{
    printf("GOLT/TCACHE:  seek:: 0x%08x-0x%08x (0x%08x)\n", low32(m_inpOffset), low32(destOffset),
           low32(destOffset - m_inpOffset));
    cachebuf_t *pCache = nullptr;
    int nFilled = 0;
    do {
        pCache = search_setup(m_inpOffset);
        nFilled = fillCache(pCache, destOffset, true);
    } while (nFilled != 0 && destOffset - pCache->off() > cachebuf_t::BLOCK_SIZE);
    if (nFilled == 0) puts("GOLT/TCACHE:  seek:: nofill");
}

void cachebuf_list_t::clearEof()
{
    m_fEof = false;
    m_eof_retries = 0;
}

// TCache

TCache::TCache(Listener *listener, uint64_t maxFilesize)
    : m_cacheList(new (std::nothrow) cachebuf_list_t(listener, maxFilesize))
    , m_outOffset(0)
    , m_run(nullptr)
    , m_runLeft(0)
    , m_runStart(0)
{
    if (m_cacheList == nullptr || m_cacheList->numbuffers() < MIN_BUFFERS) g_TCacheEnabled = false;
}

TCache::~TCache()
{
    delete m_cacheList;
}

int TCache::read(uint8_t *buf, int size)
{
    const auto wanted = static_cast<uint32_t>(size);
    // A size of 0 or below counts as a large one here.
    if (wanted - 1 >= m_runLeft || !g_TCacheEnabled) return readOn(buf, size);
    const uint8_t *const from = m_run;
    m_run += wanted;
    m_runLeft -= wanted;
    m_outOffset += wanted;
    copyBytes(buf, from, wanted);
    return size;
}

int64_t TCache::seek(int64_t offset)
{
    // To where the reader is, within bytes that are held: demuxers often say so to be sure.
    const uint64_t dest = static_cast<uint64_t>(offset);
    if (m_runLeft != 0 && dest == m_outOffset && g_TCacheEnabled) return 0;
    closeRun();
    m_outOffset = m_runStart = dest;
    if (!g_TCacheEnabled) return m_cacheList != nullptr ? m_cacheList->pt_seek(offset) : -1;
    m_cacheList->seek(m_outOffset);
    return 0;
}

// A read that the run doesn't serve, and the next run.
GOLT_APART int TCache::readOn(uint8_t *buf, int size)
{
    closeRun();
    const int nread = g_TCacheEnabled ? readCached(buf, size) : readPassThrough(buf, size);
    if (g_TCacheEnabled) m_runLeft = m_cacheList->quietBytes(m_outOffset, &m_run);
    m_runStart = m_outOffset;
    return nread;
}

int TCache::readCached(uint8_t *buf, int size)
{
    int totalread = 0;
    int fillCount = 0;
    while (size > 0) {
        cachebuf_t *pCache = m_cacheList->search_setup(m_outOffset);
        const uint64_t tgtOffset = m_outOffset + static_cast<uint32_t>(size);
        if (m_cacheList->fillCache(pCache, tgtOffset, true) > 0) ++fillCount;
        const int nread = pCache->read(m_outOffset, buf, size);
        if (nread == 0) break;
        m_outOffset += static_cast<uint32_t>(nread);
        size -= nread;
        totalread += nread;
        buf += nread;
        if (pCache->consumed()) m_cacheList->release(pCache);
    }
    // A read that was served from memory pays for one round of read-ahead; one that waited doesn't.
    if (fillCount == 0) m_cacheList->fillBuffers(0);
    return totalread;
}

GOLT_RARE int TCache::readPassThrough(uint8_t *buf, int size)
{
    int total = 0;
    while (size > 0 && m_cacheList != nullptr) {
        const int nread = m_cacheList->pt_read(buf, size);
        // A host that claims more than it was offered can't have delivered it.
        if (nread <= 0 || nread > size) break;
        total += nread;
        m_outOffset += static_cast<uint32_t>(nread);
        buf += nread;
        size -= nread;
    }
    return total;
}

void TCache::closeRun()
{
    if (m_outOffset != m_runStart)
        m_cacheList->countQuiet(static_cast<uint32_t>(m_outOffset - m_runStart));
    m_runLeft = 0;
    m_runStart = m_outOffset;
}

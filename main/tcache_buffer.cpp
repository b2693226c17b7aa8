#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <new>

#include "golt_poison.h"
#include "tcache.h"
#include "tcache_i.h"

namespace {

constexpr unsigned RETRY_SLEEP_USEC = 10;
constexpr unsigned MAX_SLEEP_USEC = 50000;

}  // namespace

// cachebuf_t

cachebuf_t::cachebuf_t(uint32_t cachesize)
    : m_buf(cachesize != 0 ? new (std::nothrow) uint8_t[cachesize] : nullptr)
    , m_siz(cachesize)
    , m_len(0)
    , m_off(NO_BLOCK)
    , m_used(0)
    , INVALID_OFFSET(NO_BLOCK)
{
    setLength(0);
}

cachebuf_t::~cachebuf_t()
{
    delete[] m_buf;
}

void cachebuf_t::setup(uint64_t off)
{
    m_off = startOffset(off);
    setLength(0);
    m_used = 0;
}

void cachebuf_t::invalidate()
{
    m_off = NO_BLOCK;
    setLength(0);
}

int cachebuf_t::read(uint64_t off, uint8_t *buf, int size)
{
    if (!incache(off) || size <= 0) return 0;
    const auto start = static_cast<uint32_t>(off - m_off);
    if (start >= m_len) return 0;
    const uint32_t nbytes = std::min(static_cast<uint32_t>(size), m_len - start);
    copyBytes(buf, m_buf + start, nbytes);
    countOut(nbytes);
    return static_cast<int>(nbytes);
}

uint32_t cachebuf_t::unconsumed(uint64_t off, const uint8_t **pb_at) const
{
    const uint64_t start = off - m_off;
    if (start >= m_len || m_used >= m_len) return 0;
    *pb_at = m_buf + start;
    return std::min(m_len - static_cast<uint32_t>(start), m_len - m_used - 1);
}

uint32_t cachebuf_t::fill(uint64_t tgtOffset, Listener *listener, bool fCompleteFill)
{
    const uint32_t min_len = minFill(tgtOffset);
    if (listener == nullptr || m_len >= min_len) return 0;
    if (fCompleteFill) return fillWaiting(min_len, listener);
    return static_cast<uint32_t>(std::max(readHost(listener), 0));
}

int cachebuf_t::getDbgInfo(char *str, int maxsize) const
{
    return snprintf(str, static_cast<size_t>(std::max(maxsize, 0)), "{0x%x,0x%05x,0x%05x}",
                    low32(m_off), m_len, m_used);
}

GOLT_RARE uint32_t cachebuf_t::fillWaiting(uint32_t min_len, Listener *listener)
{
    const uint32_t start_len = m_len;
    unsigned sleepTime_usec = 0;
    int nread = 1;
    while (nread != 0 && m_len < min_len && sleepTime_usec < MAX_SLEEP_USEC) {
        nread = readHost(listener);
        if (m_len >= min_len) break;
        usleep(RETRY_SLEEP_USEC);
        sleepTime_usec += RETRY_SLEEP_USEC;
    }
    if (sleepTime_usec >= MAX_SLEEP_USEC)
        printf("GOLT/TCACHE: \t   fill @ 0x%08x: %5d got %5d [timeout:%d us]\n",
               low32(m_off + start_len), static_cast<int>(m_siz - start_len),
               static_cast<int>(m_len - start_len), static_cast<int>(sleepTime_usec));
    return m_len - start_len;
}

// One read of the host, of all the room that is left; the result is the host's.
int cachebuf_t::readHost(Listener *listener)
{
    const auto room = static_cast<int>(m_siz - m_len);
    ASAN_UNPOISON_MEMORY_REGION(m_buf + m_len, m_siz - m_len);
    int nread = listener->read(m_buf + m_len, room);
    // A host that claims more than it was offered can't have delivered it. It isn't known which of
    // the bytes are the file's, so none of them counts.
    if (nread > room) nread = 0;
    setLength(nread > 0 ? m_len + static_cast<uint32_t>(nread) : m_len);
    return nread;
}

// The one place that sets m_len, so that bytes that were never delivered can't be read unseen.
void cachebuf_t::setLength(uint32_t len)
{
    m_len = len;
    if (m_buf != nullptr) ASAN_POISON_MEMORY_REGION(m_buf + m_len, m_siz - m_len);
}

// cbuflist_t

cbuflist_t::cbuflist_t(uint32_t bufsize)
    : cachebuf_t(bufsize)
    , m_next(nullptr)
    , m_prev(nullptr)
    , m_tail(nullptr)
    , m_count(0)
{
}

cbuflist_t *cbuflist_t::detach()
{
    if (m_prev != nullptr) m_prev->m_next = m_next;
    if (m_next != nullptr) m_next->m_prev = m_prev;
    m_next = nullptr;
    m_prev = nullptr;
    return this;
}

cbuflist_t *cbuflist_t::insertAfter(cbuflist_t *pItem)
{
    if (pItem == nullptr) return nullptr;
    pItem->m_next = m_next;
    pItem->m_prev = this;
    if (m_next != nullptr) m_next->m_prev = pItem;
    m_next = pItem;
    return pItem;
}

void cbuflist_t::list_create(int numItems, uint32_t bufsize)
{
    m_count = 0;
    for (int i = 0; i < numItems; ++i) {
        auto *pItem = new (std::nothrow) cbuflist_t(bufsize);
        if (pItem != nullptr && pItem->isAvail())
            list_insertAfter(pItem, m_tail);
        else
            delete pItem;
    }
}

void cbuflist_t::list_destroy()
{
    for (cbuflist_t *pItem = m_next; pItem != nullptr;) {
        cbuflist_t *pDone = pItem;
        pItem = pItem->m_next;
        delete pDone;
    }
}

cbuflist_t *cbuflist_t::list_detach(cbuflist_t *pItem)
{
    if (pItem == nullptr) pItem = m_next;
    if (pItem == nullptr) return nullptr;
    if (pItem == m_tail) m_tail = pItem->m_prev != this ? pItem->m_prev : nullptr;
    --m_count;
    return pItem->detach();
}

cbuflist_t *cbuflist_t::list_insertAfter(cbuflist_t *pItem, cbuflist_t *prevItem)
{
    if (pItem == nullptr) return nullptr;
    (prevItem != nullptr ? prevItem : this)->insertAfter(pItem);
    if (pItem->m_next == nullptr) m_tail = pItem;
    ++m_count;
    return pItem;
}

cbuflist_t *cbuflist_t::list_search(uint64_t offset) const
{
    cbuflist_t *pItem = m_next;
    while (pItem != nullptr && !pItem->incache(offset))
        pItem = pItem->m_next;
    return pItem;
}

int cbuflist_t::list_getDbgInfo(char *str, int maxsize, bool fVerbose) const
{
    if (maxsize <= 0) return 0;
    // snprintf may report more than there was room for.
    const int most = maxsize - 1;
    const auto room = [&](int len) { return static_cast<size_t>(maxsize - len); };
    int len = fVerbose ? snprintf(str, room(0), "0x%p (%d), tail=0x%p:\n",
                                  static_cast<const void *>(this), m_count,
                                  static_cast<const void *>(m_tail))
                       : snprintf(str, room(0), "[%d] ", m_count);
    len = std::min(len, most);
    for (const cbuflist_t *pItem = m_next; pItem != nullptr; pItem = pItem->m_next) {
        const bool f_last = pItem == m_tail;
        if (fVerbose)
            len += snprintf(str + len, room(len), "   %2s 0x%p: prev=0x%p, next=0x%p, ",
                            f_last ? "T>" : "", static_cast<const void *>(pItem),
                            static_cast<const void *>(pItem->m_prev),
                            static_cast<const void *>(pItem->m_next));
        len = std::min(len, most);
        len = std::min(len + pItem->getDbgInfo(str + len, maxsize - len), most);
        if (len < most) str[len++] = fVerbose ? '\n' : f_last ? '*' : ',';
    }
    str[len] = '\0';
    return len + 1;
}

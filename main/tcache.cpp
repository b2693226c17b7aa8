#include "tcache.h"

#include <new>

bool g_TCacheEnabled = true;

cachebuf_list_t::cachebuf_list_t(Listener *listener, uint64_t)
    : m_listener(listener)
{
}

int cachebuf_list_t::numbuffers() const
{
    return 0;
}

int cachebuf_list_t::pt_read(uint8_t *buf, int size)
{
    return m_listener != nullptr ? m_listener->read(buf, size) : 0;
}

int64_t cachebuf_list_t::pt_seek(int64_t offset)
{
    return m_listener != nullptr ? m_listener->seek(offset, 0) : -1;
}

TCache::TCache(Listener *listener, uint64_t maxFilesize)
    : m_cacheList(new (std::nothrow) cachebuf_list_t(listener, maxFilesize))
    , m_outOffset(0)
{
    if (m_cacheList == nullptr || m_cacheList->numbuffers() < 2) g_TCacheEnabled = false;
}

TCache::~TCache()
{
    delete m_cacheList;
}

int TCache::read(uint8_t *buf, int size)
{
    int total = 0;
    while (size > 0 && m_cacheList != nullptr) {
        int nread = m_cacheList->pt_read(buf, size);
        // A host that claims more than it was offered can't have delivered it.
        if (nread <= 0 || nread > size) break;
        total += nread;
        m_outOffset += static_cast<uint64_t>(nread);
        buf += nread;
        size -= nread;
    }
    return total;
}

int64_t TCache::seek(int64_t offset)
{
    m_outOffset = static_cast<uint64_t>(offset);
    return m_cacheList != nullptr ? m_cacheList->pt_seek(offset) : -1;
}

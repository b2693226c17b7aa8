#include "ts_framing.h"

#include <algorithm>
#include <cstring>

#include "ts_packet.h"

namespace {

constexpr struct {
    size_t size, sync_at;
} SORTS[] = {{192, 4}, {188, 0}, {204, 0}};
constexpr size_t LARGEST = 204, LARGEST_SYNC_AT = 4;
constexpr size_t SEEN_FIRST = 5;  // packets that have to follow one another at the start of a file
constexpr size_t SEEN_NEXT = 3;   // and after a gap
constexpr size_t PIECE = 65536;   // taken at once

}  // namespace

void TsFraming::feed(const uint8_t *bytes, size_t size)
{
    while (size > 0) {
        const size_t taken = std::min(size, PIECE);
        m_held.insert(m_held.end(), bytes, bytes + taken);
        bytes += taken;
        size -= taken;
        work(false);
    }
}

void TsFraming::finish()
{
    work(true);
    skip(left());
    report_lost();
}

void TsFraming::work(bool f_end)
{
    // Each turn moves m_at on, or finds out the size.
    while (m_size == 0 ? find_first(f_end) : m_f_searching ? find_next(f_end) : take_one(f_end)) {
    }
    m_held.erase(m_held.begin(), m_held.begin() + static_cast<std::ptrdiff_t>(m_at));
    m_begin += m_at;
    m_at = 0;
}

bool TsFraming::find_first(bool f_end)
{
    const size_t least = f_end ? 1 : (SEEN_FIRST + 1) * LARGEST;
    for (; skip_to_sync(LARGEST_SYNC_AT) >= least; skip(1)) {
        for (const auto &sort : SORTS) {
            size_t seen = 0;
            for (size_t at = m_at + sort.sync_at; at < m_held.size() && seen < SEEN_FIRST;
                 at += sort.size) {
                if (m_held[at] != TS_SYNC_BYTE) {
                    seen = 0;
                    break;
                }
                ++seen;
            }
            // A file of few packets begins with one.
            const bool f_few = seen > 0 && m_begin + m_at == 0 && left() % sort.size == 0;
            if (seen < SEEN_NEXT && !f_few) continue;
            m_size = sort.size;
            m_sync_at = sort.sync_at;
            return true;
        }
    }
    return false;
}

// A packet is whole if another one follows it. One whose sync byte is wrong is still a packet if others follow.
bool TsFraming::take_one(bool f_end)
{
    if (left() < m_size || (!f_end && left() < 4 * m_size)) return false;
    const bool f_sync = is_sync(m_at), f_next = goes_on(m_at + m_size, f_end),
               f_after = goes_on(m_at + 2 * m_size, f_end);
    bool f_whole = f_sync ? f_next || f_after : f_next && f_after && left() > m_size;
    if (f_sync && !f_whole) {
        // Something comes in between. It is in this packet if others begin before its end.
        f_whole = true;
        for (size_t at = m_at + 1; at < m_at + m_size && f_whole; ++at)
            f_whole =
                !(is_sync(at) && goes_on(at + m_size, f_end) && goes_on(at + 2 * m_size, f_end));
    }
    if (!f_whole) {
        m_f_searching = true;
        skip(1);
        return true;
    }
    report_lost();
    m_packets.on_packet(m_held.data() + m_at + m_sync_at, m_begin + m_at);
    m_at += m_size;
    return true;
}

bool TsFraming::find_next(bool f_end)
{
    const size_t least = f_end ? m_size : (SEEN_NEXT + 1) * m_size;
    for (; skip_to_sync(m_sync_at) >= least; skip(1)) {
        if (is_sync(m_at) && goes_on(m_at + m_size, f_end) && goes_on(m_at + 2 * m_size, f_end)) {
            m_f_searching = false;
            return true;
        }
    }
    return false;
}

bool TsFraming::is_sync(size_t at) const
{
    return at + m_sync_at < m_held.size() && m_held[at + m_sync_at] == TS_SYNC_BYTE;
}

// Whether a packet begins there, or the file has ended.
bool TsFraming::goes_on(size_t at, bool f_end) const
{
    return is_sync(at) || (f_end && at + m_sync_at >= m_held.size());
}

// Passes over bytes where no packet can begin that has its sync byte at sync_at or before it. How many are left.
size_t TsFraming::skip_to_sync(size_t sync_at)
{
    if (left() == 0) return 0;
    const uint8_t *const from = m_held.data() + m_at;
    const auto *const found = static_cast<const uint8_t *>(memchr(from, TS_SYNC_BYTE, left()));
    const size_t sync = found != nullptr ? static_cast<size_t>(found - from) : left();
    if (sync > sync_at) skip(sync - sync_at);
    return left();
}

void TsFraming::skip(size_t size)
{
    m_at += size;
    m_lost += size;
}

void TsFraming::report_lost()
{
    if (m_lost > 0) m_packets.on_lost(m_begin + m_at - m_lost, m_lost);
    m_lost = 0;
}

#include "reader.h"

#include <algorithm>
#include <cstring>

bool Reader::read(uint64_t offset, uint8_t *buffer, size_t size)
{
    while (size > 0) {
        const bool f_held = offset >= m_begin && offset - m_begin < m_held;
        if (!f_held && !load(offset, std::min(size, WINDOW_SIZE))) return false;
        const size_t skipped = static_cast<size_t>(offset - m_begin);
        const size_t count = std::min(size, m_held - skipped);
        memcpy(buffer, m_window.data() + skipped, count);
        buffer += count;
        offset += count;
        size -= count;
    }
    return true;
}

// The window begins at the offset: what is read next mostly follows.
bool Reader::load(uint64_t offset, size_t least)
{
    if (offset >= std::min(size(), m_end)) return false;
    if (is_exhausted()) {
        m_f_failed = true;
        return false;
    }
    ++m_loads;
    m_begin = offset;
    m_held = std::min(m_source.read_at(offset, m_window.data(), least, m_window.size()),
                      m_window.size());
    if (m_held < least) {
        m_end = std::min(m_end, offset + m_held);
        m_f_failed = m_f_failed || m_end < size();
    }
    return m_held > 0;
}

uint64_t Stretch::number(size_t size)
{
    uint8_t buffer[8] = {};
    if (size > sizeof buffer || size > left() || !m_reader->read(m_at, buffer, size)) {
        m_f_short = true;
        m_at = m_end;
        return 0;
    }
    m_at += size;
    uint64_t value = 0;
    for (size_t i = 0; i < size; ++i)
        value = value << 8 | buffer[i];
    return value;
}

void Stretch::skip(uint64_t size)
{
    if (size > left()) m_f_short = true;
    m_at += std::min(size, left());
}

std::vector<uint8_t> Stretch::bytes(uint64_t size, size_t most)
{
    const uint64_t there = std::min(size, left());
    std::vector<uint8_t> out(static_cast<size_t>(std::min<uint64_t>(there, most)));
    if (there < size || !m_reader->read(m_at, out.data(), out.size())) m_f_short = true;
    if (m_f_short) out.clear();
    m_at += there;
    return out;
}

std::string Stretch::text(uint64_t size, size_t most)
{
    const std::vector<uint8_t> raw = bytes(size, most);
    std::string out;
    for (const uint8_t letter : raw) {
        if (letter == 0) break;
        out += letter >= 0x20 && letter < 0x7F ? static_cast<char>(letter) : '?';
    }
    return out;
}

Stretch Stretch::child(uint64_t size)
{
    const uint64_t begin = m_at;
    if (size > left()) m_f_short = true;
    m_at += std::min(size, left());
    return Stretch(*m_reader, begin, m_at);
}

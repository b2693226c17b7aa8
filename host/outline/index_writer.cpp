#include "index_writer.h"

namespace {

// Sample descriptions and headers of tracks have some hundred bytes.
constexpr uint64_t MOST_COPIED = 64 * 1024;

void add_to_runs(std::vector<uint32_t> &pairs, uint32_t value)
{
    if (!pairs.empty() && pairs.back() == value)
        ++pairs[pairs.size() - 2];
    else
        pairs.insert(pairs.end(), {1, value});
}

}  // namespace

void BoxWriter::open(const char (&letters)[5])
{
    m_open.push_back(m_out.size());
    u32(0);
    u32(outline::box_type(letters));
}

void BoxWriter::close()
{
    put(m_open.back(), static_cast<uint32_t>(m_out.size() - m_open.back()));
    m_open.pop_back();
}

void BoxWriter::u32(uint32_t number)
{
    m_out.resize(m_out.size() + 4);
    put(m_out.size() - 4, number);
}

void BoxWriter::put(size_t at, uint32_t number)
{
    for (size_t i = 0; i < 4; ++i)
        m_out[at + i] = static_cast<uint8_t>(number >> (24 - 8 * i));
}

uint32_t BoxWriter::number(size_t at) const
{
    uint32_t number = 0;
    for (size_t i = 0; i < 4; ++i)
        number = number << 8 | m_out[at + i];
    return number;
}

void BoxWriter::table(const char (&letters)[5], const std::vector<uint32_t> &numbers,
                      size_t of_entry)
{
    open(letters);
    u32(0);  // version and flags
    u32(static_cast<uint32_t>(numbers.size() / of_entry));
    for (const uint32_t number : numbers)
        u32(number);
    close();
}

bool BoxWriter::copy(const char (&letters)[5], Reader &reader, const TablePlace &place)
{
    const uint64_t size = place.end - place.begin;
    if (place.begin == 0 || size > MOST_COPIED) return false;
    open(letters);
    const size_t at = m_out.size();
    m_out.resize(at + static_cast<size_t>(size));
    const bool f_read = reader.read(place.begin, m_out.data() + at, static_cast<size_t>(size));
    close();
    return f_read;
}

void TableWriter::add(const Sample &sample)
{
    add_to_runs(m_lengths, sample.length);
    add_to_runs(m_offsets, sample.offset);
    m_sizes.push_back(sample.size);
    if (sample.f_key) m_keys.push_back(static_cast<uint32_t>(samples()));
    if (m_places.empty() || sample.place != m_end) {
        end_chunk();
        m_places.push_back(static_cast<uint32_t>(sample.place));
    }
    ++m_in_chunk;
    m_end = sample.place + sample.size;
}

void TableWriter::end_chunk()
{
    constexpr size_t OF_ENTRY = 3;
    constexpr uint32_t DESCRIPTION = 1;
    if (m_in_chunk == 0) return;
    if (m_runs.empty() || m_runs[m_runs.size() - OF_ENTRY + 1] != m_in_chunk)
        m_runs.insert(m_runs.end(),
                      {static_cast<uint32_t>(m_places.size()), m_in_chunk, DESCRIPTION});
    m_in_chunk = 0;
}

size_t TableWriter::words() const
{
    return m_lengths.size() + m_offsets.size() + m_keys.size() + m_sizes.size() + m_runs.size() +
           m_places.size();
}

TablePlace TableWriter::write(BoxWriter &boxes, bool f_offsets, bool f_keys)
{
    end_chunk();
    boxes.table("stts", m_lengths, 2);
    if (f_offsets) boxes.table("ctts", m_offsets, 2);
    if (f_keys) boxes.table("stss", m_keys, 1);
    boxes.table("stsc", m_runs, 3);
    boxes.open("stsz");
    boxes.u32(0);  // version and flags
    boxes.u32(0);  // each sample has a size of its own
    boxes.u32(static_cast<uint32_t>(m_sizes.size()));
    for (const uint32_t size : m_sizes)
        boxes.u32(size);
    boxes.close();
    boxes.table("stco", m_places, 1);
    return {boxes.size() - m_places.size() * 4, boxes.size()};
}

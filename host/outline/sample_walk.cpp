#include "sample_walk.h"

namespace {

// The numbers after skipped ones, of which count are one entry; the first one says how many entries there are.
std::optional<std::vector<uint32_t>> read_numbers(Reader &reader, const TablePlace &place,
                                                  size_t skipped, size_t count, size_t &words)
{
    Stretch body(reader, place.begin, place.end);
    body.skip(skipped * 4);
    const uint64_t entries = body.u32();
    if (body.is_short() || entries * count * 4 > body.left() || entries * count > words) return {};
    std::vector<uint32_t> numbers(static_cast<size_t>(entries) * count);
    words -= numbers.size();
    for (uint32_t &number : numbers)
        number = body.u32();
    if (body.is_short()) return {};
    return numbers;
}

bool is_rising(const std::vector<uint32_t> &numbers, size_t step)
{
    for (size_t i = step; i < numbers.size(); i += step)
        if (numbers[i] <= numbers[i - step]) return false;
    return true;
}

}  // namespace

std::optional<SampleTables> load_tables(Reader &reader, const Mp4Details &mp4, size_t &words)
{
    SampleTables tables;
    tables.samples = mp4.samples;
    tables.f_all_keys = mp4.stss.begin == 0;
    Stretch sizes(reader, mp4.stsz.begin, mp4.stsz.end);
    sizes.skip(4);
    tables.size = sizes.u32();
    const struct {
        const TablePlace &place;
        size_t skipped, count;
        bool f_needed;
        std::vector<uint32_t> &numbers;
    } rows[] = {
        {mp4.stts, 1, 2, true, tables.lengths}, {mp4.ctts, 1, 2, false, tables.offsets},
        {mp4.stss, 1, 1, false, tables.keys},   {mp4.stsz, 2, 1, tables.size == 0, tables.sizes},
        {mp4.stsc, 1, 3, true, tables.runs},    {mp4.stco, 1, 1, true, tables.places},
    };
    for (const auto &row : rows) {
        const bool f_there = row.place.begin != 0;
        if (!row.f_needed && (!f_there || &row.numbers == &tables.sizes)) continue;
        std::optional<std::vector<uint32_t>> numbers =
            read_numbers(reader, row.place, row.skipped, row.count, words);
        if (!f_there || !numbers) return {};
        row.numbers = std::move(*numbers);
    }
    const bool f_sizes = tables.size != 0 || tables.sizes.size() == tables.samples;
    const bool f_chunks = !tables.runs.empty() && tables.runs.front() == 1;
    if (!f_sizes || !f_chunks || !is_rising(tables.runs, 3) || !is_rising(tables.keys, 1))
        return {};
    return tables;
}

std::optional<uint32_t> SampleWalk::Runs::next()
{
    while (m_left == 0) {
        if (m_at == m_pairs.size()) return {};
        m_left = m_pairs[m_at];
        m_at += 2;
    }
    --m_left;
    return m_pairs[m_at - 1];
}

bool SampleWalk::next()
{
    if (m_number == m_tables.samples || !enter_chunk()) return false;
    const std::optional<uint32_t> length = m_lengths.next();
    if (!length) return false;
    if (m_number > 0) m_sample.time += m_sample.length;
    m_sample.length = *length;
    m_sample.offset = m_offsets.next().value_or(0);
    m_sample.size =
        m_tables.size != 0 ? m_tables.size : m_tables.sizes[static_cast<size_t>(m_number)];
    --m_left;
    ++m_number;
    const std::vector<uint32_t> &keys = m_tables.keys;
    m_sample.f_key = m_tables.f_all_keys || (m_key < keys.size() && keys[m_key] == m_number);
    if (m_sample.f_key) ++m_key;
    return true;
}

// Makes m_sample.place that of the next sample.
bool SampleWalk::enter_chunk()
{
    if (m_left > 0) {
        m_sample.place += m_sample.size;
        return true;
    }
    const std::vector<uint32_t> &runs = m_tables.runs;
    while (m_left == 0) {
        if (m_chunk == m_tables.places.size()) return false;
        if (m_run + 3 < runs.size() && runs[m_run + 3] == m_chunk + 1) m_run += 3;
        m_left = runs[m_run + 1];
        m_sample.place = m_tables.places[m_chunk++];
    }
    return true;
}

bool SampleWalk::is_whole() const
{
    const bool f_keys = m_tables.f_all_keys || m_key == m_tables.keys.size();
    return m_number == m_tables.samples && m_left == 0 && m_chunk == m_tables.places.size() &&
           f_keys;
}

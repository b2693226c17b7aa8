// Writes an index of MP4 (ISO/IEC 14496-12): the tables of a track, made from its samples, and boxes.

#ifndef HOST_OUTLINE_INDEX_WRITER_H
#define HOST_OUTLINE_INDEX_WRITER_H

#include "parsers.h"
#include "sample_walk.h"

/// Boxes, one after the other and one within another.
class BoxWriter {
public:
    explicit BoxWriter(std::vector<uint8_t> &out)
        : m_out(out)
    {
    }
    /// Room for so many bytes more.
    void reserve(size_t size) { m_out.reserve(m_out.size() + size); }
    /// What is written up to the matching close is in the box.
    void open(const char (&letters)[5]);
    void close();
    void u32(uint32_t number);
    /// In place of one that was written.
    void put(size_t at, uint32_t number);
    uint32_t number(size_t at) const;
    size_t size() const { return m_out.size(); }  ///< of what was written, bytes
    /// A box of a table, whose entries have so many numbers each.
    void table(const char (&letters)[5], const std::vector<uint32_t> &numbers, size_t of_entry);
    /// A box with the bytes of a stretch of the file. False where they can't be read, or are too many for a header.
    bool copy(const char (&letters)[5], Reader &reader, const TablePlace &place);

private:
    std::vector<uint8_t> &m_out;
    std::vector<size_t> m_open;  // where their headers are
};

/// The tables of a track for samples that are added in their order.
class TableWriter {
public:
    explicit TableWriter(uint64_t samples) { m_sizes.reserve(static_cast<size_t>(samples)); }
    void add(const Sample &sample);
    uint64_t samples() const { return m_sizes.size(); }
    size_t words() const;                                         ///< numbers in all tables
    const std::vector<uint32_t> &keys() const { return m_keys; }  ///< from 1
    /// f_offsets, f_keys: whether "ctts" and "stss" are written. Returns where the offsets of chunks are in the output.
    TablePlace write(BoxWriter &boxes, bool f_offsets, bool f_keys);

private:
    void end_chunk();

    std::vector<uint32_t> m_lengths, m_offsets, m_keys, m_sizes, m_runs, m_places;
    uint64_t m_end = 0;
    uint32_t m_in_chunk = 0;
};

#endif

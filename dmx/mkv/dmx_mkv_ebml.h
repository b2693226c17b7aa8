// The reader of EBML elements (RFC 8794), private to the Matroska demuxer. It works on the
// demuxer's context and reads through its callbacks, a few bytes at a time and in the order of the
// file.
//
// An element's header is reported as Len and cur_used. Len[0] and Len[1] are the upper and the
// lower half of its size; only the Segment may have an upper half, the parsers work with Len[1]
// alone. cur_used is the length of the header itself. EBML's size of all ones is no special value.
//
// Bytes that the input doesn't have are read as 0, so that a parser reads straight on. _MKV_Read is
// the one place that notices them: it sets the context's f_ended, which whoever has to know asks
// once.

#ifndef GOLT_DMX_MKV_EBML_H
#define GOLT_DMX_MKV_EBML_H

#include "dmx_mkv_i.h"
#include "dmx_mkv_lib.h"

/// Bytes from the start of the file.
inline int64_t _MKV_FilePos()
{
    return mkvctx.MKV_file_pos;
}

/// One call of the read callback; returns the number of bytes that came.
inline uint32_t _MKV_Read(void *buf, int nbytes)
{
    const uint32_t ui4_size = static_cast<uint32_t>(nbytes);
    const uint32_t ui4_came =
        mkvctx.MKV_tpf_reader(mkvctx.MKV_file_handle, static_cast<uint8_t *>(buf), ui4_size);
    // A callback that claims more than it was offered has shown nothing.
    const uint32_t ui4_placed = ui4_came <= ui4_size ? ui4_came : 0;
    mkvctx.MKV_file_pos += ui4_placed;
    if (ui4_placed < ui4_size) mkvctx.f_ended = true;
    return ui4_placed;
}

/// As _MKV_Read, without a call for 0 bytes.
inline uint32_t _GetBytes(void *buf, int nbytes)
{
    return nbytes > 0 ? _MKV_Read(buf, nbytes) : 0;
}

namespace mkv {

/// The next ui4_size bytes: how many came, and whether all did.
inline uint32_t get_bytes(uint8_t *pb, uint32_t ui4_size)
{
    return _GetBytes(pb, static_cast<int>(ui4_size));
}
inline bool get_all(uint8_t *pb, uint32_t ui4_size)
{
    return get_bytes(pb, ui4_size) == ui4_size;
}

}  // namespace mkv

/// Reads one element's header and returns its ID with the marker. 0, with Len and cur_used
/// unchanged, for a header that can't be read or is cut by the end of the input.
int32_t FileCheckEBML(uint32_t *Len, uint32_t *cur_used);

/// Accepts every EBML header. Always 1.
int32_t EMBL_Check_Head(uint32_t *Len, uint32_t cur_used);

/// The next len bytes, 1 to 8, as a number; 0, with nothing consumed, for another len.
uint64_t FileGetEBMLData(uint32_t len);

/// The same from memory.
uint64_t getEBMLData64(const uint8_t *data, uint32_t len);

/// Reads a variable-length integer, cut to 32 bits. Returns its width, 0 when it can't be read.
uint32_t FileGetVint(uint32_t *res);

/// The same for the signed form that EBML lacing uses.
uint32_t FileGetSVint(int32_t *res);

/// The next DataBytes bytes, 1 to 4, in two's complement; 0, with nothing consumed, for another
/// DataBytes.
int32_t FileGetSint(uint32_t DataBytes);

/// The same, unsigned.
uint32_t FileGetUint(uint32_t DataBytes);

/// Copies up to MaxLen of the len bytes at src and fills dst up to MaxLen with 0. Always 1.
uint32_t CopyEBML_Buff(const uint8_t *src, uint8_t *dst, uint32_t len, uint32_t MaxLen);

/// The same from the file; the len bytes are consumed in any case. Always 1.
uint32_t FileCopyEBML_Buff(uint8_t *dst, uint32_t len, uint32_t MaxLen);

/// Reads a floating-point element of Len bytes, 4 or 8; another Len is consumed and gives 0. So do
/// magnitudes below 1 and from 2^32 on: frequencies and durations don't come that small or large.
float FileGetFloat(uint32_t Len);

namespace mkv {

/// Absolute position ui4_size bytes further on.
inline int64_t position_after(uint32_t ui4_size)
{
    return static_cast<int64_t>(static_cast<uint64_t>(_MKV_FilePos()) + ui4_size);
}

/// Unreadable headers in a row, each at least a byte, after which the rest of a master is given up.
/// It covers the remainder that a block may leave before the next element, at most 255 bytes.
constexpr uint32_t DAMAGED_MAX = 256;

/// One element's header. ID 0: it couldn't be read.
struct element_t {
    int32_t ID;
    uint32_t Len[2];
    uint32_t cur_used;
};

/// Reads the next header. One that can't be read is an element without a payload, as long as the
/// bytes that it took, so that the reading goes on after them. False when not even one byte came.
bool read_element(element_t &t_element);

/// Whether so many headers in a row couldn't be read that the rest of their master is given up.
inline bool is_given_up()
{
    return mkvctx.ui4_damaged > DAMAGED_MAX;
}

/// Moves past the element's payload. A seek that fails leaves the position where it is; the next
/// header is then read from there.
void skip(const element_t &t_element);

// The element's value.

/// As a number, cut to 32 or 8 bits.
uint32_t value32(const element_t &t_element);
uint8_t value8(const element_t &t_element);

/// As a number; a float is cut off, and a negative one is 0.
uint32_t float_value32(const element_t &t_element);

/// As bytes, cut to the field or filled up with 0.
template <typename byte_t, uint32_t size>
void copy_to(byte_t (&field)[size], const element_t &t_element)
{
    static_assert(sizeof(byte_t) == 1);
    FileCopyEBML_Buff(reinterpret_cast<uint8_t *>(field), t_element.Len[1], size);
}

/// The ID as the messages show it.
inline uint32_t hex_id(const element_t &t_element)
{
    return static_cast<uint32_t>(t_element.ID);
}

/// The children of one master element, in the order of the file. What a child's handling does to
/// the position doesn't count: the walk adds up declared sizes and ends when they reach the
/// master's.
class child_walk_t {
public:
    /// Starts with ui8_sum bytes counted; ends at ui8_end.
    child_walk_t(uint64_t ui8_sum, uint64_t ui8_end)
        : m_sum(ui8_sum)
        , m_end(ui8_end)
    {
    }

    /// The first child is read also from a master of size 0. False after the last one and at the
    /// end of the input.
    bool next(element_t &t_child)
    {
        if (m_started && m_sum >= m_end) return false;
        m_started = true;
        if (!read_element(t_child)) return false;
        m_sum += t_child.cur_used;
        // Where so much is damaged, the next place to trust is the one after the master.
        if (is_given_up()) t_child.Len[1] = static_cast<uint32_t>(left());
        m_sum += t_child.Len[1];
        return true;
    }

    uint64_t sum() const { return m_sum; }
    uint64_t left() const { return m_sum < m_end ? m_end - m_sum : 0; }

private:
    uint64_t m_sum;
    uint64_t m_end;
    bool m_started = false;
};

/// Of the master whose header has just been read.
inline child_walk_t children_of(const uint32_t *Len, uint32_t used)
{
    return {used, uint64_t{used} + Len[1]};
}

}  // namespace mkv

#endif

#include "stage_video.h"

#include <algorithm>
#include <cstring>

namespace golt {

namespace {

constexpr size_t START_CODE = 3;
constexpr uint8_t TYPE_MASK = 0x1F;  // nal_unit_type
constexpr uint8_t MPEG2_LAST_SLICE = 0xAF, MPEG2_SEQUENCE = 0xB3, MPEG2_EXTENSION = 0xB5;

// ue(v) at the front of the unit's bytes; sets with numbers that take more than these bytes are not valid.
uint32_t number_of_set(const uint8_t *unit, size_t size)
{
    const size_t at = (unit[0] & TYPE_MASK) == nal::SPS ? 4 : 1;
    uint32_t window = 0;
    for (size_t i = at; i < at + 4; ++i)
        window = window << 8 | (i < size ? unit[i] : 0u);
    unsigned zeros = 0;
    while (zeros < 15 && (window >> (31 - zeros) & 1) == 0)
        ++zeros;
    return (window >> (31 - 2 * zeros)) - 1;
}

size_t without_zeros(const uint8_t *bytes, size_t from, size_t to)
{
    while (to > from && bytes[to - 1] == 0)
        --to;
    return to;
}

// Of the first start code at or after from: its three bytes and the one after it lie before size. size: none.
size_t find_code(const uint8_t *bytes, size_t from, size_t size)
{
    while (from + START_CODE < size) {
        const void *const found = memchr(bytes + from, 0, size - START_CODE - from);
        if (found == nullptr) return size;
        from = static_cast<size_t>(static_cast<const uint8_t *>(found) - bytes);
        if (bytes[from + 1] == 0 && bytes[from + 2] == 1) return from;
        ++from;
    }
    return size;
}

// Of the last bytes, those with which a start code begins that may go on: up to 00 00 00 01 and the unit's first byte.
size_t size_of_begun_code(const uint8_t *bytes, size_t size)
{
    size_t count = 0;
    for (const size_t behind : {size_t{0}, size_t{1}}) {
        const uint8_t *const end = bytes + size - behind;
        if (size > START_CODE + behind - 1 && end[-1] == 1 && end[-2] == 0 && end[-3] == 0)
            count = START_CODE + behind;
    }
    const size_t most = std::min(size, count > 0 ? count + 1 : START_CODE);
    while (count < most && bytes[size - 1 - count] == 0)
        ++count;
    return count;
}

}  // namespace

// Parameter sets

void ParameterSets::take_config(const uint8_t *config, size_t size)
{
    constexpr size_t SPS_COUNT_AT = 5;
    if (size <= SPS_COUNT_AT || config[0] != 1) return;
    size_t at = SPS_COUNT_AT;
    for (const unsigned mask : {0x1Fu, 0xFFu}) {
        if (at >= size) return;
        for (unsigned left = config[at++] & mask; left > 0; --left) {
            if (size - at < 2) return;
            const size_t length = size_t{config[at]} << 8 | config[at + 1];
            at += 2;
            if (size - at < length) return;
            if (length > 0) take(config + at, length);
            at += length;
        }
    }
}

bool ParameterSets::take(const uint8_t *unit, size_t size)
{
    if (size < 2 || has(unit, size)) return false;
    const auto type = static_cast<uint8_t>(unit[0] & TYPE_MASK);
    const uint32_t id = number_of_set(unit, size);
    for (size_t i = 0; i < m_count; ++i) {
        if (m_sets[i].type == type && m_sets[i].id == id) {
            remove(i);
            break;
        }
    }
    if (m_count == MOST_SETS || size > MOST_BYTES - m_used) return false;
    memcpy(m_bytes + m_used, unit, size);
    m_sets[m_count++] = {type, id, m_used, size};
    m_used += size;
    m_depth = -1;
    m_f_fields = false;
    for (size_t i = 0; i < m_count; ++i) {
        if (m_sets[i].type != nal::SPS) continue;
        const SpsFacts facts = read_sps(this->unit(i), m_sets[i].size);
        m_depth = std::max(m_depth, facts.reorder_depth);
        m_f_fields = m_f_fields || facts.f_fields;
    }
    return true;
}

bool ParameterSets::has(const uint8_t *unit, size_t size) const
{
    for (size_t i = 0; i < m_count; ++i) {
        if (m_sets[i].size == size && memcmp(this->unit(i), unit, size) == 0) return true;
    }
    return false;
}

void ParameterSets::remove(size_t index)
{
    const Set gone = m_sets[index];
    memmove(m_bytes + gone.at, m_bytes + gone.at + gone.size, m_used - gone.at - gone.size);
    m_used -= gone.size;
    std::copy(m_sets + index + 1, m_sets + m_count, m_sets + index);
    --m_count;
    for (size_t i = 0; i < m_count; ++i) {
        if (m_sets[i].at > gone.at) m_sets[i].at -= gone.size;
    }
}

// A picture's head

bool PictureHead::begin(VideoCodec codec, const uint8_t *bytes, size_t size)
{
    m_codec = codec;
    m_scanned = m_body = m_count = 0;
    m_first_slice = 0;
    m_f_complete = false;
    // Nearly all heads are within one packet.
    m_bytes = bytes;
    m_size = size;
    scan();
    if (m_f_complete) return true;
    memcpy(m_gathered, bytes, size);
    m_bytes = m_gathered;
    return false;
}

bool PictureHead::add(const uint8_t *bytes, size_t size)
{
    memcpy(m_gathered + m_size, bytes, size);
    m_size += size;
    scan();
    if (!m_f_complete && MOST_BYTES - m_size < size_t{188}) close(m_size);
    return m_f_complete;
}

void PictureHead::scan()
{
    while (!m_f_complete) {
        const size_t at = find_code(m_bytes, m_scanned, m_size);
        if (at == m_size) {
            m_scanned = m_size < START_CODE ? 0 : m_size - START_CODE;
            return;
        }
        m_scanned = at + START_CODE;
        if (!add_unit(at)) close(at > 0 && m_bytes[at - 1] == 0 ? at - 1 : at);
    }
}

bool PictureHead::is_key() const
{
    if (m_codec == VideoCodec::MPEG2) return mpeg2_depth() >= 0;
    if (m_first_slice == nal::IDR) return true;
    for (size_t i = 0; i < m_count; ++i) {
        if (m_units[i].type == nal::SEI && has_recovery_point(m_units[i])) return true;
    }
    return false;
}

bool PictureHead::begins_with_delimiter() const
{
    return m_count > 0 && m_units[0].type == nal::DELIMITER && m_units[0].start == 0;
}

int PictureHead::mpeg2_depth() const
{
    int depth = -1;
    for (size_t i = 0; i < m_count; ++i) {
        const Unit &unit = m_units[i];
        if (unit.type == MPEG2_SEQUENCE) depth = 1;
        // extension_start_code_identifier 1; low_delay is its 41st bit.
        const uint8_t *const extension = m_bytes + unit.at + 1;
        if (unit.type == MPEG2_EXTENSION && depth >= 0 && unit.end >= unit.at + 7 &&
            extension[0] >> 4 == 1)
            depth = (extension[5] & 0x80) != 0 ? 0 : 1;
    }
    return depth;
}

// Of the unit after the start code. False: with it the head ends.
bool PictureHead::add_unit(size_t code_at)
{
    const uint8_t first = m_bytes[code_at + START_CODE];
    const bool f_h264 = m_codec == VideoCodec::H264;
    const auto type = static_cast<uint8_t>(f_h264 ? first & TYPE_MASK : first);
    const bool f_slice =
        f_h264 ? type >= nal::SLICE && type <= nal::IDR : type >= 1 && type <= MPEG2_LAST_SLICE;
    if (f_slice) m_first_slice = type;
    if (f_slice || m_count == MOST_UNITS) return false;

    const size_t start = code_at > 0 && m_bytes[code_at - 1] == 0 ? code_at - 1 : code_at;
    if (m_count > 0)
        m_units[m_count - 1].end = without_zeros(m_bytes, m_units[m_count - 1].at, start);
    m_units[m_count++] = {start, code_at + START_CODE, m_size, type};
    return true;
}

void PictureHead::close(size_t at)
{
    if (m_f_complete) return;
    m_f_complete = true;
    m_body = at;
    if (m_count > 0) m_units[m_count - 1].end = without_zeros(m_bytes, m_units[m_count - 1].at, at);
}

// SEI messages: type and size, both in bytes of 255 and a last one.
bool PictureHead::has_recovery_point(const Unit &unit) const
{
    constexpr size_t RECOVERY_POINT = 6;
    size_t at = unit.at + 1;
    while (at < unit.end) {
        size_t numbers[2] = {0, 0};
        for (size_t &number : numbers) {
            while (at < unit.end && m_bytes[at] == 0xFF) {
                number += 0xFF;
                ++at;
            }
            if (at >= unit.end) return false;
            number += m_bytes[at++];
        }
        if (numbers[0] == RECOVERY_POINT) return true;
        if (numbers[1] >= unit.end - at) return false;
        at += numbers[1];
    }
    return false;
}

// Slices

// Two zero bytes side by side are one in words that lie a byte apart. A zero alone is nothing special, so that to stop
// at each takes longer.
bool may_have_code(const uint8_t *bytes, size_t size)
{
    constexpr uint64_t ONES = 0x0101010101010101;
    uint64_t found = bytes[size - 1] == 0 ? 1 : 0;
    size_t at = 0;
    for (; size - at > sizeof found; at += sizeof found) {
        uint64_t word, next;
        memcpy(&word, bytes + at, sizeof word);
        memcpy(&next, bytes + at + 1, sizeof next);
        const uint64_t both = word | next;
        found |= (both - ONES) & ~both & ONES << 7;
    }
    for (; size - at > 1; ++at)
        found |= (bytes[at] | bytes[at + 1]) == 0 ? 1 : 0;
    return found != 0;
}

void SliceFilter::begin()
{
    m_carried = 0;
    m_f_slices = false;
    m_f_in_set = false;
    m_set_size = 0;
}

void SliceFilter::add(const uint8_t *bytes, size_t size)
{
    if (is_between() && !may_have_code(bytes, size)) {
        m_put(m_handle, bytes, size);
        return;
    }
    uint8_t piece[CARRY + PIECE];
    memcpy(piece, m_carry, m_carried);
    memcpy(piece + m_carried, bytes, size);
    const size_t end = m_carried + size;
    size_t done = 0;
    for (size_t from = 0;;) {
        // Two bytes of the unit are there, too.
        const size_t code = find_code(piece, from, end - 1);
        if (code == end - 1) break;
        // The zero byte before a start code belongs to it.
        const size_t start = code > done && piece[code - 1] == 0 ? code - 1 : code;
        put(piece + done, start - done);
        end_unit();
        begin_unit(piece + code + START_CODE);
        from = code + START_CODE;
        put(piece + start, from - start);
        m_set_code = from - start;
        done = from;
    }
    const size_t kept = size_of_begun_code(piece + done, end - done);
    put(piece + done, end - kept - done);
    memcpy(m_carry, piece + end - kept, kept);
    m_carried = kept;
}

void SliceFilter::end()
{
    put(m_carry, m_carried);
    m_carried = 0;
    end_unit();
    m_f_in_set = false;
}

void SliceFilter::put(const uint8_t *bytes, size_t size)
{
    if (size == 0) return;
    if (m_f_in_set && size > MOST_SET - m_set_size) {
        m_put(m_handle, m_set, m_set_size);
        m_f_in_set = false;
    }
    if (!m_f_in_set) {
        m_put(m_handle, bytes, size);
        return;
    }
    memcpy(m_set + m_set_size, bytes, size);
    m_set_size += size;
}

// A field begins with its first macroblock, or with what is before that; within a picture nothing is between slices.
void SliceFilter::begin_unit(const uint8_t *unit)
{
    constexpr uint8_t FIRST_MB_0 = 0x80;  // first_mb_in_slice, ue(v)
    constexpr uint8_t PARTITION_A = 2;
    const uint8_t type = unit[0] & TYPE_MASK;
    m_f_in_set = type == nal::SPS || type == nal::PPS;
    const bool f_slice = type >= nal::SLICE && type <= nal::IDR;
    const bool f_first =
        (type <= PARTITION_A || type == nal::IDR) && f_slice && (unit[1] & FIRST_MB_0) != 0;
    if (type == nal::DELIMITER) m_f_slices = false;
    if (f_first || type == nal::SEI) delimit();
    m_f_slices = m_f_slices || f_slice;
}

void SliceFilter::delimit()
{
    if (m_f_slices && m_sets.may_have_fields())
        m_put(m_handle, nal::DELIMITER_UNIT, sizeof nal::DELIMITER_UNIT);
    m_f_slices = false;
}

// A set is left out if it is in force already.
void SliceFilter::end_unit()
{
    if (m_f_in_set && m_set_size > 0) {
        const uint8_t *const unit = m_set + m_set_code;
        const size_t size = without_zeros(m_set, m_set_code, m_set_size) - m_set_code;
        if (!m_sets.has(unit, size)) {
            delimit();
            m_sets.take(unit, size);
            m_put(m_handle, m_set, m_set_size);
        }
    }
    m_set_size = 0;
}

}  // namespace golt

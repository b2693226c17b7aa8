#include "dmx_mkv_ebml.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>

using namespace mkv;

namespace {

constexpr uint32_t ID_WIDTH_MAX = 4;
constexpr uint32_t SIZE_WIDTH_MAX = 8;

// Biases of the signed variable-length integers by width less one.
const uint32_t vsint_sub[] = {0x3F, 0x1FFF, 0xFFFFF, 0x7FFFFFF};

// The number of leading zero bits plus one; 9 for a byte that has no width.
uint32_t vint_width(uint8_t ui1_first)
{
    uint32_t width = 1;
    for (uint32_t bit = 0x80; bit != 0 && (ui1_first & bit) == 0; bit >>= 1)
        ++width;
    return width;
}

// The value of a variable-length integer without its marker.
uint64_t vint_value(const uint8_t *pb, uint32_t width)
{
    const uint64_t ui8_marker = uint64_t{1} << (7 * width);
    return getEBMLData64(pb, width) & (ui8_marker - 1);
}

// An IEEE 754 number of a sign, exponent_bits and fraction_bits, these being the low bits of
// ui8_bits.
float decode_float(uint64_t ui8_bits, int exponent_bits, int fraction_bits)
{
    const int bias = (1 << (exponent_bits - 1)) - 1;
    const uint64_t ui8_fraction = ui8_bits & ((uint64_t{1} << fraction_bits) - 1);
    const auto ui4_exponent =
        static_cast<uint32_t>(ui8_bits >> fraction_bits) & ((1u << exponent_bits) - 1);
    const int exponent = static_cast<int>(ui4_exponent) - bias;
    if (exponent < 0 || exponent > 31) return 0.0f;

    const double db_fraction =
        static_cast<double>(ui8_fraction) / static_cast<double>(uint64_t{1} << fraction_bits);
    const double db_value = static_cast<double>(1u << exponent) * (1.0 + db_fraction);
    const bool f_negative = (ui8_bits >> (exponent_bits + fraction_bits)) != 0;
    return static_cast<float>(f_negative ? -db_value : db_value);
}

// Truncated; 0 for a negative number, the largest value for one that is too large.
uint32_t to_uint32(float value)
{
    if (!(value > 0.0f)) return 0;
    return value < 4294967296.0f ? static_cast<uint32_t>(value) : 0xFFFFFFFF;
}

}  // namespace

int64_t _MKV_Seek(int64_t pos)
{
    const int64_t i8_result = mkvctx.MKV_tpf_seeker(mkvctx.MKV_file_handle, pos);
    if (i8_result == 0) mkvctx.MKV_file_pos = pos;
    return i8_result;
}

int32_t FileCheckEBML(uint32_t *Len, uint32_t *cur_used)
{
    uint8_t ab_head[16];
    if (!get_all(ab_head, 1)) return 0;
    const uint32_t id_width = vint_width(ab_head[0]);
    if (id_width > ID_WIDTH_MAX) {
        printf("ID length error:%d\n", static_cast<int>(id_width));
        return 0;
    }
    if (!get_all(ab_head + 1, id_width - 1)) return 0;

    uint8_t *pb_size = ab_head + id_width;
    if (!get_all(pb_size, 1)) return 0;
    const uint32_t size_width = vint_width(pb_size[0]);
    if (size_width > SIZE_WIDTH_MAX) {
        printf("DataLen  error:%d\n", static_cast<int>(size_width));
        return 0;
    }
    if (!get_all(pb_size + 1, size_width - 1)) return 0;

    const uint64_t ui8_size = vint_value(pb_size, size_width);
    Len[0] = static_cast<uint32_t>(ui8_size >> 32);
    Len[1] = static_cast<uint32_t>(ui8_size);
    *cur_used = id_width + size_width;
    return static_cast<int32_t>(getEBMLData64(ab_head, id_width));
}

int32_t EMBL_Check_Head(uint32_t *, uint32_t)
{
    return 1;
}

uint64_t FileGetEBMLData(uint32_t len)
{
    uint8_t ab_value[8] = {};
    if (len > sizeof ab_value) return 0;
    get_bytes(ab_value, len);
    return getEBMLData64(ab_value, len);
}

uint64_t getEBMLData64(const uint8_t *data, uint32_t len)
{
    uint64_t ui8_value = 0;
    if (len > sizeof ui8_value) return 0;
    for (uint32_t i = 0; i < len; ++i)
        ui8_value = ui8_value << 8 | data[i];
    return ui8_value;
}

uint32_t FileGetVint(uint32_t *res)
{
    uint8_t ab_value[SIZE_WIDTH_MAX] = {};
    *res = 0;
    get_bytes(ab_value, 1);
    const uint32_t width = vint_width(ab_value[0]);
    if (width > SIZE_WIDTH_MAX) return 0;
    if (width == 1) {  // nearly all of them
        *res = ab_value[0] & 0x7Fu;
        return width;
    }
    get_bytes(ab_value + 1, width - 1);
    *res = static_cast<uint32_t>(vint_value(ab_value, width));
    return width;
}

uint32_t FileGetSVint(int32_t *res)
{
    uint32_t ui4_value = 0;
    const uint32_t width = FileGetVint(&ui4_value);
    *res = 0;
    if (width == 0) return 0;
    // The biases of widths 5 to 8 have all ones in their lower half. As value and bias are both cut
    // to 32 bits, the difference is right wherever it fits.
    const uint32_t bias = width <= std::size(vsint_sub) ? vsint_sub[width - 1] : 0xFFFFFFFF;
    *res = static_cast<int32_t>(ui4_value - bias);
    return width;
}

int32_t FileGetSint(uint32_t DataBytes)
{
    if (DataBytes == 0 || DataBytes > 4) {
        printf("error FileGetSint(DataBytes=%d):%d\n", static_cast<int>(DataBytes), 0);
        return 0;
    }
    const auto ui4_value = static_cast<uint32_t>(FileGetEBMLData(DataBytes));
    const uint32_t sign = 1u << (8 * DataBytes - 1);
    return static_cast<int32_t>((ui4_value ^ sign) - sign);
}

uint32_t FileGetUint(uint32_t DataBytes)
{
    if (DataBytes == 0 || DataBytes > 4) {
        printf("error FileGetUint(DataBytes=%d):%d\n", static_cast<int>(DataBytes), 0);
        return 0;
    }
    return static_cast<uint32_t>(FileGetEBMLData(DataBytes));
}

uint32_t CopyEBML_Buff(const uint8_t *src, uint8_t *dst, uint32_t len, uint32_t MaxLen)
{
    const uint32_t ui4_size = std::min(len, MaxLen);
    memcpy(dst, src, ui4_size);
    memset(dst + ui4_size, 0, MaxLen - ui4_size);
    return 1;
}

uint32_t FileCopyEBML_Buff(uint8_t *dst, uint32_t len, uint32_t MaxLen)
{
    memset(dst, 0, MaxLen);
    get_bytes(dst, std::min(len, MaxLen));
    if (len > MaxLen) _MKV_Seek(position_after(len - MaxLen));
    return 1;
}

float FileGetFloat(uint32_t Len)
{
    switch (Len) {
    case 4: return decode_float(FileGetEBMLData(4), 8, 23);
    case 8: return decode_float(FileGetEBMLData(8), 11, 52);
    default: _MKV_Seek(position_after(Len)); return 0.0f;
    }
}

// Walks are many, and each would have a copy of it otherwise: a fifth of the library's code.
__attribute__((noinline)) bool mkv::read_element(element_t &t_element)
{
    const int64_t i8_start = _MKV_FilePos();
    t_element = {};
    t_element.ID = FileCheckEBML(t_element.Len, &t_element.cur_used);
    if (t_element.ID != 0) {
        mkvctx.ui4_damaged = 0;
        return true;
    }
    t_element.cur_used = static_cast<uint32_t>(_MKV_FilePos() - i8_start);
    ++mkvctx.ui4_damaged;
    return t_element.cur_used != 0;
}

void mkv::skip(const element_t &t_element)
{
    _MKV_Seek(position_after(t_element.Len[1]));
}

uint32_t mkv::value32(const element_t &t_element)
{
    return static_cast<uint32_t>(FileGetEBMLData(t_element.Len[1]));
}

uint8_t mkv::value8(const element_t &t_element)
{
    return static_cast<uint8_t>(FileGetEBMLData(t_element.Len[1]));
}

uint32_t mkv::float_value32(const element_t &t_element)
{
    return to_uint32(FileGetFloat(t_element.Len[1]));
}

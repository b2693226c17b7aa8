// The part of a sequence parameter set that states how far pictures are reordered.

#include <algorithm>
#include <iterator>

#include "stage_video.h"

namespace golt {

namespace {

// Reads bits of a NAL unit, without its emulation prevention bytes. After its end there are only zeros, and a flag
// is set.
class UnitBits {
public:
    UnitBits(const uint8_t *bytes, size_t size)
        : m_at(bytes)
        , m_end(bytes + size)
    {
    }

    bool is_short() const { return m_f_short; }

    uint32_t bits(unsigned count)
    {
        uint32_t value = 0;
        for (; count > 0; --count)
            value = value << 1 | bit();
        return value;
    }

    uint32_t bit()
    {
        if (m_left == 0 && !next_byte()) return 0;
        --m_left;
        return uint32_t{m_byte} >> m_left & 1;
    }

    // ue(v), of 32 bits at most.
    uint32_t unsigned_golomb()
    {
        unsigned zeros = 0;
        while (zeros < 32 && !m_f_short && bit() == 0)
            ++zeros;
        if (zeros == 32) m_f_short = true;
        return m_f_short ? 0 : (1u << zeros) - 1 + bits(zeros);
    }

    // se(v)
    int32_t signed_golomb()
    {
        const uint32_t code = unsigned_golomb();
        const auto half = static_cast<int32_t>(code / 2);
        return (code & 1) != 0 ? half + 1 : -half;
    }

private:
    bool next_byte()
    {
        if (m_at != m_end && m_zeros >= 2 && *m_at == 3) {
            ++m_at;
            m_zeros = 0;
        }
        if (m_at == m_end) {
            m_f_short = true;
            return false;
        }
        m_byte = *m_at++;
        m_zeros = m_byte == 0 ? m_zeros + 1 : 0;
        m_left = 8;
        return true;
    }

    const uint8_t *m_at;
    const uint8_t *m_end;
    uint8_t m_byte = 0;
    unsigned m_left = 0;
    size_t m_zeros = 0;
    bool m_f_short = false;
};

bool has_chroma_format(uint32_t profile)
{
    static const uint8_t profiles[] = {44,  83,  86,  100, 110, 118, 122,
                                       128, 134, 135, 138, 139, 244};
    return std::find(std::begin(profiles), std::end(profiles), profile) != std::end(profiles);
}

void skip_scaling_list(UnitBits &in, unsigned size)
{
    uint32_t last = 8, next = 8;
    for (unsigned i = 0; i < size && !in.is_short(); ++i) {
        if (next != 0) next = (last + static_cast<uint32_t>(in.signed_golomb()) + 256) % 256;
        if (next != 0) last = next;
    }
}

void skip_chroma_format(UnitBits &in)
{
    constexpr uint32_t FORMAT_444 = 3;
    const uint32_t chroma_format_idc = in.unsigned_golomb();
    if (chroma_format_idc == FORMAT_444) in.bit();  // separate_colour_plane_flag
    in.unsigned_golomb();                           // bit_depth_luma_minus8
    in.unsigned_golomb();                           // bit_depth_chroma_minus8
    in.bit();                                       // qpprime_y_zero_transform_bypass_flag
    if (in.bit() == 0) return;                      // seq_scaling_matrix_present_flag
    const unsigned lists = chroma_format_idc == FORMAT_444 ? 12 : 8;
    for (unsigned i = 0; i < lists; ++i) {
        if (in.bit() != 0) skip_scaling_list(in, i < 6 ? 16 : 64);
    }
}

// Returns pic_order_cnt_type.
uint32_t skip_picture_order(UnitBits &in)
{
    const uint32_t type = in.unsigned_golomb();
    if (type == 0) in.unsigned_golomb();  // log2_max_pic_order_cnt_lsb_minus4
    if (type != 1) return type;
    in.bit();            // delta_pic_order_always_zero_flag
    in.signed_golomb();  // offset_for_non_ref_pic
    in.signed_golomb();  // offset_for_top_to_bottom_field
    const uint32_t cycle = std::min<uint32_t>(in.unsigned_golomb(), 255);
    for (uint32_t i = 0; i < cycle && !in.is_short(); ++i)
        in.signed_golomb();
    return type;
}

void skip_hrd(UnitBits &in)
{
    const uint32_t count = std::min<uint32_t>(in.unsigned_golomb(), 31) + 1;
    in.bits(8);  // bit_rate_scale, cpb_size_scale
    for (uint32_t i = 0; i < count && !in.is_short(); ++i) {
        in.unsigned_golomb();
        in.unsigned_golomb();
        in.bit();
    }
    in.bits(20);  // lengths of delays and of time_offset
}

// max_num_reorder_frames of the VUI, or -1.
int reorder_of_vui(UnitBits &in)
{
    constexpr uint32_t EXTENDED_SAR = 255;
    if (in.bit() != 0 && in.bits(8) == EXTENDED_SAR) in.bits(32);
    if (in.bit() != 0) in.bit();  // overscan
    if (in.bit() != 0) {          // video_signal_type
        in.bits(4);
        if (in.bit() != 0) in.bits(24);
    }
    if (in.bit() != 0) {  // chroma_loc_info
        in.unsigned_golomb();
        in.unsigned_golomb();
    }
    if (in.bit() != 0) {  // timing_info
        in.bits(32);
        in.bits(32);
        in.bit();
    }
    const bool has_nal_hrd = in.bit() != 0;
    if (has_nal_hrd) skip_hrd(in);
    const bool has_vcl_hrd = in.bit() != 0;
    if (has_vcl_hrd) skip_hrd(in);
    if (has_nal_hrd || has_vcl_hrd) in.bit();  // low_delay_hrd_flag
    in.bit();                                  // pic_struct_present_flag
    if (in.bit() == 0) return -1;              // bitstream_restriction_flag
    in.bit();
    for (int i = 0; i < 4; ++i)
        in.unsigned_golomb();
    const uint32_t frames = in.unsigned_golomb();
    return in.is_short() ? -1 : static_cast<int>(std::min<uint32_t>(frames, 16));
}

// MaxDpbFrames by table A-1.
int most_frames(uint32_t level, uint64_t macroblocks)
{
    // level_idc, MaxDpbMbs
    static const struct {
        uint8_t level;
        uint32_t macroblocks;
    } rows[] = {{9, 396},     {10, 396},    {11, 900},    {12, 2376},   {13, 2376},
                {20, 2376},   {21, 4752},   {22, 8100},   {30, 8100},   {31, 18000},
                {32, 20480},  {40, 32768},  {41, 32768},  {42, 34816},  {50, 110400},
                {51, 184320}, {52, 184320}, {60, 696320}, {61, 696320}, {62, 696320}};
    if (macroblocks == 0) return 16;
    for (const auto &row : rows) {
        if (level <= row.level)
            return static_cast<int>(std::min<uint64_t>(row.macroblocks / macroblocks, 16));
    }
    return 16;
}

}  // namespace

SpsFacts read_sps(const uint8_t *sps, size_t size)
{
    if (size < 4 || (sps[0] & 0x1F) != nal::SPS) return {};
    UnitBits in(sps + 1, size - 1);
    const uint32_t profile = in.bits(8);
    const uint32_t constraints = in.bits(8);
    const uint32_t level = in.bits(8);
    in.unsigned_golomb();  // seq_parameter_set_id
    if (has_chroma_format(profile)) skip_chroma_format(in);
    in.unsigned_golomb();  // log2_max_frame_num_minus4
    const uint32_t order_type = skip_picture_order(in);
    in.unsigned_golomb();  // max_num_ref_frames
    in.bit();              // gaps_in_frame_num_value_allowed_flag
    const uint64_t width = uint64_t{in.unsigned_golomb()} + 1;
    uint64_t height = uint64_t{in.unsigned_golomb()} + 1;
    const bool f_frames_only = in.bit() != 0;
    if (!f_frames_only) {
        height *= 2;
        in.bit();  // mb_adaptive_frame_field_flag
    }
    in.bit();             // direct_8x8_inference_flag
    if (in.bit() != 0) {  // frame_cropping_flag
        for (int i = 0; i < 4; ++i)
            in.unsigned_golomb();
    }
    const bool has_vui = in.bit() != 0;
    if (in.is_short()) return {};

    // Profiles without B slices, profiles of nothing but I slices, and pictures that are shown as they come.
    constexpr uint32_t BASELINE = 66, CAVLC_444_INTRA = 44,
                       HIGH_INTRA = 0x10;  // constraint_set3_flag
    if (profile == BASELINE || profile == CAVLC_444_INTRA || order_type == 2)
        return {0, !f_frames_only};
    if ((profile == 100 || profile == 110 || profile == 122 || profile == 244) &&
        (constraints & HIGH_INTRA) != 0)
        return {0, !f_frames_only};
    const int told = has_vui ? reorder_of_vui(in) : -1;
    // Level 1b of the older profiles is level 1.1 with constraint_set3_flag; its limit is that of level 1.
    const bool f_level_1b =
        (profile == 77 || profile == 88) && level == 11 && (constraints & HIGH_INTRA) != 0;
    const int depth = told >= 0 ? told : most_frames(f_level_1b ? 9 : level, width * height);
    return {depth, !f_frames_only};
}

}  // namespace golt

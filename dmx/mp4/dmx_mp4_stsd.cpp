#include "dmx_mp4_stsd.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "dmx_mp4_block.h"
#include "dmx_mp4_box.h"
#include "golt_avcc.h"
#include "golt_reader.h"

namespace mp4 {

namespace {

const char *const WALKER = "_dmx_mp4_parse_stsd";

// Bytes of "avcC" ahead of what is kept: the box header, and of the record all up to the count of its
// sequence parameter sets.
constexpr uint32_t AVCC_KEPT_FROM = BOX_HEADER_SIZE + AVCC_HEAD_SIZE;

bool parse_video_entry(uint32_t ui4_pos, uint32_t ui4_end, uint32_t ui4_type, s_st_v *p_st);
bool parse_audio_entry(uint32_t ui4_pos, uint32_t ui4_end, uint32_t ui4_type, s_st_a *p_st);

}  // namespace

bool _dmx_mp4_parse_stsd(uint32_t ui4_pos, uint32_t ui4_end, s_parse_ctx *p_ctx)
{
    uint32_t ui4_size = 0;
    uint32_t ui4_type = 0;
    if (!_dmx_mp4_get_box_header(ui4_pos, &ui4_size, &ui4_type)) return false;
    const uint32_t ui4_last = last_byte(ui4_pos, ui4_size, ui4_end);
    return p_ctx->ui4_track == TRACK_VIDEO
               ? parse_video_entry(ui4_pos, ui4_last, ui4_type, &dmx_mp4.st_v)
               : parse_audio_entry(ui4_pos, ui4_last, ui4_type, &dmx_mp4.st_a);
}

namespace {

// Video

int32_t _dmx_mp4_gcd(int32_t i4_num_1, int32_t i4_num_2)
{
    if (i4_num_1 == 0) return i4_num_2;
    while (i4_num_2 != 0) {
        // Wider than the numbers: the smallest one has no counterpart to be divided by -1.
        const auto i4_rest = static_cast<int32_t>(int64_t{i4_num_1} % i4_num_2);
        i4_num_1 = i4_num_2;
        i4_num_2 = i4_rest;
    }
    return i4_num_1;
}

// The ratio of the entry's two resolutions in lowest terms; square pixels where both are 0.
void set_pixel_aspect(s_st_v *p_st)
{
    const auto ui4_gcd = static_cast<uint32_t>(_dmx_mp4_gcd(
        static_cast<int32_t>(p_st->ui4_pix_ar_nr), static_cast<int32_t>(p_st->ui4_pix_ar_dr)));
    if (ui4_gcd == 0) {
        p_st->ui4_pix_ar_nr = 1;
        p_st->ui4_pix_ar_dr = 1;
        return;
    }
    p_st->ui4_pix_ar_nr /= ui4_gcd;
    p_st->ui4_pix_ar_dr /= ui4_gcd;
}

// What is kept of "avcC" (ISO/IEC 14496-15) at ui4_pos, in an entry that ends at ui4_end: from the
// count of its sequence parameter sets on.
read_result_t read_parameter_sets(uint32_t ui4_pos, uint32_t ui4_block, uint32_t ui4_end,
                                  heap_array<uint8_t> *p_hdr)
{
    const uint64_t ui8_block_pos = uint64_t{ui4_pos} + AVCC_KEPT_FROM;
    if (!may_reach(ui8_block_pos, ui4_block, ui4_end)) return READ_SHORT;
    return read_array(ui8_block_pos, ui4_block, p_hdr);
}

bool parse_avcc(uint32_t ui4_pos, uint32_t ui4_end, s_st_v *p_st)
{
    const uint32_t ui4_size = _dmx_mp4_goto_box(box_type("avcC"), &ui4_pos, ui4_end);
    if (ui4_size == 0) {
        puts("GOLT/mp4: 'avcC' box not found");
        return false;
    }
    const uint32_t ui4_block = ui4_size - AVCC_KEPT_FROM;
    heap_array<uint8_t> pb_hdr;
    const read_result_t result = ui4_size < AVCC_KEPT_FROM
                                     ? READ_NO_MEMORY
                                     : read_parameter_sets(ui4_pos, ui4_block, ui4_end, &pb_hdr);
    // A box too short to have anything that could be kept reports a negative size.
    if (result == READ_NO_MEMORY)
        printf("GOLT/mp4: Couldn't alloc %d bytes for 'avcC' header\n",
               static_cast<int>(ui4_block));
    if (result != READ_WHOLE) return false;
    std::free(p_st->pb_hdr);
    p_st->pb_hdr = pb_hdr.release();
    p_st->ui4_hdr_block_size = ui4_block;
    return true;
}

bool parse_video_entry(uint32_t ui4_pos, uint32_t ui4_end, uint32_t ui4_type, s_st_v *p_st)
{
    if (ui4_type != box_type("avc1")) {
        printf("GOLT/mp4: Unsupported Video Codec format '%c%c%c%c'\n",
               static_cast<int>(ui4_type >> 24), static_cast<int>(ui4_type >> 16 & 0xFF),
               static_cast<int>(ui4_type >> 8 & 0xFF), static_cast<int>(ui4_type & 0xFF));
        return false;
    }
    p_st->tr.ui4_format = GOLT_VCODEC_H264;
    const uint64_t ui8_pos = ui4_pos;
    if (!read_be16_at(ui8_pos + 32, &p_st->ui2_width)) return false;
    if (!read_be16_at(ui8_pos + 34, &p_st->ui2_height)) return false;
    if (!read_be32_at(ui8_pos + 36, &p_st->ui4_pix_ar_nr)) return false;
    if (!read_be32_at(ui8_pos + 40, &p_st->ui4_pix_ar_dr)) return false;
    set_pixel_aspect(p_st);
    return parse_avcc(ui4_pos + 86, ui4_end, p_st);
}

// Audio

void set_format(uint32_t ui4_format, const char *name, s_st_a *p_st)
{
    printf("GOLT/mp4: %s: Audio format: %s\n", WALKER, name);
    p_st->tr.ui4_format = ui4_format;
}

// Sampling frequency of an AudioSpecificConfig (ISO/IEC 14496-3). Bytes that it doesn't have are 0.
uint32_t sampling_frequency(golt_reader_t t_config)
{
    static const uint32_t aui4_sr_table[16] = {96000, 88200, 64000, 48000, 44100, 32000,
                                               24000, 22050, 16000, 12000, 11025, 8000,
                                               7350,  0,     0,     0};
    constexpr uint32_t ESCAPE_TYPE = 31;
    constexpr uint32_t ESCAPE_INDEX = 15;
    const uint32_t b0 = t_config.get_u8(), b1 = t_config.get_u8(), b2 = t_config.get_u8(),
                   b3 = t_config.get_u8(), b4 = t_config.get_u8();
    const uint32_t ui4_base_object_type = b0 >> 3;
    if (ui4_base_object_type == ESCAPE_TYPE) {
        const uint32_t ui4_sr_index = b1 >> 1 & 0xF;
        return ui4_sr_index == ESCAPE_INDEX ? b2 << 15 | b3 << 7 | b4 >> 1
                                            : aui4_sr_table[ui4_sr_index];
    }
    const uint32_t ui4_sr_index = (b0 & 7) << 1 | b1 >> 7;
    return ui4_sr_index == ESCAPE_INDEX ? b2 << 9 | b3 << 1 | b4 >> 7 : aui4_sr_table[ui4_sr_index];
}

// Length of a descriptor (ISO/IEC 14496-1), of one byte or of four.
uint8_t get_length(golt_reader_t *p_descriptors)
{
    constexpr uint8_t LONG_LENGTH = 0x80;
    const uint8_t ui1_length = p_descriptors->get_u8();
    if (ui1_length != LONG_LENGTH) return ui1_length;
    p_descriptors->skip(2);
    return p_descriptors->get_u8();
}

// "esds" (ISO/IEC 14496-14): the descriptors are walked by fixed steps; their tags are ignored.
bool parse_esds(uint32_t ui4_pos, uint32_t ui4_end, s_st_a *p_st)
{
    constexpr uint32_t DESCRIPTORS = 12;  // bytes from the start of the box
    constexpr uint32_t TAG = 1;
    constexpr uint32_t ES_ID_AND_FLAGS = 3;
    constexpr uint32_t REST_OF_CONFIG = 12;  // stream type, size of the buffer, rates
    constexpr uint8_t OBJECT_TYPE_AAC = 0x40;
    constexpr uint8_t OBJECT_TYPE_MP3 = 0x6B;
    const uint32_t ui4_size = _dmx_mp4_goto_box(box_type("esds"), &ui4_pos, ui4_end);
    if (ui4_size == 0) return false;
    const uint64_t ui8_pos = uint64_t{ui4_pos} + DESCRIPTORS;
    // What is read takes up to 31 bytes; those that a shorter box doesn't have are 0.
    uint8_t ab_buf[256] = {};
    if (!read_at(ui8_pos, ab_buf, std::min<uint32_t>(ui4_size, sizeof ab_buf))) return false;

    golt_reader_t t_descriptors(ab_buf, sizeof ab_buf);
    t_descriptors.skip(TAG);
    get_length(&t_descriptors);
    t_descriptors.skip(ES_ID_AND_FLAGS + TAG);
    get_length(&t_descriptors);
    const uint8_t ui1_object_type = t_descriptors.get_u8();
    if (ui1_object_type == OBJECT_TYPE_AAC)
        set_format(GOLT_ACODEC_AAC, "AAC", p_st);
    else if (ui1_object_type == OBJECT_TYPE_MP3)
        set_format(GOLT_ACODEC_MP3, "MP3", p_st);
    t_descriptors.skip(REST_OF_CONFIG + TAG);
    const uint8_t ui1_size = get_length(&t_descriptors);

    const uint32_t ui4_passed = sizeof ab_buf - t_descriptors.left();
    if (!read_at(ui8_pos + ui4_passed, ab_buf, ui1_size)) return false;
    // Only AAC has such a block, of two bytes; all others keep the rate of the sample entry.
    if (ui1_object_type == OBJECT_TYPE_AAC && ui1_size >= 2)
        p_st->ui4_sfreq = sampling_frequency(golt_reader_t(ab_buf, ui1_size));
    return true;
}

bool parse_audio_entry(uint32_t ui4_pos, uint32_t ui4_end, uint32_t ui4_type, s_st_a *p_st)
{
    switch (ui4_type) {
    case box_type("mp4a"): break;
    case box_type("ac-3"): set_format(GOLT_ACODEC_AC3, "AC3", p_st); break;
    case box_type("ec-3"): set_format(GOLT_ACODEC_EAC3, "EAC3", p_st); break;
    default:
        printf("GOLT/mp4: %s: Audio format: '%c%c%c%c' unsupported\n", WALKER,
               static_cast<int>(ui4_type >> 24), static_cast<int>(ui4_type >> 16 & 0xFF),
               static_cast<int>(ui4_type >> 8 & 0xFF), static_cast<int>(ui4_type & 0xFF));
        return false;
    }
    uint16_t ui2_channels = 0;
    uint16_t ui2_rate = 0;
    if (!read_be16_at(uint64_t{ui4_pos} + 24, &ui2_channels)) return false;
    p_st->ui2_channels = ui2_channels;
    if (!read_be16_at(uint64_t{ui4_pos} + 32, &ui2_rate)) return false;
    p_st->ui4_sfreq = ui2_rate;
    return ui4_type != box_type("mp4a") || parse_esds(ui4_pos + 36, ui4_end, p_st);
}

}  // namespace

}  // namespace mp4

#include "dmx_mkv_lib.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "golt_endian.h"
#include "golt_mem.h"

namespace {

// Element IDs with their marker (RFC 8794, RFC 9559).
enum : int32_t {
    ID_EBML = 0x1A45DFA3,
    ID_VOID = 0xEC,
    ID_SEGMENT = 0x18538067,

    ID_SEEK_HEAD = 0x114D9B74,
    ID_SEEK = 0x4DBB,
    ID_SEEK_ID = 0x53AB,
    ID_SEEK_POSITION = 0x53AC,

    ID_INFO = 0x1549A966,
    ID_SEGMENT_UID = 0x73A4,
    ID_SEGMENT_FILENAME = 0x7384,
    ID_PREV_UID = 0x3CB923,
    ID_PREV_FILENAME = 0x3C83AB,
    ID_NEXT_UID = 0x3EB923,
    ID_NEXT_FILENAME = 0x3E83BB,
    ID_TIMECODE_SCALE = 0x2AD7B1,
    ID_DURATION = 0x4489,
    ID_DATE_UTC = 0x4461,
    ID_TITLE = 0x7BA9,
    ID_MUXING_APP = 0x4D80,
    ID_WRITING_APP = 0x5741,

    ID_TRACKS = 0x1654AE6B,
    ID_TRACK_ENTRY = 0xAE,
    ID_TRACK_NUMBER = 0xD7,
    ID_TRACK_UID = 0x73C5,
    ID_TRACK_TYPE = 0x83,
    ID_FLAG_ENABLED = 0xB9,
    ID_FLAG_DEFAULT = 0x88,
    ID_FLAG_FORCED = 0x55AA,
    ID_FLAG_LACING = 0x9C,
    ID_MIN_CACHE = 0x6DE7,
    ID_MAX_CACHE = 0x6DF8,
    ID_DEFAULT_DURATION = 0x23E383,
    ID_TRACK_TIMECODE_SCALE = 0x23314F,
    ID_MAX_BLOCK_ADDITION_ID = 0x55EE,
    ID_NAME = 0x536E,
    ID_LANGUAGE = 0x22B59C,
    ID_CODEC_ID = 0x86,
    ID_CODEC_PRIVATE = 0x63A2,
    ID_CODEC_NAME = 0x258688,
    ID_CODEC_DECODE_ALL = 0xAA,
    ID_ATTACHMENT_LINK = 0x7446,

    ID_VIDEO = 0xE0,
    ID_PIXEL_WIDTH = 0xB0,
    ID_PIXEL_HEIGHT = 0xBA,
    ID_PIXEL_CROP_BOTTOM = 0x54AA,
    ID_PIXEL_CROP_TOP = 0x54BB,
    ID_PIXEL_CROP_LEFT = 0x54CC,
    ID_PIXEL_CROP_RIGHT = 0x54DD,
    ID_DISPLAY_WIDTH = 0x54B0,
    ID_DISPLAY_HEIGHT = 0x54BA,
    ID_DISPLAY_UNIT = 0x54B2,
    ID_FLAG_INTERLACED = 0x9A,

    ID_AUDIO = 0xE1,
    ID_SAMPLING_FREQUENCY = 0xB5,
    ID_OUTPUT_SAMPLING_FREQUENCY = 0x78B5,
    ID_CHANNELS = 0x9F,
    ID_BIT_DEPTH = 0x6264,

    ID_CONTENT_ENCODINGS = 0x6D80,
    ID_CONTENT_ENCODING = 0x6240,
    ID_CONTENT_ENCODING_ORDER = 0x5031,
    ID_CONTENT_ENCODING_SCOPE = 0x5032,
    ID_CONTENT_ENCODING_TYPE = 0x5033,
    ID_CONTENT_COMPRESSION = 0x5034,
    ID_CONTENT_ENCRYPTION = 0x5035,
    ID_CONTENT_COMP_ALGO = 0x4254,
    ID_CONTENT_COMP_SETTINGS = 0x4255,

    ID_CUES = 0x1C53BB6B,
    ID_CUE_POINT = 0xBB,
    ID_CUE_TIME = 0xB3,
    ID_CUE_TRACK_POSITIONS = 0xB7,
    ID_CUE_TRACK = 0xF7,
    ID_CUE_CLUSTER_POSITION = 0xF1,
    ID_CUE_BLOCK_NUMBER = 0x5378,

    ID_CLUSTER = 0x1F43B675,
    ID_TIMECODE = 0xE7,
    ID_POSITION = 0xA7,
    ID_PREV_SIZE = 0xAB,
    ID_SIMPLE_BLOCK = 0xA3,
    ID_BLOCK_GROUP = 0xA0,
    ID_BLOCK = 0xA1,
    ID_BLOCK_DURATION = 0x9B,
    ID_REFERENCE_BLOCK = 0xFB,
    ID_BLOCK_VIRTUAL = 0xA2,
    ID_NUMBER_92 = 0x92,  // no element of today's format; taken as a number
};

constexpr uint32_t TRACKS_MAX = 20;

constexpr uint32_t TRACK_TYPE_VIDEO = 1;
constexpr uint32_t TRACK_TYPE_AUDIO = 2;

constexpr uint32_t ID_WIDTH_MAX = 4;
constexpr uint32_t SIZE_WIDTH_MAX = 8;

// Unreadable headers in a row, each at least a byte, after which the rest of a master is given up.
// It covers the remainder that a block may leave in front of the next element, at most 255 bytes.
constexpr uint32_t DAMAGED_MAX = 256;

constexpr uint32_t AUDIO_SPARE = 256;   // bytes beyond an audio frame
constexpr uint32_t VIDEO_SPARE = 2048;  // bytes beyond a video block's payload

// A payload up to the first limit gets its memory at once; of a larger one so much has to come
// first. One above the second is no frame of any stream that a player gets: 64 MiB is more than a
// second of video at the highest bit rate of H.264 level 5.1.
constexpr uint32_t PAYLOAD_AT_ONCE_MAX = 16u << 20;
constexpr uint32_t PAYLOAD_MAX = 64u << 20;

// Block flags.
constexpr uint8_t LACING_MASK = 0x06;
enum : int { LACING_NONE = 0, LACING_XIPH = 1, LACING_FIXED = 2, LACING_EBML = 3 };
constexpr uint32_t LACED_COUNTS = 256;  // numbers that a lace's frame count can take

constexpr uint8_t START_CODE[MKV_START_CODE_SIZE] = {0, 0, 0, 1};
// What is read together with a NAL unit's length: with its 3 or 4 bytes, 2 or 1 of the unit.
constexpr uint32_t NAL_HEAD_SIZE = 5;

constexpr uint8_t AC3_SYNC[] = {0x0B, 0x77};
constexpr uint32_t AC3_SYNC_SIZE = sizeof AC3_SYNC;

// Biases of the signed variable-length integers by width less one.
const uint32_t vsint_sub[] = {0x3F, 0x1FFF, 0xFFFFF, 0x7FFFFFF};

// AC-3 frame sizes in words of 16 bits (ATSC A/52), by the frame size code.
const uint32_t FrameSizeTable_48000[] = {64,  64,  80,   80,   96,   96,   112,  112, 128, 128,
                                         160, 160, 192,  192,  224,  224,  256,  256, 320, 320,
                                         384, 384, 448,  448,  512,  512,  640,  640, 768, 768,
                                         896, 896, 1024, 1024, 1152, 1152, 1280, 1280};
const uint32_t FrameSizeTable_44100[] = {69,  70,  87,   88,   104,  105,  121,  122, 139, 140,
                                         174, 175, 208,  209,  243,  244,  278,  279, 348, 349,
                                         417, 418, 487,  488,  557,  558,  696,  697, 835, 836,
                                         975, 976, 1114, 1115, 1253, 1254, 1393, 1394};
const uint32_t FrameSizeTable_32000[] = {96,   96,   120,  120,  144,  144,  168,  168, 192,  192,
                                         240,  240,  288,  288,  336,  336,  384,  384, 480,  480,
                                         576,  576,  672,  672,  768,  768,  960,  960, 1152, 1152,
                                         1344, 1344, 1536, 1536, 1728, 1728, 1920, 1920};

constexpr TRACK_ENTRY default_entry()
{
    TRACK_ENTRY t_entry = {};
    t_entry.FlagEnabled = 1;
    t_entry.FlagDefault = 1;
    t_entry.TrackName[0] = ' ';
    t_entry.TrackLanguage[0] = 'e';
    t_entry.TrackLanguage[1] = 'n';
    t_entry.TrackLanguage[2] = 'g';
    t_entry.TrackCodecID[0] = ' ';
    t_entry.TrackCodecName[0] = ' ';
    t_entry.audio.SamplingFrequency = 8000;
    t_entry.audio.Channels = 1;
    t_entry.encoding.ContentEncodingScope = 1;
    return t_entry;
}

constexpr TRACK_ENTRY DefaultEntry = default_entry();

// One element's header. ID 0: it couldn't be read.
struct element_t {
    int32_t ID;
    uint32_t Len[2];
    uint32_t cur_used;
};

bool read_element(element_t &t_element);
bool is_given_up();
void skip(const element_t &t_element);
uint32_t value32(const element_t &t_element);
uint32_t hex_id(const element_t &t_element);

// The children of one master element, one behind the other. What a child's handling does to the
// position doesn't count: the walk adds up declared sizes and ends when they reach the master's.
class child_walk_t {
public:
    child_walk_t(uint64_t ui8_sum, uint64_t ui8_end)
        : m_sum(ui8_sum)
        , m_end(ui8_end)
    {
    }

    // The first child is read also from a master of size 0. False behind the last one and at the
    // end of the input.
    bool next(element_t &t_child)
    {
        if (m_started && m_sum >= m_end) return false;
        m_started = true;
        if (!read_element(t_child)) return false;
        m_sum += t_child.cur_used;
        // Where so much is damaged, the next place to trust is the one behind the master.
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

child_walk_t children_of(const uint32_t *Len, uint32_t used);

}  // namespace

// EBML reader

int64_t _MKV_Seek(int64_t pos)
{
    const int64_t i8_result = mkvctx.MKV_tpf_seeker(mkvctx.MKV_file_handle, pos);
    if (i8_result == 0) mkvctx.MKV_file_pos = pos;
    return i8_result;
}

int64_t _MKV_FilePos()
{
    return mkvctx.MKV_file_pos;
}

uint32_t _MKV_Read(void *buf, int nbytes)
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

uint32_t _GetBytes(void *buf, int nbytes)
{
    return nbytes > 0 ? _MKV_Read(buf, nbytes) : 0;
}

namespace {

uint32_t get_bytes(uint8_t *pb, uint32_t ui4_size)
{
    return _GetBytes(pb, static_cast<int>(ui4_size));
}

bool get_all(uint8_t *pb, uint32_t ui4_size)
{
    return get_bytes(pb, ui4_size) == ui4_size;
}

// Absolute position ui4_size bytes further on.
int64_t position_after(uint32_t ui4_size)
{
    return static_cast<int64_t>(static_cast<uint64_t>(_MKV_FilePos()) + ui4_size);
}

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

}  // namespace

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

namespace {

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

float FileGetFloat(uint32_t Len)
{
    switch (Len) {
    case 4: return decode_float(FileGetEBMLData(4), 8, 23);
    case 8: return decode_float(FileGetEBMLData(8), 11, 52);
    default: _MKV_Seek(position_after(Len)); return 0.0f;
    }
}

namespace {

// A header that can't be read is an element without a payload, as long as the bytes that it took,
// so that the reading goes on behind them. False when not even one byte came.
bool read_element(element_t &t_element)
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

bool is_given_up()
{
    return mkvctx.ui4_damaged > DAMAGED_MAX;
}

// A seek that fails leaves the position where it is; the next header is then read from there.
void skip(const element_t &t_element)
{
    _MKV_Seek(position_after(t_element.Len[1]));
}

// The element's value as a number, cut to 32 bits.
uint32_t value32(const element_t &t_element)
{
    return static_cast<uint32_t>(FileGetEBMLData(t_element.Len[1]));
}

uint8_t value8(const element_t &t_element)
{
    return static_cast<uint8_t>(FileGetEBMLData(t_element.Len[1]));
}

template <uint32_t size> void copy_to(uint8_t (&ab_field)[size], const element_t &t_element)
{
    FileCopyEBML_Buff(ab_field, t_element.Len[1], size);
}

// As the messages show it.
uint32_t hex_id(const element_t &t_element)
{
    return static_cast<uint32_t>(t_element.ID);
}

child_walk_t children_of(const uint32_t *Len, uint32_t used)
{
    return {used, uint64_t{used} + Len[1]};
}

}  // namespace

// Header scan

namespace {

enum class cues_t { to_come, not_to_be_had };
cues_t goto_cues(const element_t &t_cluster);

}  // namespace

int32_t EMBL_Header_Analyze()
{
    uint32_t stage = 0;
    int32_t found = 0;  // a Cluster, or Cues, which lead to some: without them nothing can be read
    element_t t_element;
    while (read_element(t_element) && !is_given_up()) {
        switch (t_element.ID) {
        case ID_EBML:
        case ID_VOID: skip(t_element); break;
        case ID_SEGMENT:
            // Not skipped: its children and the top level are one flat sequence.
            mkvctx.SegInfo.SegmentLen = uint64_t{t_element.Len[0]} << 32 | t_element.Len[1];
            mkvctx.SegInfo.SegFileStartPos = static_cast<uint32_t>(_MKV_FilePos());
            break;
        case ID_SEEK_HEAD: FileEMBL_Check_SeekHead(t_element.Len, t_element.cur_used); break;
        case ID_INFO: FileEMBL_Check_SegmentInfo(t_element.Len, t_element.cur_used); break;
        case ID_TRACKS: FileEMBL_Check_TRACK(t_element.Len, t_element.cur_used); break;
        case ID_CUES:
            found = 1;
            FileEMBL_Check_Cue(t_element.Len, t_element.cur_used);
            if (stage != 0) return found;
            stage = 1;
            break;
        case ID_CLUSTER:
            found = 1;
            if (goto_cues(t_element) == cues_t::not_to_be_had || stage != 0) return found;
            stage = 1;
            break;
        default: printf("error MKV header ID: 0x%08X\n", hex_id(t_element)); skip(t_element);
        }
    }
    return found;
}

namespace {

// Notes where the Cluster begins whose header has just been read, and moves to the cues.
cues_t goto_cues(const element_t &t_cluster)
{
    mkvctx.ClusterStartPos = static_cast<uint32_t>(_MKV_FilePos()) - t_cluster.cur_used;
    const uint64_t ui8_cues = mkvctx.SegInfo.SeekCuePos;
    if (ui8_cues == 0 || _MKV_Seek(static_cast<int64_t>(ui8_cues)) != 0)
        return cues_t::not_to_be_had;
    return cues_t::to_come;
}

SEEK_HEAD_CHILD read_seek(const element_t &t_seek)
{
    SEEK_HEAD_CHILD t_entry = {};
    child_walk_t t_walk = children_of(t_seek.Len, t_seek.cur_used);
    element_t t_child;
    while (t_walk.next(t_child)) {
        switch (t_child.ID) {
        case ID_SEEK_ID: t_entry.SeekID = value32(t_child); break;
        case ID_SEEK_POSITION: t_entry.SeekPostion = FileGetEBMLData(t_child.Len[1]); break;
        default: printf("error SeekHead child ID: 0x%08X\n", hex_id(t_child)); skip(t_child);
        }
    }
    return t_entry;
}

}  // namespace

int32_t FileEMBL_Check_SeekHead(uint32_t *Len, uint32_t used)
{
    SEGMENT_INFO &t_segment = mkvctx.SegInfo;
    child_walk_t t_walk = children_of(Len, used);
    element_t t_child;
    while (t_walk.next(t_child)) {
        if (t_child.ID != ID_SEEK) {
            printf("error SeekHead ID: 0x%08X\n", hex_id(t_child));
            skip(t_child);
            continue;
        }
        // Of several entries for one element the last one stands.
        const SEEK_HEAD_CHILD t_seek = read_seek(t_child);
        const uint64_t ui8_pos = t_seek.SeekPostion;
        if (t_seek.SeekID == ID_TRACKS) t_segment.SeekTrackPos = static_cast<uint32_t>(ui8_pos);
        if (t_seek.SeekID == ID_CUES)
            t_segment.SeekCuePos = ui8_pos != 0 ? ui8_pos + t_segment.SegFileStartPos : 0;
    }
    return 1;
}

int32_t FileEMBL_Check_SegmentInfo(uint32_t *Len, uint32_t used)
{
    SEGMENT_INFO &t_segment = mkvctx.SegInfo;
    child_walk_t t_walk = children_of(Len, used);
    element_t t_child;
    while (t_walk.next(t_child)) {
        switch (t_child.ID) {
        case ID_SEGMENT_UID: copy_to(t_segment.SegmentUID, t_child); break;
        case ID_SEGMENT_FILENAME: copy_to(t_segment.SegmentFileName, t_child); break;
        case ID_PREV_UID: copy_to(t_segment.PrevUID, t_child); break;
        case ID_PREV_FILENAME: copy_to(t_segment.PrevFileName, t_child); break;
        case ID_NEXT_UID: copy_to(t_segment.NextUID, t_child); break;
        case ID_NEXT_FILENAME: copy_to(t_segment.NextFileName, t_child); break;
        case ID_TIMECODE_SCALE: t_segment.TimeCodeScale = value32(t_child); break;
        case ID_DURATION: t_segment.Duration = to_uint32(FileGetFloat(t_child.Len[1])); break;
        case ID_TITLE: copy_to(t_segment.SegmentTitle, t_child); break;
        case ID_MUXING_APP: copy_to(t_segment.SegmentMuxingApp, t_child); break;
        case ID_WRITING_APP: copy_to(t_segment.SegmentWritingApp, t_child); break;
        case ID_DATE_UTC: skip(t_child); break;
        default: printf("error SegmentInfo ID: 0x%08X\n", hex_id(t_child)); skip(t_child);
        }
    }
    return 1;
}

namespace {

// The fields of a CuePoint without which it leads nowhere.
struct cue_fields_t {
    bool f_time;
    bool f_position;
};

void read_cue_track(const element_t &t_positions, CUE_TRACK_POSITION &t_track, cue_fields_t &t_has)
{
    child_walk_t t_walk = children_of(t_positions.Len, t_positions.cur_used);
    element_t t_child;
    while (t_walk.next(t_child)) {
        switch (t_child.ID) {
        case ID_CUE_TRACK: t_track.CueTrack = value32(t_child); break;
        case ID_CUE_CLUSTER_POSITION:
            t_track.CueClusterPosition = FileGetEBMLData(t_child.Len[1]);
            t_has.f_position = true;
            break;
        case ID_CUE_BLOCK_NUMBER: t_track.CueBlockNumber = value32(t_child); break;
        default: printf("error cue track ID:0x%X\n", hex_id(t_child)); skip(t_child);
        }
    }
}

// False for a CuePoint that lacks its time or its position.
bool read_cue_point(const element_t &t_point, CUE_POINT_STRUCT &t_cue)
{
    t_cue = {};
    cue_fields_t t_has = {};
    child_walk_t t_walk = children_of(t_point.Len, t_point.cur_used);
    element_t t_child;
    while (t_walk.next(t_child)) {
        switch (t_child.ID) {
        case ID_CUE_TIME:
            t_cue.CueTime = value32(t_child);
            t_has.f_time = true;
            break;
        case ID_CUE_TRACK_POSITIONS: read_cue_track(t_child, t_cue.CueTrack, t_has); break;
        default: printf("error cue point ID: 0x%08X\n", hex_id(t_child)); skip(t_child);
        }
    }
    return t_has.f_time && t_has.f_position;
}

}  // namespace

int32_t FileEMBL_Check_Cue(uint32_t *Len, uint32_t used)
{
    uint32_t count = 0;
    child_walk_t t_walk = children_of(Len, used);
    element_t t_child;
    while (t_walk.next(t_child)) {
        if (t_child.ID != ID_CUE_POINT) {
            printf("error cue ID:0x%X\n", hex_id(t_child));
            skip(t_child);
            continue;
        }
        CUE_POINT_STRUCT t_cue;
        if (!read_cue_point(t_child, t_cue)) continue;
        // A full table goes on in its last slot, so that it still reaches up to the last cue.
        const uint32_t slot = std::min(count, MKV_CUES_MAX - 1);
        mkvctx.Cue[slot] = t_cue;
        count = slot + 1;
    }
    mkvctx.TotalNumOfCues = count;
    return 1;
}

// Tracks

namespace {

void read_track_entry(const element_t &t_element, TRACK_ENTRY &t_entry);
void choose_audio(const TRACK_ENTRY *pt_entries, uint32_t count);
void choose_video(const TRACK_ENTRY *pt_entries, uint32_t count);
PARAMETER_SETS parameter_sets_of(const CODEC_PRIVATE &t_private);

}  // namespace

int32_t FileEMBL_Check_TRACK(uint32_t *Len, uint32_t used)
{
    TRACK_ENTRY at_entries[TRACKS_MAX];
    uint32_t count = 0;
    child_walk_t t_walk = children_of(Len, used);
    element_t t_child;
    while (t_walk.next(t_child)) {
        if (t_child.ID != ID_TRACK_ENTRY) {
            printf("error Tracks  ID: 0x%08X\n", hex_id(t_child));
            skip(t_child);
            continue;
        }
        // A full table goes on in its last slot.
        const uint32_t slot = std::min(count, TRACKS_MAX - 1);
        at_entries[slot] = DefaultEntry;
        read_track_entry(t_child, at_entries[slot]);
        count = slot + 1;
    }
    choose_audio(at_entries, count);
    choose_video(at_entries, count);
    return 1;
}

namespace {

void read_codec_private(const element_t &t_element, CODEC_PRIVATE &t_private)
{
    t_private.len = std::min(t_element.Len[1], MKV_CODEC_PRIVATE_MAX);
    copy_to(t_private.data, t_element);
}

void read_track_entry(const element_t &t_element, TRACK_ENTRY &t_entry)
{
    // Two bytes or less behind the last child are left to the walk over Tracks.
    constexpr uint32_t LEFT_OVER = 2;
    child_walk_t t_walk(t_element.cur_used,
                        uint64_t{t_element.cur_used} + t_element.Len[1] - LEFT_OVER);
    element_t t_child;
    while (t_walk.next(t_child)) {
        uint32_t *const Len = t_child.Len;
        const uint32_t used = t_child.cur_used;
        switch (t_child.ID) {
        case ID_TRACK_NUMBER: t_entry.TrackNumber = value32(t_child); break;
        case ID_TRACK_UID: t_entry.TrackUID = value32(t_child); break;
        case ID_TRACK_TYPE: t_entry.TrackType = value32(t_child); break;
        case ID_FLAG_ENABLED: t_entry.FlagEnabled = value8(t_child); break;
        case ID_FLAG_DEFAULT: t_entry.FlagDefault = value8(t_child); break;
        case ID_FLAG_FORCED: t_entry.FlagFoeced = value8(t_child); break;
        case ID_FLAG_LACING: t_entry.FlagLacing = value8(t_child); break;
        case ID_MIN_CACHE: t_entry.MinCache = value32(t_child); break;
        case ID_MAX_CACHE: t_entry.MaxCache = value32(t_child); break;
        case ID_DEFAULT_DURATION: t_entry.DefaultDuration = value32(t_child); break;
        case ID_TRACK_TIMECODE_SCALE: t_entry.TrackTimeCodeScale = FileGetFloat(Len[1]); break;
        case ID_NAME: copy_to(t_entry.TrackName, t_child); break;
        case ID_LANGUAGE: copy_to(t_entry.TrackLanguage, t_child); break;
        case ID_CODEC_ID:
            FileCopyEBML_Buff(reinterpret_cast<uint8_t *>(t_entry.TrackCodecID), Len[1],
                              sizeof t_entry.TrackCodecID);
            break;
        case ID_CODEC_NAME: copy_to(t_entry.TrackCodecName, t_child); break;
        case ID_ATTACHMENT_LINK: t_entry.AtachmentLink = value32(t_child); break;
        case ID_VIDEO: FileEMBL_Check_Video(Len, used, &t_entry.video); break;
        case ID_AUDIO: FileEMBL_Check_Audio(Len, used, &t_entry.audio); break;
        case ID_CONTENT_ENCODINGS: FileEMBL_Check_Encoding(Len, used, &t_entry.encoding); break;
        case ID_CODEC_PRIVATE: read_codec_private(t_child, t_entry.codecPrivate); break;
        case ID_CODEC_DECODE_ALL:
        case ID_MAX_BLOCK_ADDITION_ID: skip(t_child); break;
        default: printf("error Track entry ID: 0x%08X\n", hex_id(t_child)); skip(t_child);
        }
    }
}

}  // namespace

int32_t FileEMBL_Check_Video(uint32_t *Len, uint32_t used, TRACK_VIDEO *video)
{
    child_walk_t t_walk = children_of(Len, used);
    element_t t_child;
    while (t_walk.next(t_child)) {
        switch (t_child.ID) {
        case ID_PIXEL_WIDTH: video->PixelWidth = value32(t_child); break;
        case ID_PIXEL_HEIGHT: video->PixelHeight = value32(t_child); break;
        case ID_PIXEL_CROP_BOTTOM: video->PixelCropBottom = value32(t_child); break;
        case ID_PIXEL_CROP_TOP: video->PixelCropTop = value32(t_child); break;
        case ID_PIXEL_CROP_LEFT: video->PixelCropLeft = value32(t_child); break;
        case ID_PIXEL_CROP_RIGHT: video->PixelCropRight = value32(t_child); break;
        case ID_DISPLAY_WIDTH: video->DisplayWidth = value32(t_child); break;
        case ID_DISPLAY_HEIGHT: video->DisplayHeight = value32(t_child); break;
        case ID_DISPLAY_UNIT: video->DisplayUnit = value32(t_child); break;
        case ID_FLAG_INTERLACED: video->interlace_flag = value32(t_child); break;
        default: printf("error video ID: 0x%08X\n", hex_id(t_child)); skip(t_child);
        }
    }
    return 1;
}

int32_t FileEMBL_Check_Audio(uint32_t *Len, uint32_t used, TRACK_AUDIO *audio)
{
    child_walk_t t_walk = children_of(Len, used);
    element_t t_child;
    while (t_walk.next(t_child)) {
        switch (t_child.ID) {
        case ID_SAMPLING_FREQUENCY:
            audio->SamplingFrequency = to_uint32(FileGetFloat(t_child.Len[1]));
            break;
        case ID_OUTPUT_SAMPLING_FREQUENCY:
            audio->OutputSamplingFrequency = to_uint32(FileGetFloat(t_child.Len[1]));
            break;
        case ID_CHANNELS: audio->Channels = value32(t_child); break;
        case ID_BIT_DEPTH: audio->BitDepth = value32(t_child); break;
        default: printf("error audio ID: 0x%08X\n", hex_id(t_child)); skip(t_child);
        }
    }
    return 1;
}

namespace {

void read_compression(const element_t &t_element, CONTENT_COMPRESSION &t_compression)
{
    child_walk_t t_walk = children_of(t_element.Len, t_element.cur_used);
    element_t t_child;
    while (t_walk.next(t_child)) {
        switch (t_child.ID) {
        case ID_CONTENT_COMP_ALGO: t_compression.ContentCompAlgo = value32(t_child); break;
        case ID_CONTENT_COMP_SETTINGS: t_compression.ContentCompSetting = value8(t_child); break;
        default: printf("error compression ID: 0x%08X\n", hex_id(t_child)); skip(t_child);
        }
    }
}

}  // namespace

int32_t FileEMBL_Check_Encoding(uint32_t *Len, uint32_t used, TRACK_ENCODING *encoding)
{
    child_walk_t t_walk = children_of(Len, used);
    element_t t_child;
    while (t_walk.next(t_child)) {
        switch (t_child.ID) {
        case ID_CONTENT_ENCODING_ORDER: encoding->ContentEncodingOrder = value32(t_child); break;
        case ID_CONTENT_ENCODING_SCOPE: encoding->ContentEncodingScope = value32(t_child); break;
        case ID_CONTENT_ENCODING_TYPE: encoding->ContentEncodingType = value32(t_child); break;
        case ID_CONTENT_COMPRESSION: read_compression(t_child, encoding->Compression); break;
        case ID_CONTENT_ENCRYPTION:
        case ID_CONTENT_ENCODING: skip(t_child); break;
        default: printf("error encoding ID: 0x%08X\n", hex_id(t_child)); skip(t_child);
        }
    }
    return 1;
}

namespace {

bool has_text(const TRACK_ENTRY &t_entry, const char *pc_text)
{
    const std::string_view codec_id(t_entry.TrackCodecID,
                                    strnlen(t_entry.TrackCodecID, sizeof t_entry.TrackCodecID));
    return codec_id.find(pc_text) != std::string_view::npos;
}

// A number above 255 doesn't fit its field; cut, it would match the blocks of another track.
uint8_t block_track_number(const TRACK_ENTRY &t_entry)
{
    return t_entry.TrackNumber <= 0xFF ? static_cast<uint8_t>(t_entry.TrackNumber) : 0;
}

GOLT_codecs_t audio_codec_of(const TRACK_ENTRY &t_entry)
{
    // Part of the codec ID, codec.
    static const struct {
        const char *pc_text;
        GOLT_codecs_t codec;
    } rows[] = {
        {"A_AC3", GOLT_ACODEC_AC3},
        {"A_AAC", GOLT_ACODEC_AAC},
        {"A_MPEG/L3", GOLT_ACODEC_MP3},
    };
    for (const auto &row : rows) {
        if (has_text(t_entry, row.pc_text)) return row.codec;
    }
    return GOLT_CODEC_UNKNOWN;
}

// The first audio track of a known codec. Without one, the description of the last audio track
// stays behind, but no number that a block could match.
void choose_audio(const TRACK_ENTRY *pt_entries, uint32_t count)
{
    AUDIO_FRAME_INFO &t_audio = *mkvctx.AudioFrameInfo;
    for (uint32_t i = 0; i < count; ++i) {
        const TRACK_ENTRY &t_entry = pt_entries[i];
        if (t_entry.TrackType != TRACK_TYPE_AUDIO) continue;
        const GOLT_codecs_t codec = audio_codec_of(t_entry);
        const bool f_known = codec != GOLT_CODEC_UNKNOWN;
        t_audio.initialed = 1;
        t_audio.TrackNumber = f_known ? block_track_number(t_entry) : 0;
        t_audio.TimeDelta = t_entry.DefaultDuration;
        if (f_known) t_audio.codec = static_cast<uint8_t>(codec);
        memcpy(t_audio.language, t_entry.TrackLanguage, sizeof t_audio.language);
        t_audio.AudioCodecPrivate = t_entry.codecPrivate;
        t_audio.Channels = static_cast<uint8_t>(t_entry.audio.Channels);
        t_audio.sampleRate = t_entry.audio.SamplingFrequency;
        if (f_known) return;
    }
}

// The first video track, whatever its codec.
void choose_video(const TRACK_ENTRY *pt_entries, uint32_t count)
{
    VIDEO_FRAME_INFO &t_video = *mkvctx.VideoFrameInfo;
    for (uint32_t i = 0; i < count; ++i) {
        const TRACK_ENTRY &t_entry = pt_entries[i];
        if (t_entry.TrackType != TRACK_TYPE_VIDEO) continue;
        t_video.initialed = 1;
        t_video.TrackNumber = block_track_number(t_entry);
        t_video.TimeDelta = t_entry.DefaultDuration;
        if (has_text(t_entry, "V_MPEG4/ISO")) t_video.codec = GOLT_VCODEC_H264;
        memcpy(t_video.language, t_entry.TrackLanguage, sizeof t_video.language);
        t_video.height = t_entry.video.PixelHeight;
        t_video.width = t_entry.video.PixelWidth;
        t_video.VideoCodecPrivate = t_entry.codecPrivate;
        t_video.ParameterSets = parameter_sets_of(t_entry.codecPrivate);
        return;
    }
}

// Appends count sets of the record from position at on and returns the position behind them. A set
// that the record's end cuts is left out, and so is all behind it. An empty set is none.
uint32_t append_sets(PARAMETER_SETS &t_sets, const CODEC_PRIVATE &t_record, uint32_t at,
                     uint32_t count)
{
    for (; count > 0; --count) {
        if (t_record.len - at < 2) return t_record.len;
        const uint32_t size = get_be16(t_record.data + at);
        at += 2;
        if (t_record.len - at < size) return t_record.len;
        if (size != 0) {
            memcpy(t_sets.data + t_sets.len, START_CODE, MKV_START_CODE_SIZE);
            memcpy(t_sets.data + t_sets.len + MKV_START_CODE_SIZE, t_record.data + at, size);
            t_sets.len += MKV_START_CODE_SIZE + size;
        }
        at += size;
    }
    return at;
}

// The parameter sets of an AVC configuration record (ISO/IEC 14496-15), each behind a start code.
// Anything else is taken as it stands.
PARAMETER_SETS parameter_sets_of(const CODEC_PRIVATE &t_private)
{
    constexpr uint32_t SPS_COUNT = 5;  // in the low 5 bits
    constexpr uint32_t SETS = 6;
    // A set of one byte, with its length, grows from 3 bytes to 5.
    static_assert(MKV_CODEC_PRIVATE_MAX * 5 / 3 <= MKV_PARAMETER_SETS_MAX);

    PARAMETER_SETS t_sets = {};
    const uint8_t configurationVersion = t_private.data[0];
    if (configurationVersion != 1 || t_private.len <= SETS) {
        t_sets.len = t_private.len;
        memcpy(t_sets.data, t_private.data, t_private.len);
        return t_sets;
    }
    const uint32_t at = append_sets(t_sets, t_private, SETS, t_private.data[SPS_COUNT] & 0x1Fu);
    if (at < t_private.len) append_sets(t_sets, t_private, at + 1, t_private.data[at]);
    return t_sets;
}

}  // namespace

// Clusters and blocks

namespace {

// The block that a cluster pass has found.
struct block_place_t {
    bool f_found;
    bool f_group_goes_on;  // it lies in a BlockGroup that has more behind it
    uint32_t BlockLen;
    int64_t i8_group_end;
};

bool open_cluster();
void read_cluster_child(const element_t &t_child, block_place_t &t_block);
void walk_block_group(const element_t &t_group, block_place_t &t_block);

bool is_frame_pending()
{
    return mkvctx.SegInfo.AvailAudioFrameNo != 0 || mkvctx.SegInfo.AvailVideoFrameNo != 0;
}

}  // namespace

uint32_t AV_buffer_fill()
{
    mkvctx.f_ended = false;
    while (!is_frame_pending()) {
        if (mkvctx.f_ended) return 0;
        if (mkvctx.ClusterData.Initialized == 0 && !open_cluster()) return 0;
        EMBL_Check_Cluster_frame();
    }
    return 1;
}

uint32_t EMBL_Check_Cluster_frame()
{
    CLUSTER_DATA_ANALYZE &t_data = mkvctx.ClusterData;
    block_place_t t_block = {};
    child_walk_t t_walk(0, t_data.ClusterLenRest);
    element_t t_child;
    while (!t_block.f_found && t_walk.next(t_child))
        read_cluster_child(t_child, t_block);

    if (t_block.f_found) BlockDataAnalyze(t_block.BlockLen);
    if (t_block.f_group_goes_on) _MKV_Seek(t_block.i8_group_end);

    // Wraps when the children go past the Cluster's end. Not so for a Cluster of unknown size,
    // whose 32 bits are all ones: it goes on beyond 4 GiB.
    t_data.ClusterLenRest -= static_cast<uint32_t>(t_walk.sum());
    if (t_data.ClusterLenRest == 0 || t_data.ClusterLenRest > t_data.ClusterLen)
        t_data.Initialized = 0;
    return 1;
}

namespace {

// False for any element but a Cluster: the stream ends there.
bool open_cluster()
{
    element_t t_element;
    if (!read_element(t_element) || t_element.ID != ID_CLUSTER) return false;
    mkvctx.ClusterData.Initialized = 1;
    mkvctx.ClusterData.ClusterLen = t_element.Len[1];
    mkvctx.ClusterData.ClusterLenRest = t_element.Len[1];
    return true;
}

void read_cluster_child(const element_t &t_child, block_place_t &t_block)
{
    switch (t_child.ID) {
    case ID_TIMECODE: mkvctx.ClusterInfo.TimeCode = value32(t_child); break;
    case ID_POSITION: mkvctx.ClusterInfo.Position = value32(t_child); break;
    case ID_PREV_SIZE: mkvctx.ClusterInfo.PrevSize = value32(t_child); break;
    case ID_SIMPLE_BLOCK:
        t_block.f_found = true;
        t_block.BlockLen = t_child.Len[1];
        break;
    case ID_BLOCK_GROUP: walk_block_group(t_child, t_block); break;
    case ID_NUMBER_92:
    case ID_BLOCK_VIRTUAL: FileGetEBMLData(t_child.Len[1]); break;
    case ID_BLOCK_DURATION:
    case ID_REFERENCE_BLOCK: skip(t_child); break;
    default: printf("error cluster ID: 0x%08X\n", hex_id(t_child)); skip(t_child);
    }
}

// Looks at what stands in front of the Block, at whose payload it stops.
void walk_block_group(const element_t &t_group, block_place_t &t_block)
{
    CLUSTER_BLOCK_GROUP &t_values = mkvctx.ClusterInfo.Block;
    t_block.i8_group_end = position_after(t_group.Len[1]);
    child_walk_t t_walk = children_of(t_group.Len, t_group.cur_used);
    element_t t_child;
    while (t_walk.next(t_child)) {
        switch (t_child.ID) {
        case ID_BLOCK:
            t_block.f_found = true;
            t_block.f_group_goes_on = t_walk.left() > 0;
            t_block.BlockLen = t_child.Len[1];
            return;
        case ID_REFERENCE_BLOCK:
            t_values.ReferenceBlock = static_cast<int32_t>(value32(t_child));
            break;
        case ID_BLOCK_DURATION:
            t_values.BlockDuration = static_cast<int32_t>(value32(t_child));
            break;
        default: printf("error Block ID: 0x%08X\n", hex_id(t_child)); skip(t_child);
        }
    }
}

// Sizes of the frames of one block.
struct lacing_t {
    int kind;
    uint32_t count;
    bool f_sound;  // the sizes known so far can be right
    uint32_t frame_data_num[LACED_COUNTS];
};

void read_lacing(int kind, uint32_t BlockLen, lacing_t &t_lacing);
void finish_lacing(uint32_t DataLen, lacing_t &t_lacing);
void pass_over_audio_block(const lacing_t &t_lacing);
void read_audio_block(uint32_t CurTimeCode, const lacing_t &t_lacing);
void read_video_block(uint32_t CurTimeCode, uint32_t DataLen);

}  // namespace

int32_t BlockDataAnalyze(uint32_t BlockLen)
{
    const int64_t i8_start = _MKV_FilePos();
    const int64_t i8_end = position_after(BlockLen);
    uint32_t ui4_track = 0;
    if (FileGetVint(&ui4_track) == 0) return 0;
    const int32_t i4_time = FileGetSint(2);
    uint8_t ui1_flags = 0;
    get_bytes(&ui1_flags, 1);
    lacing_t t_lacing;
    read_lacing((ui1_flags & LACING_MASK) >> 1, BlockLen, t_lacing);

    const auto DataPos = static_cast<uint64_t>(_MKV_FilePos() - i8_start);
    if (DataPos > BlockLen) {  // a header that runs into the next element
        _MKV_Seek(i8_end);
        return 1;
    }
    const uint32_t DataLen = BlockLen - static_cast<uint32_t>(DataPos);
    finish_lacing(DataLen, t_lacing);

    // The audio track comes first also where both have the same number.
    const bool f_audio = ui4_track == mkvctx.AudioFrameInfo->TrackNumber;
    const bool f_video = !f_audio && ui4_track == mkvctx.VideoFrameInfo->TrackNumber;
    // Sizes that can't be right leave no frame to trust; a video block has one frame in any case.
    const bool f_wanted = (f_audio && t_lacing.f_sound) || f_video;
    if (!f_wanted || DataLen > PAYLOAD_MAX) {
        _MKV_Seek(i8_end);
        return 1;
    }

    if (!mkvctx.f_ended) {
        const uint32_t ui4_time = mkvctx.ClusterInfo.TimeCode + static_cast<uint32_t>(i4_time);
        if (f_video)
            read_video_block(ui4_time, DataLen);
        else if (mkvctx.f_seeking)
            pass_over_audio_block(t_lacing);
        else
            read_audio_block(ui4_time, t_lacing);
    }
    // Should more input or memory come, the reading goes on behind the block, if that place can be
    // reached.
    if (mkvctx.f_ended && _MKV_Seek(i8_end) != 0) mkvctx.ClusterData.Initialized = 0;
    return 1;
}

namespace {

// Xiph: each size is the sum of bytes up to and including the first one that isn't 255.
void read_xiph_sizes(uint32_t BlockLen, lacing_t &t_lacing)
{
    uint64_t ui8_sum = 0;
    for (uint32_t i = 0; i + 1 < t_lacing.count && ui8_sum <= BlockLen; ++i) {
        uint8_t ui1_part = 0;
        uint64_t ui8_size = 0;
        do {
            ui1_part = 0;
            get_bytes(&ui1_part, 1);
            ui8_size += ui1_part;
        } while (ui1_part == 0xFF && ui8_size <= BlockLen);
        t_lacing.frame_data_num[i] = static_cast<uint32_t>(ui8_size);
        ui8_sum += ui8_size;
    }
    t_lacing.f_sound = ui8_sum <= BlockLen;
}

// EBML: a size, then signed differences. The first size stands there also for a single frame.
void read_ebml_sizes(uint32_t BlockLen, lacing_t &t_lacing)
{
    uint32_t ui4_first = 0;
    FileGetVint(&ui4_first);
    int64_t i8_size = ui4_first;
    t_lacing.frame_data_num[0] = ui4_first;
    for (uint32_t i = 1; i + 1 < t_lacing.count && t_lacing.f_sound; ++i) {
        int32_t i4_difference = 0;
        t_lacing.f_sound = FileGetSVint(&i4_difference) != 0;
        i8_size += i4_difference;
        if (i8_size < 0 || i8_size > BlockLen) t_lacing.f_sound = false;
        t_lacing.frame_data_num[i] = static_cast<uint32_t>(i8_size);
    }
}

void read_lacing(int kind, uint32_t BlockLen, lacing_t &t_lacing)
{
    t_lacing.kind = kind;
    t_lacing.count = 1;
    t_lacing.f_sound = true;
    if (kind == LACING_NONE) return;
    uint8_t ui1_more = 0;
    get_bytes(&ui1_more, 1);
    t_lacing.count = ui1_more + 1u;
    if (kind == LACING_XIPH) read_xiph_sizes(BlockLen, t_lacing);
    if (kind == LACING_EBML) read_ebml_sizes(BlockLen, t_lacing);
}

// Works out what the payload's length decides.
void finish_lacing(uint32_t DataLen, lacing_t &t_lacing)
{
    const uint32_t count = t_lacing.count;
    uint32_t *const pui4_sizes = t_lacing.frame_data_num;
    if (t_lacing.kind == LACING_FIXED) {
        std::fill(pui4_sizes, pui4_sizes + count, DataLen / count);
    } else if (t_lacing.f_sound) {
        // The size of a single frame in EBML lacing is the one that was read, whatever the block's.
        const bool f_last_read = t_lacing.kind == LACING_EBML && count == 1;
        const uint32_t known = f_last_read ? count : count - 1;
        uint64_t ui8_sum = 0;
        for (uint32_t i = 0; i < known; ++i)
            ui8_sum += pui4_sizes[i];
        t_lacing.f_sound = ui8_sum <= (f_last_read ? PAYLOAD_MAX : DataLen);
        if (!f_last_read) pui4_sizes[count - 1] = DataLen - static_cast<uint32_t>(ui8_sum);
    }
    if (count > MKV_LACED_FRAMES_MAX) t_lacing.f_sound = false;
}

// Reads payload bytes. Those that the input doesn't have are 0: a frame that is cut keeps its size.
uint32_t get_payload(uint8_t *pb, uint32_t ui4_size)
{
    const uint32_t ui4_came = get_bytes(pb, ui4_size);
    if (ui4_came == ui4_size) return ui4_came;
    memset(pb + ui4_came, 0, ui4_size - ui4_came);
    return ui4_came;
}

// Moves the first ui4_used bytes of a block into one of ui4_size, which takes its place. Null, and
// the input counts as ended, without memory; the old block is given back in any case.
uint8_t *larger_block(uint8_t *pb_block, uint32_t ui4_used, uint32_t ui4_size)
{
    uint8_t *const pb_larger = GOLT_allocMem(ui4_size);
    if (pb_larger != nullptr) memcpy(pb_larger, pb_block, ui4_used);
    GOLT_freeMem(pb_block);
    if (pb_larger == nullptr) mkvctx.f_ended = true;
    return pb_larger;
}

// A seek drops all audio anyway. What the frames leave of the block is read on from, as it is after
// frames that were read.
void pass_over_audio_block(const lacing_t &t_lacing)
{
    uint32_t ui4_sum = 0;
    for (uint32_t i = 0; i < t_lacing.count; ++i)
        ui4_sum += t_lacing.frame_data_num[i];
    if (ui4_sum != 0) _MKV_Seek(position_after(ui4_sum));
}

// Reads one frame of ui4_size bytes into a block of its own. False, with nothing held, when memory
// or input ends before any of it.
bool read_audio_frame(uint32_t ui4_size, AudioFrameBuffer &t_buffer)
{
    AUDIO_FRAME_INFO &t_audio = *mkvctx.AudioFrameInfo;
    const int64_t i8_start = _MKV_FilePos();
    const uint32_t at_once = std::min(ui4_size, PAYLOAD_AT_ONCE_MAX);
    uint8_t *pb_frame = GOLT_allocMem(at_once + AUDIO_SPARE);
    if (pb_frame == nullptr) {
        mkvctx.f_ended = true;
        return false;
    }
    t_buffer.frameLen = FileFillAudioBuff(pb_frame, at_once);
    if (mkvctx.f_ended && _MKV_FilePos() == i8_start) {
        GOLT_freeMem(pb_frame);
        return false;
    }
    const uint32_t rest = ui4_size - at_once;
    if (rest != 0 && !mkvctx.f_ended) {
        pb_frame = larger_block(pb_frame, t_buffer.frameLen, t_buffer.frameLen + rest);
        if (pb_frame == nullptr) return false;
        get_payload(pb_frame + t_buffer.frameLen, rest);
        t_buffer.frameLen += rest;
        t_audio.maxLen = std::max(t_audio.maxLen, ui4_size);
    }
    t_buffer.frameData = pb_frame;
    return true;
}

void read_audio_block(uint32_t CurTimeCode, const lacing_t &t_lacing)
{
    AUDIO_FRAME_INFO &t_audio = *mkvctx.AudioFrameInfo;
    t_audio.CurTimeCode = CurTimeCode;
    uint32_t count = 0;
    while (count < t_lacing.count && !mkvctx.f_ended &&
           read_audio_frame(t_lacing.frame_data_num[count], t_audio.AudioData[count]))
        ++count;
    t_audio.curFrameNo = 0;
    t_audio.totalFrameNo = static_cast<uint8_t>(count);
    mkvctx.SegInfo.AvailAudioFrameNo = static_cast<uint8_t>(count);
}

void read_video_block(uint32_t CurTimeCode, uint32_t DataLen)
{
    VIDEO_FRAME_INFO &t_video = *mkvctx.VideoFrameInfo;
    const int64_t i8_start = _MKV_FilePos();
    t_video.CurTimeCode = CurTimeCode;
    t_video.frameLen = DataLen;
    t_video.CurFrameData = GOLT_allocMem(std::min(DataLen, PAYLOAD_AT_ONCE_MAX) + VIDEO_SPARE);
    if (t_video.CurFrameData == nullptr) {
        mkvctx.f_ended = true;
        return;
    }
    FileFillVideoBuff();
    if (mkvctx.f_ended && _MKV_FilePos() == i8_start) {  // nothing of it came
        GOLT_freeMem(t_video.CurFrameData);
        return;
    }
    mkvctx.SegInfo.AvailVideoFrameNo = t_video.CurFrameData != nullptr ? 1 : 0;
}

// The byte stream under construction. Its block grows once, to the limit, when it is full.
struct byte_stream_t {
    uint8_t *pb_data;  // null: there was no memory to grow
    uint32_t pos;
    uint32_t capacity;
    uint32_t limit;

    uint32_t room() const { return limit - pos; }
    bool reserve(uint32_t ui4_size)
    {
        if (ui4_size <= capacity - pos) return true;
        if (capacity == limit || pb_data == nullptr) return false;
        pb_data = larger_block(pb_data, pos, limit);
        if (pb_data == nullptr) return false;
        capacity = limit;
        return true;
    }
    void put(const uint8_t *pb, uint32_t ui4_size)
    {
        if (!reserve(ui4_size)) return;
        memcpy(pb_data + pos, pb, ui4_size);
        pos += ui4_size;
    }
    // Reads on: as far as the block goes, then, if all of that came, the rest.
    void read(uint32_t ui4_size)
    {
        const uint32_t at_once = std::min(ui4_size, capacity - pos);
        get_payload(pb_data + pos, at_once);
        pos += at_once;
        if (at_once == ui4_size || mkvctx.f_ended || !reserve(ui4_size - at_once)) return;
        get_payload(pb_data + pos, ui4_size - at_once);
        pos += ui4_size - at_once;
    }
    // A frame that is cut keeps its size as far as the block goes.
    void put_zeros(uint32_t ui4_size)
    {
        if (pb_data == nullptr) return;
        const uint32_t count = std::min(ui4_size, capacity - pos);
        memset(pb_data + pos, 0, count);
        pos += count;
    }
};

// The NAL units of a payload, which stand there each behind its length.
struct nal_units_t {
    uint32_t frameRest;  // payload bytes from the next unit's length on
    // Bytes of them in ab_head already: a unit can be shorter than what is read with its length.
    uint32_t ahead;
    uint8_t ab_head[NAL_HEAD_SIZE];
};

struct nal_unit_t {
    uint32_t length;
    uint32_t taken;  // first bytes that came with the length field; the others are still to be read
    uint8_t ab_first[2];
};

bool next_nal_unit(nal_units_t &t_units, nal_unit_t &t_nal);
void put_nal_unit(byte_stream_t &t_out, const nal_unit_t &t_nal);
void put_nal_units(byte_stream_t &t_out, const VIDEO_FRAME_INFO &t_video);

}  // namespace

void FileFillVideoBuff()
{
    VIDEO_FRAME_INFO &t_video = *mkvctx.VideoFrameInfo;
    const uint32_t capacity = std::min(t_video.frameLen, PAYLOAD_AT_ONCE_MAX) + VIDEO_SPARE;
    byte_stream_t t_out = {t_video.CurFrameData, 0, capacity, t_video.frameLen + VIDEO_SPARE};
    // Only H.264 has NAL units: what another codec stores is its frame.
    if (t_video.codec == GOLT_VCODEC_H264)
        put_nal_units(t_out, t_video);
    else
        t_out.read(t_video.frameLen);
    t_video.CurFrameData = t_out.pb_data;
    t_video.frameLen = t_out.pos;
    t_video.maxLen = std::max(t_video.maxLen, t_out.pos);
}

namespace {

void put_nal_units(byte_stream_t &t_out, const VIDEO_FRAME_INFO &t_video)
{
    const PARAMETER_SETS &t_sets = t_video.ParameterSets;
    nal_units_t t_units = {t_video.frameLen, 0, {}};
    nal_unit_t t_nal;
    while (!mkvctx.f_ended && next_nal_unit(t_units, t_nal)) {
        if (t_nal.length == 0) continue;
        // Only if all that is to come still fits: better a slice without its sets than sets without
        // their slice.
        const uint32_t to_come = MKV_START_CODE_SIZE + t_nal.length + t_units.frameRest;
        if ((t_nal.ab_first[0] & MKV_NAL_TYPE_MASK) == MKV_NAL_IDR_SLICE &&
            t_sets.len + to_come <= t_out.room())
            t_out.put(t_sets.data, t_sets.len);
        put_nal_unit(t_out, t_nal);
    }
    // Bytes of 0 after a NAL unit mean nothing to a decoder.
    if (mkvctx.f_ended) t_out.put_zeros(t_units.frameRest);
}

// False at the payload's end, and where what is left of it or of the input is too short for a
// length.
bool next_nal_unit(nal_units_t &t_units, nal_unit_t &t_nal)
{
    uint8_t *const ab_head = t_units.ab_head;
    const uint32_t frameRest = t_units.frameRest;
    const uint32_t in_head = std::min(frameRest, NAL_HEAD_SIZE);
    if (in_head == 0) return false;
    memset(ab_head + t_units.ahead, 0, NAL_HEAD_SIZE - t_units.ahead);
    if (!get_all(ab_head + t_units.ahead, in_head - t_units.ahead)) return false;

    // The length field has 4 bytes, or 3 where a fourth would make it more than the payload has.
    const uint32_t ui4_length = get_be32(ab_head);
    const bool f_four = frameRest >= ui4_length >> 8 << 8;
    const uint32_t width = f_four ? 4 : 3;
    if (in_head < width) return false;
    // A unit that runs past the payload is cut to it.
    t_nal.length = std::min(f_four ? ui4_length : ui4_length >> 8, frameRest - width);
    t_nal.taken = std::min(t_nal.length, in_head - width);
    memcpy(t_nal.ab_first, ab_head + width, t_nal.taken);

    t_units.ahead = in_head - width - t_nal.taken;
    memmove(ab_head, ab_head + width + t_nal.taken, t_units.ahead);
    t_units.frameRest = frameRest - width - t_nal.length;
    return true;
}

// A unit that doesn't fit, which takes more than 2000 units with lengths of 3 bytes in one frame,
// is left out whole.
void put_nal_unit(byte_stream_t &t_out, const nal_unit_t &t_nal)
{
    const uint32_t to_read = t_nal.length - t_nal.taken;
    if (MKV_START_CODE_SIZE + t_nal.length > t_out.room()) {
        _MKV_Seek(position_after(to_read));
        return;
    }
    t_out.put(START_CODE, MKV_START_CODE_SIZE);
    t_out.put(t_nal.ab_first, t_nal.taken);
    if (!mkvctx.f_ended) t_out.read(to_read);
}

}  // namespace

uint32_t FileFillAudioBuff(uint8_t *buff, uint32_t len)
{
    AUDIO_FRAME_INFO &t_audio = *mkvctx.AudioFrameInfo;
    t_audio.maxLen = std::max(t_audio.maxLen, len);
    // A frame without room for a sync word is none of AC-3's and stays as it is.
    if (t_audio.codec != GOLT_ACODEC_AC3 || len < AC3_SYNC_SIZE) {
        get_payload(buff, len);
        return len;
    }

    // Muxers strip bytes that all frames begin with, the sync word of AC-3 among them.
    if (get_payload(buff, AC3_SYNC_SIZE) == AC3_SYNC_SIZE &&
        memcmp(buff, AC3_SYNC, AC3_SYNC_SIZE) == 0) {
        get_payload(buff + AC3_SYNC_SIZE, len - AC3_SYNC_SIZE);
        return len;
    }
    memmove(buff + AC3_SYNC_SIZE, buff, AC3_SYNC_SIZE);
    memcpy(buff, AC3_SYNC, AC3_SYNC_SIZE);
    get_payload(buff + 2 * AC3_SYNC_SIZE, len - AC3_SYNC_SIZE);
    return len + AC3_SYNC_SIZE;
}

int32_t CheckFrameSize(uint8_t FrameSizeCode, uint32_t SampleRate)
{
    if (FrameSizeCode >= std::size(FrameSizeTable_48000)) return -1;
    const uint32_t *pui4_table = nullptr;
    switch (SampleRate) {
    case 44100: pui4_table = FrameSizeTable_44100; break;
    case 48000: pui4_table = FrameSizeTable_48000; break;
    case 32000: pui4_table = FrameSizeTable_32000; break;
    default: return 0;
    }
    return static_cast<int32_t>(2 * pui4_table[FrameSizeCode]);
}

#include "dmx_mkv_frame.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <iterator>

#include "dmx_mkv_ebml.h"
#include "golt_endian.h"
#include "golt_mem.h"

using namespace mkv;

namespace {

constexpr uint32_t AUDIO_SPARE = 256;   // bytes beyond an audio frame
constexpr uint32_t VIDEO_SPARE = 2048;  // bytes beyond a video block's payload

// A payload up to this size gets its memory at once; of a larger one this much has to come first.
constexpr uint32_t PAYLOAD_AT_ONCE_MAX = 16u << 20;

// What is read together with a NAL unit's length: with its 3 or 4 bytes, 2 or 1 of the unit.
constexpr uint32_t NAL_HEAD_SIZE = 5;

constexpr uint8_t AC3_SYNC[] = {0x0B, 0x77};
constexpr uint32_t AC3_SYNC_SIZE = sizeof AC3_SYNC;

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

bool get_payload(uint8_t *pb, uint32_t ui4_size);
uint8_t *larger_block(uint8_t *pb_block, uint32_t ui4_used, uint32_t ui4_size);

// The frame under construction. Its block grows once, to the limit, when it is full.
class byte_stream_t {
public:
    byte_stream_t(uint8_t *pb_data, uint32_t capacity, uint32_t limit)
        : m_data(pb_data)
        , m_capacity(capacity)
        , m_limit(limit)
    {
    }

    uint8_t *data() const { return m_data; }  // null: there was no memory to grow
    uint32_t size() const { return m_size; }
    uint32_t capacity() const { return m_capacity; }
    uint32_t room() const { return m_limit - m_size; }

    // Input or memory has ended: only zeros are added.
    bool f_short() const { return m_fShort; }

    void put(const uint8_t *pb, uint32_t ui4_size)
    {
        if (!reserve(ui4_size)) return;
        memcpy(m_data + m_size, pb, ui4_size);
        m_size += ui4_size;
    }

    // Reads on: as far as the block goes, then, if all of that came, the rest.
    void read(uint32_t ui4_size)
    {
        if (m_fShort) return;
        const uint32_t at_once = std::min(ui4_size, m_capacity - m_size);
        read_into_block(at_once);
        const uint32_t rest = ui4_size - at_once;
        if (rest != 0 && reserve(rest)) read_into_block(rest);
    }

    // A frame that is cut keeps its size as far as the block goes.
    void put_zeros(uint32_t ui4_size)
    {
        if (m_data == nullptr) return;
        const uint32_t count = std::min(ui4_size, m_capacity - m_size);
        memset(m_data + m_size, 0, count);
        m_size += count;
    }

private:
    bool reserve(uint32_t ui4_size)
    {
        if (m_fShort) return false;
        if (ui4_size <= m_capacity - m_size) return true;
        assert(ui4_size <= room());
        m_data = larger_block(m_data, m_size, m_limit);
        m_fShort = m_data == nullptr;
        m_capacity = m_fShort ? 0 : m_limit;
        return !m_fShort;
    }

    void read_into_block(uint32_t ui4_size)
    {
        m_fShort = !get_payload(m_data + m_size, ui4_size);
        m_size += ui4_size;
    }

    uint8_t *m_data;
    uint32_t m_size = 0;
    uint32_t m_capacity;
    uint32_t m_limit;
    bool m_fShort = false;
};

// The NAL units of a payload, each after its length.
struct nal_units_t {
    uint32_t frameRest;  // payload bytes from the next unit's length on
    // Bytes of them in ab_head already: a unit can be shorter than what is read with its length.
    uint32_t ahead;
    uint8_t ab_head[NAL_HEAD_SIZE];
    bool f_short;  // the input ended inside of a length
};

struct nal_unit_t {
    uint32_t length;
    uint32_t taken;  // first bytes that came with the length field; the others are still to be read
    uint8_t ab_first[2];
};

bool put_nal_units(byte_stream_t &t_out, const VIDEO_FRAME_INFO &t_video);
bool next_nal_unit(nal_units_t &t_units, nal_unit_t &t_nal);
void put_nal_unit(byte_stream_t &t_out, const nal_unit_t &t_nal);

}  // namespace

frame_read_t mkv::read_audio_frame(uint32_t ui4_size, AudioFrameBuffer &t_buffer)
{
    const int64_t i8_start = _MKV_FilePos();
    const uint32_t at_once = std::min(ui4_size, PAYLOAD_AT_ONCE_MAX);
    uint8_t *pb_frame = GOLT_allocMem(at_once + AUDIO_SPARE);
    if (pb_frame == nullptr) return frame_read_t::NONE;
    uint32_t frameLen = FileFillAudioBuff(pb_frame, at_once);
    bool f_whole = !mkvctx.f_ended;  // the result is the size, whatever came
    if (!f_whole && _MKV_FilePos() == i8_start) {
        GOLT_freeMem(pb_frame);
        return frame_read_t::NONE;
    }
    const uint32_t rest = ui4_size - at_once;
    if (rest != 0 && f_whole) {
        pb_frame = larger_block(pb_frame, frameLen, frameLen + rest);
        if (pb_frame == nullptr) return frame_read_t::NONE;
        f_whole = get_payload(pb_frame + frameLen, rest);
        frameLen += rest;
        mkvctx.AudioFrameInfo->maxLen = std::max(mkvctx.AudioFrameInfo->maxLen, ui4_size);
    }
    t_buffer.frameData = pb_frame;
    t_buffer.frameLen = frameLen;
    return f_whole ? frame_read_t::WHOLE : frame_read_t::CUT;
}

frame_read_t mkv::drop_audio_frame(uint32_t ui4_size)
{
    constexpr uint32_t SMALL = 64;  // bytes
    if (ui4_size > SMALL) {
        AudioFrameBuffer t_buffer = {};
        const frame_read_t result = read_audio_frame(ui4_size, t_buffer);
        GOLT_freeMem(t_buffer.frameData);
        return result;
    }
    uint8_t ab_frame[SMALL + AC3_SYNC_SIZE];
    const int64_t i8_start = _MKV_FilePos();
    FileFillAudioBuff(ab_frame, ui4_size);
    if (!mkvctx.f_ended) return frame_read_t::WHOLE;
    return _MKV_FilePos() != i8_start ? frame_read_t::CUT : frame_read_t::NONE;
}

frame_read_t mkv::read_video_frame(uint32_t DataLen)
{
    VIDEO_FRAME_INFO &t_video = *mkvctx.VideoFrameInfo;
    const int64_t i8_start = _MKV_FilePos();
    t_video.frameLen = DataLen;
    t_video.frameCapacity = std::min(DataLen, PAYLOAD_AT_ONCE_MAX) + VIDEO_SPARE;
    t_video.CurFrameData = GOLT_allocMem(t_video.frameCapacity);
    if (t_video.CurFrameData == nullptr) return frame_read_t::NONE;
    if (FileFillVideoBuff()) return frame_read_t::WHOLE;
    if (t_video.CurFrameData == nullptr) return frame_read_t::NONE;
    if (_MKV_FilePos() != i8_start) return frame_read_t::CUT;
    GOLT_freeMem(t_video.CurFrameData);
    return frame_read_t::NONE;
}

bool FileFillVideoBuff()
{
    VIDEO_FRAME_INFO &t_video = *mkvctx.VideoFrameInfo;
    byte_stream_t t_out(t_video.CurFrameData, t_video.frameCapacity,
                        t_video.frameLen + VIDEO_SPARE);
    bool f_whole = true;
    // Only H.264 has NAL units: what another codec stores is its frame.
    if (t_video.codec == GOLT_VCODEC_H264) {
        f_whole = put_nal_units(t_out, t_video);
    } else {
        t_out.read(t_video.frameLen);
        f_whole = !t_out.f_short();
    }
    t_video.CurFrameData = t_out.data();
    t_video.frameCapacity = t_out.capacity();
    t_video.frameLen = t_out.size();
    t_video.maxLen = std::max(t_video.maxLen, t_out.size());
    return f_whole;
}

uint32_t FileFillAudioBuff(uint8_t *buff, uint32_t len)
{
    AUDIO_FRAME_INFO &t_audio = *mkvctx.AudioFrameInfo;
    t_audio.maxLen = std::max(t_audio.maxLen, len);
    // A frame without room for a sync word isn't AC-3 and is left unchanged.
    if (t_audio.codec != GOLT_ACODEC_AC3 || len < AC3_SYNC_SIZE) {
        get_payload(buff, len);
        return len;
    }

    // Muxers strip bytes that all frames begin with, such as the sync word of AC-3.
    if (get_payload(buff, AC3_SYNC_SIZE) && memcmp(buff, AC3_SYNC, AC3_SYNC_SIZE) == 0) {
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

namespace {

// Reads payload bytes. Those that the input doesn't have are 0: a frame that is cut keeps its size.
// False if there are any.
bool get_payload(uint8_t *pb, uint32_t ui4_size)
{
    const uint32_t ui4_came = get_bytes(pb, ui4_size);
    if (ui4_came == ui4_size) return true;
    std::fill(pb + ui4_came, pb + ui4_size, uint8_t{0});
    return false;
}

// Moves the first ui4_used bytes of a block into one of ui4_size, which takes its place. Null
// without memory; the old block is given back in any case.
uint8_t *larger_block(uint8_t *pb_block, uint32_t ui4_used, uint32_t ui4_size)
{
    uint8_t *const pb_larger = GOLT_allocMem(ui4_size);
    if (pb_larger != nullptr) memcpy(pb_larger, pb_block, ui4_used);
    GOLT_freeMem(pb_block);
    return pb_larger;
}

// False when input or memory ended before the payload did.
bool put_nal_units(byte_stream_t &t_out, const VIDEO_FRAME_INFO &t_video)
{
    const PARAMETER_SETS &t_sets = t_video.ParameterSets;
    nal_units_t t_units = {t_video.frameLen, 0, {}, false};
    nal_unit_t t_nal;
    while (!t_out.f_short() && next_nal_unit(t_units, t_nal)) {
        if (t_nal.length == 0) continue;
        // Only if all that is to come still fits: better a slice without its sets than sets without
        // their slice.
        const uint32_t to_come = MKV_START_CODE_SIZE + t_nal.length + t_units.frameRest;
        if ((t_nal.ab_first[0] & MKV_NAL_TYPE_MASK) == MKV_NAL_IDR_SLICE &&
            t_sets.len + to_come <= t_out.room())
            t_out.put(t_sets.data, t_sets.len);
        put_nal_unit(t_out, t_nal);
    }
    if (!t_out.f_short() && !t_units.f_short) return true;
    // Bytes of 0 after a NAL unit mean nothing to a decoder.
    t_out.put_zeros(t_units.frameRest);
    return false;
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
    t_units.f_short = !get_all(ab_head + t_units.ahead, in_head - t_units.ahead);
    if (t_units.f_short) return false;

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
    t_out.put(MKV_START_CODE, MKV_START_CODE_SIZE);
    t_out.put(t_nal.ab_first, t_nal.taken);
    t_out.read(to_read);
}

}  // namespace

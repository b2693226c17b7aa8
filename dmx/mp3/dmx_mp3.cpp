#include "dmx_mp3.h"

#include <algorithm>
#include <cstring>

#include "dmx_mp3_i.h"
#include "dmx_mp3_tt.h"
#include "golt_endian.h"
#include "golt_mem.h"

namespace {

constexpr uint32_t HEADER_SIZE = 4;  // bytes
constexpr int SIG_SIZE = 3;          // bytes of a header that the frame search looks at
constexpr uint32_t SYNCWORD = 0xFFF;
constexpr uint8_t SYNC_BYTE = 0xFF;  // the syncword's first eight bits
constexpr uint32_t BITRATE_FREE = 0;
constexpr uint32_t SAMPLING_RESERVED = 3;

enum MP3Header_StereoModes {
    MP3_MODE_STEREO = 0,
    MP3_MODE_JOINT_STEREO = 1,
    MP3_MODE_DUAL_CHANNEL = 2,
    MP3_MODE_SINGLE_CHANNEL = 3
};

// The start of an ID3v2 tag. Four bytes of 7 bits each are the length of what follows.
struct ID3_t {
    uint8_t ID3v2_id[3];
    uint8_t ID3v2_version[2];
    uint8_t ID3v2_flags;
    uint8_t ID3v2_size[4];
};
static_assert(sizeof(ID3_t) == 10, "as it is in the file");

// A frame header as it is in the file.
struct MP3Header_t {
    uint8_t ab_bytes[HEADER_SIZE];
};

struct MP3FrameInfo_t {
    MP3Header_t mp3hdr;
    int layer;           // row of the tables: 0 Layer I, 1 Layer II, 2 Layer III
    uint32_t bitrate;    // bits per second
    uint32_t sampfreq;   // hertz
    uint32_t framesize;  // bytes, header included
    int channels;
    int msec_per_pkt;  // milliseconds with 12 fraction bits
};

struct MP3Context_t {
    tpf_read pf_read;  // null: no source is attached
    tpf_seek pf_seek;
    void *pv_handle;
    uint32_t framesize;           // of the frame last read
    MP3Offset_t data_offset;      // of the first frame
    MP3Offset_t offset;           // of the next frame
    MP3FixPt_t timestamp_fixpt;   // of the next frame, milliseconds
    MP3Time_t timestamp;          // the same, rounded
    uint32_t samplingFreq;        // of the first frame, hertz; 0: there is none
    uint32_t numChannels;         // of the first frame
    uint32_t pktno;               // of the next frame; the file's first frame is 0
    uint8_t mp3hdr[HEADER_SIZE];  // of the frame last read
    uint8_t tmpBuf[1024];         // for the frame search
};

// A field of the frame header, taken as a big-endian word.
struct header_field_t {
    uint32_t shift;
    uint32_t mask;
};

// ISO/IEC 11172-3, 2.4.1.3. ID is left aside: every frame is measured as MPEG-1.
constexpr header_field_t FIELD_SYNCWORD = {20, 0xFFF};
constexpr header_field_t FIELD_LAYER = {17, 3};
constexpr header_field_t FIELD_BITRATE_INDEX = {12, 0xF};
constexpr header_field_t FIELD_SAMPLING_FREQUENCY = {10, 3};
constexpr header_field_t FIELD_PADDING_BIT = {9, 1};
constexpr header_field_t FIELD_MODE = {6, 3};

// kbit/s; rows: Layer I, II, III; columns: bitrate_index. The forbidden last index counts as 999.
constexpr int bitrate_table[3][16] = {
    {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448, 999},
    {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384, 999},
    {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 999},
};

// Hertz; by sampling_frequency.
constexpr int sampling_frequency_table[4] = {44100, 48000, 32000, 0};

// Bytes of a frame without padding; rows and columns as above, and one for each sampling_frequency.
// A table, because each frame needs its number and some processors have no division.
struct framesize_table_t {
    uint16_t size[3][16][3];
};

constexpr framesize_table_t make_framesize_table()
{
    framesize_table_t t_table = {};
    for (uint32_t row = 0; row < 3; ++row) {
        for (uint32_t index = 0; index < 16; ++index) {
            for (uint32_t rate = 0; rate < 3; ++rate) {
                const int bitrate = 1000 * bitrate_table[row][index];
                const int sampfreq = sampling_frequency_table[rate];
                // Layer I counts in slots of four bytes.
                const int size = row == 0 ? 12 * bitrate / sampfreq * 4 : 144 * bitrate / sampfreq;
                t_table.size[row][index][rate] = static_cast<uint16_t>(size);
            }
        }
    }
    return t_table;
}

constexpr framesize_table_t framesize_table = make_framesize_table();

// Duration of a frame of 384 samples (Layer I) or 1152 samples, milliseconds with 12 fraction bits,
// cut off; rows: Layer I, II, III; columns: sampling_frequency.
constexpr uint32_t msec_per_packet[3][3] = {
    {35665, 32768, 49152},
    {106997, 98304, 147456},
    {106997, 98304, 147456},
};

MP3Context_t mp3ctx;

MP3Offset_t id3_tag_size();
bool MP3_readFrameInfo(MP3FrameInfo_t *pMP3Info);
bool measure_frame(MP3FrameInfo_t *pMP3Info);
uint8_t *read_frame_block(const MP3FrameInfo_t &t_info);
void count_frame();
void set_clock(MP3FixPt_t timestamp_fixpt);
MP3Offset_t find_frame(MP3Offset_t estimate);
const uint8_t *MP3_searchSig(const uint8_t *buf, uint32_t nbytes);
bool is_sig(const uint8_t *pb_header);

uint32_t field(uint32_t ui4_header, header_field_t t_field)
{
    return ui4_header >> t_field.shift & t_field.mask;
}

// A callback that claims more than it was asked for has delivered nothing.
uint32_t read_source(uint8_t *pb_data, uint32_t ui4_size)
{
    const uint32_t ui4_got = mp3ctx.pf_read(mp3ctx.pv_handle, pb_data, ui4_size);
    return ui4_got <= ui4_size ? ui4_got : 0;
}

// The next read shows whether it worked.
void seek_source(MP3Offset_t offset)
{
    mp3ctx.pf_seek(mp3ctx.pv_handle, static_cast<int64_t>(offset));
}

}  // namespace

GOLT_EXPORT bool GOLT_DMX_MP3Init(tpf_read pf_read, tpf_seek pf_seek, void *pv_handle)
{
    if (pf_read == nullptr || pf_seek == nullptr) return false;
    GOLT_DMX_MP3Destroy();
    mp3ctx.pf_read = pf_read;
    mp3ctx.pf_seek = pf_seek;
    mp3ctx.pv_handle = pv_handle;

    seek_source(0);
    mp3ctx.offset = id3_tag_size();
    seek_source(mp3ctx.offset);
    MP3FrameInfo_t t_info = {};
    if (MP3_readFrameInfo(&t_info)) {
        mp3ctx.samplingFreq = t_info.sampfreq;
        mp3ctx.numChannels = static_cast<uint32_t>(t_info.channels);
    }
    mp3ctx.data_offset = mp3ctx.offset;
    seek_source(mp3ctx.offset);

    POS_init();
    BRT_init();
    BRT_reset(0, mp3ctx.offset);
    return true;
}

GOLT_EXPORT bool GOLT_DMX_MP3Destroy()
{
    POS_destroy();
    BRT_destroy();
    mp3ctx = {};
    return true;
}

GOLT_EXPORT bool GOLT_DMX_MP3ReadFrame(GOLT_frame_t *pt_frame)
{
    if (mp3ctx.pf_read == nullptr || pt_frame == nullptr) return false;
    MP3FrameInfo_t t_info = {};
    if (!MP3_readFrameInfo(&t_info)) return false;
    // A source that didn't begin with a frame has no stream, even if later reads find something that
    // looks like a header.
    if (mp3ctx.samplingFreq == 0) return false;
    mp3ctx.framesize = t_info.framesize;
    memcpy(mp3ctx.mp3hdr, t_info.mp3hdr.ab_bytes, HEADER_SIZE);

    uint8_t *pb_frame = read_frame_block(t_info);
    if (pb_frame == nullptr) {
        seek_source(mp3ctx.offset);
        return false;
    }
    pt_frame->ui8_timestamp = mp3ctx.timestamp;
    pt_frame->ui4_frametype = GOLT_FT_AUDIO;
    pt_frame->pb_data = pb_frame;
    pt_frame->ui4_size = t_info.framesize;

    count_frame();
    return true;
}

GOLT_EXPORT bool GOLT_DMX_MP3SeekToBytes(int64_t)
{
    return false;
}

GOLT_EXPORT bool GOLT_DMX_MP3SeekToTime(uint64_t ui8_time)
{
    if (mp3ctx.pf_read == nullptr) return false;
    const MP3Offset_t curOffset = mp3ctx.offset;
    const uint32_t seekPktno = MP3_msec_to_pktno(static_cast<MP3Time_t>(ui8_time));
    POS_update(mp3ctx.pktno, curOffset);

    MP3Offset_t newOffset = curOffset;
    const bool f_BRTseek = BRT_timeWithin(seekPktno);
    const bool f_exactOffset =
        f_BRTseek ? BRT_seek(seekPktno, &newOffset) : POS_seek(seekPktno, &newOffset);
    if (newOffset == curOffset) return false;
    const MP3Offset_t newOffset_1 = f_exactOffset ? newOffset : find_frame(newOffset);

    set_clock(g_pkttime_fixpt * seekPktno);
    mp3ctx.pktno = seekPktno;
    mp3ctx.offset = newOffset_1;
    seek_source(newOffset_1);
    // After a seek inside its window the tracker has cut itself back.
    if (!f_BRTseek) BRT_reset(seekPktno, newOffset_1);
    return true;
}

GOLT_EXPORT bool GOLT_DMX_MP3GetStreamInfo(GOLT_streamInfo_t *sinfo)
{
    if (sinfo == nullptr || mp3ctx.samplingFreq == 0) return false;
    *sinfo = {};
    sinfo->audioCodec = GOLT_ACODEC_MP3;
    sinfo->videoCodec = GOLT_CODEC_NONE;
    sinfo->aud_numChannels = mp3ctx.numChannels;
    sinfo->aud_sampleRate = mp3ctx.samplingFreq;
    sinfo->vid_arInfo = GOLT_AR_ENCODED;
    sinfo->vid_dimensionality = GOLT_DIM_2D;
    return true;
}

namespace {

// Bytes of the ID3v2 tag at the present position, 0 without one. One tag is skipped; a footer after
// it isn't.
MP3Offset_t id3_tag_size()
{
    ID3_t t_tag = {};
    read_source(reinterpret_cast<uint8_t *>(&t_tag), sizeof t_tag);
    if (memcmp(t_tag.ID3v2_id, "ID3", sizeof t_tag.ID3v2_id) != 0) return 0;
    MP3Offset_t size = 0;
    for (uint8_t ui1_seven_bits : t_tag.ID3v2_size)
        size = size << 7 | (ui1_seven_bits & 0x7F);
    return sizeof t_tag + size;
}

// Reads a header at the present position and measures its frame. False when there is none; the four
// bytes are skipped all the same. From a header on, the clock runs at its rate.
bool MP3_readFrameInfo(MP3FrameInfo_t *pMP3Info)
{
    if (mp3ctx.pf_read == nullptr || pMP3Info == nullptr) return false;
    if (read_source(pMP3Info->mp3hdr.ab_bytes, HEADER_SIZE) < HEADER_SIZE) return false;
    if (!measure_frame(pMP3Info)) return false;
    g_pkttime_fixpt = static_cast<MP3FixPt_t>(pMP3Info->msec_per_pkt);
    return true;
}

// A reserved sampling frequency and a free bit rate count as no header: neither gives the length of
// a frame.
bool measure_frame(MP3FrameInfo_t *pMP3Info)
{
    const uint32_t ui4_header = get_be32(pMP3Info->mp3hdr.ab_bytes);
    const uint32_t layer = field(ui4_header, FIELD_LAYER);
    const uint32_t bitrate_index = field(ui4_header, FIELD_BITRATE_INDEX);
    const uint32_t sampling_frequency = field(ui4_header, FIELD_SAMPLING_FREQUENCY);
    if (field(ui4_header, FIELD_SYNCWORD) != SYNCWORD || layer == 0) return false;
    if (bitrate_index == BITRATE_FREE || sampling_frequency == SAMPLING_RESERVED) return false;

    const uint32_t row = 3 - layer;
    const uint32_t padding = field(ui4_header, FIELD_PADDING_BIT);
    const auto bitrate = static_cast<uint32_t>(1000 * bitrate_table[row][bitrate_index]);
    const auto sampfreq = static_cast<uint32_t>(sampling_frequency_table[sampling_frequency]);
    pMP3Info->layer = static_cast<int>(row);
    pMP3Info->bitrate = bitrate;
    pMP3Info->sampfreq = sampfreq;
    const uint32_t slot = row == 0 ? 4 : 1;
    pMP3Info->framesize =
        framesize_table.size[row][bitrate_index][sampling_frequency] + slot * padding;
    pMP3Info->msec_per_pkt = static_cast<int>(msec_per_packet[row][sampling_frequency]);
    pMP3Info->channels = field(ui4_header, FIELD_MODE) == MP3_MODE_SINGLE_CHANNEL ? 1 : 2;
    return true;
}

// The frame whose header has just been read, in a block that becomes the caller's; null without
// memory. The last frame of a file that was cut off is played as far as it goes: the rest is zero.
uint8_t *read_frame_block(const MP3FrameInfo_t &t_info)
{
    uint8_t *pb_frame = GOLT_allocMem(t_info.framesize);
    if (pb_frame == nullptr) return nullptr;
    memcpy(pb_frame, t_info.mp3hdr.ab_bytes, HEADER_SIZE);
    const uint32_t ui4_rest = t_info.framesize - HEADER_SIZE;
    const uint32_t ui4_got = read_source(pb_frame + HEADER_SIZE, ui4_rest);
    if (ui4_got < ui4_rest) memset(pb_frame + HEADER_SIZE + ui4_got, 0, ui4_rest - ui4_got);
    return pb_frame;
}

// Reports the frame just read to the tables and moves on past it. If it turns out to be a known one,
// the count is corrected: this frame already has its time, and the next one gets the true time.
void count_frame()
{
    BRT_update(mp3ctx.framesize);
    uint32_t newPktno = 0;
    if (POS_syncPoint(mp3ctx.pktno, mp3ctx.offset, &newPktno)) {
        mp3ctx.pktno = newPktno;
        set_clock(newPktno * g_pkttime_fixpt);
    }
    POS_update(mp3ctx.pktno, mp3ctx.offset);

    set_clock(mp3ctx.timestamp_fixpt + g_pkttime_fixpt);
    mp3ctx.offset += mp3ctx.framesize;
    mp3ctx.pktno += 1;
}

void set_clock(MP3FixPt_t timestamp_fixpt)
{
    mp3ctx.timestamp_fixpt = timestamp_fixpt;
    mp3ctx.timestamp = static_cast<MP3Time_t>(fixpt_to_int(timestamp_fixpt));
}

// The first header at an estimated offset, or the end of the file. The search begins a quarter of a
// packet early, so that an estimate a little after a header finds that one. Without an average its
// length isn't known, and the search begins at the estimate.
MP3Offset_t find_frame(MP3Offset_t estimate)
{
    const auto avePktSize = static_cast<uint32_t>(fixpt_to_int(BRT_aveBytesPerPkt()));
    const uint32_t ui4_chunk = std::min<uint32_t>(avePktSize / 2, sizeof mp3ctx.tmpBuf);
    MP3Offset_t newOffset_1 = estimate - std::min<MP3Offset_t>(estimate, avePktSize / 4);
    seek_source(newOffset_1);
    for (;;) {
        const uint32_t nread = read_source(mp3ctx.tmpBuf, ui4_chunk);
        if (nread == 0) return newOffset_1;
        const uint8_t *mp3_sigpos = MP3_searchSig(mp3ctx.tmpBuf, nread);
        if (mp3_sigpos != nullptr)
            return newOffset_1 + static_cast<MP3Offset_t>(mp3_sigpos - mp3ctx.tmpBuf);
        newOffset_1 += nread;
    }
}

// The first frame header in buf, or null. It has the sync bits, ID, layer and protection_bit of the
// frame last read and the stream's sampling frequency; the bit rate may differ.
const uint8_t *MP3_searchSig(const uint8_t *buf, uint32_t nbytes)
{
    const uint8_t *const pb_end = buf + nbytes;
    while (pb_end - buf >= SIG_SIZE) {
        const size_t places = static_cast<size_t>(pb_end - buf) - (SIG_SIZE - 1);
        buf = static_cast<const uint8_t *>(memchr(buf, SYNC_BYTE, places));
        if (buf == nullptr || is_sig(buf)) return buf;
        ++buf;
    }
    return nullptr;
}

bool is_sig(const uint8_t *pb_header)
{
    if (memcmp(pb_header, mp3ctx.mp3hdr, 2) != 0) return false;
    const uint32_t ui4_header = uint32_t{pb_header[2]} << 8;
    const int sampfreq = sampling_frequency_table[field(ui4_header, FIELD_SAMPLING_FREQUENCY)];
    return static_cast<uint32_t>(sampfreq) == mp3ctx.samplingFreq;
}

}  // namespace

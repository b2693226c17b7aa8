#include "rmx_mpeg2ts.h"

#include <cstdio>
#include <cstring>

#include "golt_endian.h"
#include "rmx_mpeg2ts_i.h"

namespace {

constexpr uint32_t ADAPTATION_FIELD = 0x20;  // adaptation_field_control
constexpr int FRESH_COUNTER = 15;            // the first packet bears 0
constexpr int PSI_INTERVAL = 40;             // packets
constexpr int TICKS_PER_MS = 90;

constexpr int PCR_FIELD_END = 12;         // header, adaptation field length, flags and PCR
constexpr int PES_HEADER_SIZE = 14;       // with a PTS
constexpr uint32_t PES_SIZE_COUNTED = 8;  // bytes of the PES header after PES_packet_length
constexpr int ADTS_HEADER_SIZE = 7;

constexpr uint8_t STREAM_TYPE_MPEG2_VIDEO = 0x02;
constexpr uint8_t STREAM_TYPE_MPEG1_AUDIO = 0x03;
constexpr uint8_t STREAM_TYPE_PRIVATE = 0x06;
constexpr uint8_t STREAM_TYPE_AAC_ADTS = 0x0F;
constexpr uint8_t STREAM_TYPE_H264 = 0x1B;
constexpr uint8_t STREAM_TYPE_AC3 = 0x81;   // ATSC A/52
constexpr uint8_t STREAM_TYPE_EAC3 = 0x87;  // ATSC A/52

constexpr uint8_t STREAM_ID_PRIVATE_1 = 0xBD;
constexpr uint8_t STREAM_ID_AUDIO = 0xC0;
constexpr uint8_t STREAM_ID_VIDEO = 0xE0;

uint8_t video_stream_type(GOLT_codecs_t codec);
uint8_t audio_stream_type(GOLT_codecs_t codec);

}  // namespace

// Within one page of memory, wherever the linker puts it: where the packet lay across two, files of small frames took
// 12 to 47 % longer. A section of its own keeps the gap before it out of the others.
constexpr size_t CONTEXT_ALIGNMENT = 512;
static_assert(sizeof(GOLT_RMX_context_t) <= CONTEXT_ALIGNMENT, "could lie across two pages");
[[gnu::section(".remux")]] alignas(CONTEXT_ALIGNMENT) GOLT_RMX_context_t remux_context;

GOLT_EXPORT bool GOLT_RMX_init(tpf_write pf_write, void *pv_handle, bool)
{
    // The description of the stream stays: GOLT_RMX_setStreamInfo replaces it as a whole.
    remux_context.pf_write = pf_write;
    remux_context.pv_handle = pv_handle;
    remux_context.pat = {0, FRESH_COUNTER};
    remux_context.service = {{0xFFF, FRESH_COUNTER}, 1, 0x100};
    remux_context.video.PID = 0x100;
    remux_context.video.continuity_counter = FRESH_COUNTER;
    remux_context.audio.PID = 0x101;
    remux_context.audio.continuity_counter = FRESH_COUNTER;
    // Count and interval are equal: the first media packet brings PAT and PMT with it.
    remux_context.pat_packet_interval = PSI_INTERVAL;
    remux_context.pat_packet_count = PSI_INTERVAL;
    remux_context.tsid = 1;
    return true;
}

GOLT_EXPORT bool GOLT_RMX_setStreamInfo(GOLT_streamInfo_t *pt_sinfo)
{
    remux_context.sinfo = *pt_sinfo;
    remux_context.video.stream_type = video_stream_type(pt_sinfo->videoCodec);
    remux_context.video.is_present = remux_context.video.stream_type != STREAM_TYPE_PRIVATE;
    remux_context.service.pcr_pid =
        remux_context.video.is_present ? remux_context.video.PID : remux_context.audio.PID;

    // The audio entry is in the PMT whatever the codec, also where the source has no audio.
    remux_context.audio.stream_type = audio_stream_type(pt_sinfo->audioCodec);
    remux_context.audio.is_present = true;
    return true;
}

GOLT_EXPORT bool GOLT_RMX_destroy()
{
    return true;
}

GOLT_EXPORT bool GOLT_RMX_getPTS(GOLT_frame_t *pt_frame, uint32_t *pt_pts)
{
    *pt_pts = static_cast<uint32_t>(pt_frame->ui8_timestamp) * TICKS_PER_MS;
    return true;
}

GOLT_EXPORT bool GOLT_RMX_writeHeader()
{
    return true;
}

GOLT_EXPORT bool GOLT_RMX_writeTrailer()
{
    return true;
}

GOLT_EXPORT bool GOLT_RMX_convertFrame(GOLT_frame_t *, bool)
{
    return true;
}

GOLT_EXPORT bool GOLT_RMX_getRemuxInfo(GOLT_remuxInfo_t *pt_rinfo)
{
    pt_rinfo->audioPid = static_cast<uint32_t>(remux_context.audio.PID);
    pt_rinfo->videoPid = static_cast<uint32_t>(remux_context.video.PID);
    return true;
}

GOLT_EXPORT bool GOLT_RMX_writeFrame(GOLT_frame_t *pt_frame)
{
    return mpeg2ts_write_packet(pt_frame);
}

namespace {

uint8_t video_stream_type(GOLT_codecs_t codec)
{
    switch (codec) {
    case GOLT_VCODEC_MPEG2: return STREAM_TYPE_MPEG2_VIDEO;
    case GOLT_VCODEC_H264: return STREAM_TYPE_H264;
    default: return STREAM_TYPE_PRIVATE;
    }
}

uint8_t audio_stream_type(GOLT_codecs_t codec)
{
    switch (codec) {
    case GOLT_ACODEC_MP3: return STREAM_TYPE_MPEG1_AUDIO;
    case GOLT_ACODEC_AAC: return STREAM_TYPE_AAC_ADTS;
    case GOLT_ACODEC_AC3: return STREAM_TYPE_AC3;
    case GOLT_ACODEC_EAC3: return STREAM_TYPE_EAC3;
    default: return STREAM_TYPE_PRIVATE;
    }
}

// PCR of a base in ticks of 90 kHz, six bytes: 33 bits of base, 6 reserved bits, 9 bits of
// extension 0.
void ms2pcr(uint8_t *pb, uint64_t pts)
{
    put_be32(pb, static_cast<uint32_t>(pts >> 1));
    pb[4] = static_cast<uint8_t>((pts & 1) << 7 | 0x7E);
    pb[5] = 0;
}

// PTS alone, five bytes: '0010', then 3, 15 and 15 bits, each with a marker bit after it.
void write_pts(uint8_t *pb, uint64_t pts)
{
    pb[0] = static_cast<uint8_t>(0x21 | (pts >> 30 & 0x7) << 1);
    put_be16(pb + 1, static_cast<uint16_t>((pts >> 15 & 0x7FFF) << 1 | 1));
    put_be16(pb + 3, static_cast<uint16_t>((pts & 0x7FFF) << 1 | 1));
}

uint32_t sampling_frequency_index(uint32_t sample_rate)
{
    static const uint32_t AAC_SampleFreqSearchTable[16] = {
        96000, 88200, 64000, 48000, 44100,      32000,      24000,      22050,
        16000, 12000, 11025, 8000,  0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF,  // no rate
    };
    constexpr uint32_t INDEX_48000 = 3;
    for (uint32_t index = 0; index < 12; ++index) {
        if (AAC_SampleFreqSearchTable[index] == sample_rate) return index;
    }
    return INDEX_48000;
}

// The ADTS header (ISO/IEC 13818-7) of a raw frame of size bytes.
void write_adts_header(uint8_t *pb, int size)
{
    // MPEG-2, layer 0, no CRC, profile LC, buffer fullness all ones, one raw data block.
    static const uint8_t AAC_SYNC_Header[ADTS_HEADER_SIZE] = {0xFF, 0xF9, 0x58, 0x40,
                                                              0x03, 0x1F, 0xFC};
    const uint32_t index = sampling_frequency_index(remux_context.sinfo.aud_sampleRate);
    const uint32_t channels = remux_context.sinfo.aud_numChannels;
    const uint32_t frame_length = static_cast<uint32_t>(size) + ADTS_HEADER_SIZE;
    memcpy(pb, AAC_SYNC_Header, ADTS_HEADER_SIZE);
    pb[2] = static_cast<uint8_t>((AAC_SYNC_Header[2] & 0xC2) | index << 2 | (channels >> 2 & 0x1));
    pb[3] = static_cast<uint8_t>((channels & 0x3) << 6 | (frame_length >> 11 & 0x3));
    pb[4] = static_cast<uint8_t>(frame_length >> 3);
    pb[5] = static_cast<uint8_t>((frame_length & 0x7) << 5 | 0x1F);
}

uint8_t stream_id_of(GOLT_frametypes_t frametype)
{
    if (frametype == GOLT_FT_VIDEO) return STREAM_ID_VIDEO;
    const GOLT_codecs_t codec = remux_context.sinfo.audioCodec;
    return codec == GOLT_ACODEC_AC3 || codec == GOLT_ACODEC_EAC3 ? STREAM_ID_PRIVATE_1
                                                                 : STREAM_ID_AUDIO;
}

// The four bytes that every media packet starts with. unit_start: UNIT_START or 0.
void write_header(MPEG2TSWriteStream_t *stream, uint32_t unit_start, uint32_t control)
{
    stream->continuity_counter = (stream->continuity_counter + 1) & 0xF;
    put_be32(remux_context.packet, uint32_t{SYNC_BYTE} << 24 |
                                       (unit_start | static_cast<uint32_t>(stream->PID)) << 8 |
                                       control | static_cast<uint32_t>(stream->continuity_counter));
}

// A frame's first packet. Returns the number of the frame's bytes in it.
int write_start_packet(MPEG2TSWriteStream_t *stream, GOLT_frametypes_t frametype,
                       const uint8_t *pbuf, int size, uint64_t pts)
{
    const bool f_adts = frametype == GOLT_FT_AUDIO && stream->stream_type == STREAM_TYPE_AAC_ADTS;
    const int pes_header_size = PES_HEADER_SIZE + (f_adts ? ADTS_HEADER_SIZE : 0);
    const int room = PACKET_SIZE - PCR_FIELD_END - pes_header_size;
    const int packet_payload_size = size < room ? size : room;
    const int stuffing_size = room - packet_payload_size;

    uint8_t *packet = remux_context.packet;
    write_header(stream, UNIT_START, PAYLOAD | ADAPTATION_FIELD);
    packet[4] = static_cast<uint8_t>(PCR_FIELD_END - 5 + stuffing_size);  // its length
    packet[5] = 0x10;                                                     // PCR_flag
    ms2pcr(packet + 6, pts);
    if (stuffing_size > 0) stuff(packet + PCR_FIELD_END, stuffing_size);

    uint8_t *pb_pes = packet + PCR_FIELD_END + stuffing_size;
    put_be32(pb_pes, 0x00000100u | stream_id_of(frametype));
    // PES_packet_length has 16 bits; for a larger frame the low 16 bits are stored.
    const uint32_t pes_size =
        PES_SIZE_COUNTED + static_cast<uint32_t>(size) + (f_adts ? ADTS_HEADER_SIZE : 0);
    put_be16(pb_pes + 4, static_cast<uint16_t>(pes_size));
    pb_pes[6] = 0x80;  // '10' marker
    pb_pes[7] = 0x80;  // PTS_DTS_flags: PTS alone
    pb_pes[8] = 5;     // PES_header_data_length
    write_pts(pb_pes + 9, pts);
    if (f_adts) write_adts_header(pb_pes + PES_HEADER_SIZE, size);
    copy_part(pb_pes + pes_header_size, pbuf, packet_payload_size);
    send_packet();
    return packet_payload_size;
}

// A packet that is filled with the frame's bytes.
void write_full_packet(MPEG2TSWriteStream_t *stream, const uint8_t *pbuf)
{
    write_header(stream, 0, PAYLOAD);
    copy_payload(remux_context.packet + HEADER_SIZE, pbuf);
    send_packet();
}

// A frame's last packet, which its size bytes don't fill. An adaptation field takes the rest; it starts with its
// length and, if there is room, its flags.
void write_last_packet(MPEG2TSWriteStream_t *stream, const uint8_t *pbuf, int size)
{
    uint8_t *packet = remux_context.packet;
    const int stuffing_size = FULL_PAYLOAD_SIZE - size;
    write_header(stream, 0, PAYLOAD | ADAPTATION_FIELD);
    packet[4] = static_cast<uint8_t>(stuffing_size - 1);
    if (stuffing_size > 1) {
        packet[5] = 0;
        stuff(packet + 6, stuffing_size - 2);
    }
    copy_part(packet + PACKET_SIZE - size, pbuf, size);
    send_packet();
}

}  // namespace

bool mpeg2ts_write_pes(uint8_t *pbuf, int size, GOLT_frametypes_t frametype, int64_t timestamp)
{
    MPEG2TSWriteStream_t *stream = nullptr;
    switch (frametype) {
    case GOLT_FT_VIDEO: stream = &remux_context.video; break;
    case GOLT_FT_AUDIO: stream = &remux_context.audio; break;
    case GOLT_FT_MPEG2TS:
        remux_context.pf_write(remux_context.pv_handle, pbuf, static_cast<uint32_t>(size));
        return true;
    default: printf("Bad frame type: %d\n", static_cast<int>(frametype)); return false;
    }
    if (size <= 0) return true;

    const uint64_t pts = static_cast<uint64_t>(timestamp) * TICKS_PER_MS;
    mpeg2ts_resend_psi();
    const int sent = write_start_packet(stream, frametype, pbuf, size, pts);
    pbuf += sent;
    int remaining_payload_size = size - sent;
    for (; remaining_payload_size >= FULL_PAYLOAD_SIZE; pbuf += FULL_PAYLOAD_SIZE) {
        mpeg2ts_resend_psi();
        write_full_packet(stream, pbuf);
        remaining_payload_size -= FULL_PAYLOAD_SIZE;
    }
    if (remaining_payload_size == 0) return true;
    mpeg2ts_resend_psi();
    write_last_packet(stream, pbuf, remaining_payload_size);
    return true;
}

bool mpeg2ts_write_packet(GOLT_frame_t *pt_frame)
{
    return mpeg2ts_write_pes(pt_frame->pb_data, static_cast<int>(pt_frame->ui4_size),
                             static_cast<GOLT_frametypes_t>(pt_frame->ui4_frametype),
                             static_cast<int64_t>(pt_frame->ui8_timestamp));
}

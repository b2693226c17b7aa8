#include "rmx_mpeg2ts.h"

#include <cstdio>
#include <cstring>

#include "golt_crc.h"
#include "golt_endian.h"

namespace {

constexpr int TS_PACKET_SIZE = 188;
constexpr int TS_HEADER_SIZE = 4;
constexpr int FULL_PAYLOAD_SIZE = TS_PACKET_SIZE - TS_HEADER_SIZE;
constexpr uint8_t SYNC_BYTE = 0x47;
constexpr uint32_t UNIT_START = 0x4000;      // payload_unit_start_indicator, beside the PID
constexpr uint32_t PAYLOAD = 0x10;           // adaptation_field_control
constexpr uint32_t ADAPTATION_FIELD = 0x20;  // adaptation_field_control
constexpr uint8_t STUFFING_BYTE = 0xFF;
constexpr int FRESH_COUNTER = 15;  // the first packet bears 0
constexpr int PSI_INTERVAL = 40;   // packets
constexpr int TICKS_PER_MS = 90;

constexpr int PCR_FIELD_END = 12;         // header, adaptation field length, flags and PCR
constexpr int PES_HEADER_SIZE = 14;       // with a PTS
constexpr uint32_t PES_SIZE_COUNTED = 8;  // bytes of the PES header behind PES_packet_length
constexpr int ADTS_HEADER_SIZE = 7;

constexpr int CRC_SIZE = 4;
constexpr int SECTION_HEAD_SIZE = 3;  // table_id and section_length
constexpr int PSI_HEADER_SIZE = 5;    // of a packet, with pointer_field

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

struct MPEG2TSSection_t {
    uint32_t PID;
    uint32_t continuity_counter;  // 4 bits in use
};

struct MPEG2TSService_t {
    MPEG2TSSection_t pmt;
    int sid;  // program_number
    int pcr_pid;
};

struct MPEG2TSWriteStream_t {
    int PID;
    int continuity_counter;  // 4 bits in use
    uint8_t stream_type;
    bool is_present;  // listed in the PMT
};

struct GOLT_RMX_context_t {
    tpf_write pf_write;
    void *pv_handle;
    MPEG2TSSection_t pat;
    MPEG2TSService_t service;
    MPEG2TSWriteStream_t video;
    MPEG2TSWriteStream_t audio;
    int pat_packet_count;  // media packets since the last PAT
    int pat_packet_interval;
    int tsid;
    GOLT_streamInfo_t sinfo;
    unsigned char packet[TS_PACKET_SIZE];  // the one under assembly
    // What a stream description decides is made once, with it: PAT and PMT as packets that lack
    // only their counter, and the ADTS header without the frame's length.
    unsigned char pat_packet[TS_PACKET_SIZE];
    unsigned char pmt_packet[TS_PACKET_SIZE];
    unsigned char adts_header[ADTS_HEADER_SIZE];
};

GOLT_RMX_context_t remux_context;

uint8_t video_stream_type(GOLT_codecs_t codec);
uint8_t audio_stream_type(GOLT_codecs_t codec);
void make_psi();
void make_adts_header();
bool mpeg2ts_write_packet(GOLT_frame_t *pt_frame);

}  // namespace

GOLT_EXPORT bool GOLT_RMX_init(tpf_write pf_write, void *pv_handle, bool)
{
    remux_context = {};
    remux_context.pf_write = pf_write;
    remux_context.pv_handle = pv_handle;
    remux_context.pat = {0, FRESH_COUNTER};
    remux_context.service = {{0xFFF, FRESH_COUNTER}, 1, 0x100};
    remux_context.video = {0x100, FRESH_COUNTER, STREAM_TYPE_PRIVATE, false};
    remux_context.audio = {0x101, FRESH_COUNTER, STREAM_TYPE_PRIVATE, false};
    // Count and interval are equal: the first media packet brings PAT and PMT with it.
    remux_context.pat_packet_interval = PSI_INTERVAL;
    remux_context.pat_packet_count = PSI_INTERVAL;
    remux_context.tsid = 1;
    make_psi();
    return true;
}

GOLT_EXPORT bool GOLT_RMX_setStreamInfo(GOLT_streamInfo_t *pt_sinfo)
{
    remux_context.sinfo = *pt_sinfo;
    remux_context.video.stream_type = video_stream_type(pt_sinfo->videoCodec);
    remux_context.video.is_present = remux_context.video.stream_type != STREAM_TYPE_PRIVATE;
    remux_context.service.pcr_pid =
        remux_context.video.is_present ? remux_context.video.PID : remux_context.audio.PID;

    // The audio entry stands in the PMT whatever the codec, also where the source has no audio.
    remux_context.audio.stream_type = audio_stream_type(pt_sinfo->audioCodec);
    remux_context.audio.is_present = true;
    make_psi();
    make_adts_header();
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

void send_packet()
{
    remux_context.pf_write(remux_context.pv_handle, remux_context.packet, TS_PACKET_SIZE);
}

// Program-specific information

// Head of a section of n bytes, its CRC included; version 0, valid now, the only section of its
// table.
uint8_t *put_section_head(uint8_t *pb, uint8_t table_id, int n, int id)
{
    pb[0] = table_id;
    put_be16(pb + 1, static_cast<uint16_t>(0xB000 + n - SECTION_HEAD_SIZE));
    put_be16(pb + 3, static_cast<uint16_t>(id));
    pb[5] = 0xC1;
    pb[6] = 0;
    pb[7] = 0;
    return pb + 8;
}

// Puts a CRC behind a section, which ends at pb_end, and makes up the rest of its packet. A section
// of this program is far smaller than a packet.
void finish_psi_packet(uint8_t *packet, uint8_t *pb_end, uint32_t PID)
{
    put_be32(packet, uint32_t{SYNC_BYTE} << 24 | (UNIT_START | PID) << 8 | PAYLOAD);
    packet[TS_HEADER_SIZE] = 0;  // pointer_field
    const uint8_t *section = packet + PSI_HEADER_SIZE;
    put_be32(pb_end, golt_crc32(section, static_cast<uint32_t>(pb_end - section)));
    pb_end += CRC_SIZE;
    memset(pb_end, STUFFING_BYTE, static_cast<size_t>(packet + TS_PACKET_SIZE - pb_end));
}

void make_pat()
{
    constexpr int PAT_SIZE = 16;
    uint8_t *packet = remux_context.pat_packet;
    uint8_t *pb = put_section_head(packet + PSI_HEADER_SIZE, 0x00, PAT_SIZE, remux_context.tsid);
    put_be16(pb, static_cast<uint16_t>(remux_context.service.sid));
    put_be16(pb + 2, static_cast<uint16_t>(0xE000 | remux_context.service.pmt.PID));
    finish_psi_packet(packet, pb + 4, remux_context.pat.PID);
}

constexpr size_t REGISTRATION_SIZE = 6;

// Registration descriptor of an audio codec (ATSC A/52), or null.
const uint8_t *registration_descriptor(GOLT_codecs_t codec)
{
    static const uint8_t ac3[REGISTRATION_SIZE] = {0x05, 0x04, 'A', 'C', '-', '3'};
    static const uint8_t eac3[REGISTRATION_SIZE] = {0x05, 0x04, 'E', 'A', 'C', '3'};
    switch (codec) {
    case GOLT_ACODEC_AC3: return ac3;
    case GOLT_ACODEC_EAC3: return eac3;
    default: return nullptr;
    }
}

uint8_t *put_stream_entry(uint8_t *pb, const MPEG2TSWriteStream_t &stream,
                          const uint8_t *descriptor)
{
    const size_t size = descriptor != nullptr ? REGISTRATION_SIZE : 0;
    pb[0] = stream.stream_type;
    put_be16(pb + 1, static_cast<uint16_t>(0xE000 | stream.PID));
    put_be16(pb + 3, static_cast<uint16_t>(0xF000 | size));
    if (descriptor != nullptr) memcpy(pb + 5, descriptor, size);
    return pb + 5 + size;
}

void make_pmt()
{
    constexpr int ENTRIES = 12;
    uint8_t *section = remux_context.pmt_packet + PSI_HEADER_SIZE;
    uint8_t *pb_end = section + ENTRIES;
    if (remux_context.video.is_present)
        pb_end = put_stream_entry(pb_end, remux_context.video, nullptr);
    if (remux_context.audio.is_present)
        pb_end = put_stream_entry(pb_end, remux_context.audio,
                                  registration_descriptor(remux_context.sinfo.audioCodec));

    const int n = static_cast<int>(pb_end - section) + CRC_SIZE;
    uint8_t *pb = put_section_head(section, 0x02, n, remux_context.service.sid);
    put_be16(pb, static_cast<uint16_t>(0xE000 | remux_context.service.pcr_pid));
    put_be16(pb + 2, 0xF000);  // no program descriptors
    finish_psi_packet(remux_context.pmt_packet, pb_end, remux_context.service.pmt.PID);
}

void make_psi()
{
    make_pat();
    make_pmt();
}

// made: the section's packet.
bool mpeg2ts_write_section(MPEG2TSSection_t *s, const uint8_t *made)
{
    s->continuity_counter = (s->continuity_counter + 1) & 0xF;
    memcpy(remux_context.packet, made, TS_PACKET_SIZE);
    remux_context.packet[3] = static_cast<uint8_t>(PAYLOAD | s->continuity_counter);
    send_packet();
    return true;
}

bool mpeg2ts_send_pat()
{
    return mpeg2ts_write_section(&remux_context.pat, remux_context.pat_packet);
}

bool mpeg2ts_send_pmt()
{
    return mpeg2ts_write_section(&remux_context.service.pmt, remux_context.pmt_packet);
}

// Called before each media packet is assembled: it uses the same packet buffer.
bool mpeg2ts_resend_psi()
{
    if (remux_context.pat_packet_count != remux_context.pat_packet_interval) {
        ++remux_context.pat_packet_count;
        return true;
    }
    mpeg2ts_send_pat();
    mpeg2ts_send_pmt();
    remux_context.pat_packet_count = 0;
    return true;
}

// Media packets

// PCR of a base in ticks of 90 kHz, six bytes: 33 bits of base, 6 reserved bits, 9 bits of
// extension 0.
void ms2pcr(uint8_t *pb, uint64_t pts)
{
    put_be32(pb, static_cast<uint32_t>(pts >> 1));
    pb[4] = static_cast<uint8_t>((pts & 1) << 7 | 0x7E);
    pb[5] = 0;
}

// PTS alone, five bytes: '0010', then 3, 15 and 15 bits, each with a marker bit behind it.
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

// ADTS header (ISO/IEC 13818-7), all but frame_length.
void make_adts_header()
{
    // MPEG-2, layer 0, no CRC, profile LC, buffer fullness all ones, one raw data block.
    static const uint8_t AAC_SYNC_Header[ADTS_HEADER_SIZE] = {0xFF, 0xF9, 0x58, 0x40,
                                                              0x03, 0x1F, 0xFC};
    const uint32_t index = sampling_frequency_index(remux_context.sinfo.aud_sampleRate);
    const uint32_t channels = remux_context.sinfo.aud_numChannels;
    uint8_t *pb = remux_context.adts_header;
    memcpy(pb, AAC_SYNC_Header, ADTS_HEADER_SIZE);
    pb[2] = static_cast<uint8_t>((pb[2] & 0xC2) | index << 2 | (channels >> 2 & 0x1));
    pb[3] = static_cast<uint8_t>((channels & 0x3) << 6);
}

// The header of a raw frame of size bytes.
void write_adts_header(uint8_t *pb, int size)
{
    const uint32_t frame_length = static_cast<uint32_t>(size) + ADTS_HEADER_SIZE;
    memcpy(pb, remux_context.adts_header, ADTS_HEADER_SIZE);
    pb[3] = static_cast<uint8_t>(pb[3] | (frame_length >> 11 & 0x3));
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

// A size as a number of which the compiler knows nothing. Where it knows that a copy is short, g++
// makes a string instruction of it, which on x86 takes three times as long as a call of memcpy.
size_t opaque(int size)
{
    auto hidden = static_cast<size_t>(size);
    __asm__("" : "+r"(hidden));
    return hidden;
}

// Part of a packet's payload.
void copy_part(uint8_t *pb, const uint8_t *pbuf, int size)
{
    memcpy(pb, pbuf, opaque(size));
}

void stuff(uint8_t *pb, int size)
{
    memset(pb, STUFFING_BYTE, opaque(size));
}

// A frame's first packet. Returns the number of the frame's bytes in it.
int write_start_packet(MPEG2TSWriteStream_t *stream, GOLT_frametypes_t frametype,
                       const uint8_t *pbuf, int size, uint64_t pts)
{
    const bool f_adts = frametype == GOLT_FT_AUDIO && stream->stream_type == STREAM_TYPE_AAC_ADTS;
    const int pes_header_size = PES_HEADER_SIZE + (f_adts ? ADTS_HEADER_SIZE : 0);
    const int room = TS_PACKET_SIZE - PCR_FIELD_END - pes_header_size;
    const int packet_payload_size = size < room ? size : room;
    const int stuffing_size = room - packet_payload_size;

    uint8_t *packet = remux_context.packet;
    write_header(stream, UNIT_START, PAYLOAD | ADAPTATION_FIELD);
    packet[4] = static_cast<uint8_t>(PCR_FIELD_END - 5 + stuffing_size);  // its length
    packet[5] = 0x10;                                                     // PCR_flag
    ms2pcr(packet + 6, pts);
    stuff(packet + PCR_FIELD_END, stuffing_size);

    uint8_t *pb_pes = packet + PCR_FIELD_END + stuffing_size;
    put_be32(pb_pes, 0x00000100u | stream_id_of(frametype));
    // PES_packet_length has 16 bits; of a larger frame the low ones are stored.
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

// A packet that the frame's bytes fill.
void write_full_packet(MPEG2TSWriteStream_t *stream, const uint8_t *pbuf)
{
    write_header(stream, 0, PAYLOAD);
    memcpy(remux_context.packet + TS_HEADER_SIZE, pbuf, FULL_PAYLOAD_SIZE);
    send_packet();
}

// A frame's last packet, which its size bytes don't fill: an adaptation field makes up for the rest, its first
// two bytes being its length and its flags as far as there is room.
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
    copy_part(packet + TS_PACKET_SIZE - size, pbuf, size);
    send_packet();
}

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

}  // namespace

// Private to the remuxer: its records, its one static context and the functions that make packets.
// PES packets are made in rmx_mpeg2ts.cpp, sections in rmx_mpeg2ts_psi.cpp.

#ifndef GOLT_RMX_MPEG2TS_I_H
#define GOLT_RMX_MPEG2TS_I_H

#include <cstddef>
#include <cstring>

#include "golt_common.h"

constexpr int PACKET_SIZE = 188;
constexpr int HEADER_SIZE = 4;
constexpr int FULL_PAYLOAD_SIZE = PACKET_SIZE - HEADER_SIZE;
constexpr uint8_t SYNC_BYTE = 0x47;
constexpr uint32_t UNIT_START = 0x4000;  // payload_unit_start_indicator, beside the PID
constexpr uint32_t PAYLOAD = 0x10;       // adaptation_field_control
constexpr uint8_t STUFFING_BYTE = 0xFF;

/// A table of program-specific information.
struct MPEG2TSSection_t {
    uint32_t PID;
    uint32_t continuity_counter;  ///< of the packet sent last; 4 bits in use
};

struct MPEG2TSService_t {
    MPEG2TSSection_t pmt;
    int sid;  ///< program_number
    int pcr_pid;
};

struct MPEG2TSWriteStream_t {
    int PID;
    int continuity_counter;  ///< of the packet sent last; 4 bits in use
    uint8_t stream_type;
    bool is_present;  ///< listed in the PMT
};

struct GOLT_RMX_context_t {
    tpf_write pf_write;
    void *pv_handle;
    MPEG2TSSection_t pat;
    MPEG2TSService_t service;
    MPEG2TSWriteStream_t video;
    MPEG2TSWriteStream_t audio;
    int pat_packet_count;  ///< media packets since the last PAT
    int pat_packet_interval;
    int tsid;                           ///< transport_stream_id
    GOLT_streamInfo_t sinfo;            ///< the description given last, also by a former output
    unsigned char packet[PACKET_SIZE];  ///< the one under assembly
};

extern GOLT_RMX_context_t remux_context;

/// A size as a number of which the compiler knows nothing. Where it knows that a copy is short, g++
/// makes a string instruction of it, which on x86 takes three times as long as a call of memcpy.
inline size_t opaque(int size)
{
    auto hidden = static_cast<size_t>(size);
    __asm__("" : "+r"(hidden));
    return hidden;
}

/// Copies a part of a packet's payload.
inline void copy_part(uint8_t *pb, const uint8_t *pbuf, int size)
{
    memcpy(pb, pbuf, opaque(size));
}

/// Copies the payload of a packet that is filled with it. clang calls memcpy for more than 128
/// bytes, which takes longer than to copy two parts in place.
inline void copy_payload(uint8_t *pb, const uint8_t *pbuf)
{
#ifdef __clang__
    constexpr int PART_SIZE = 96;
    memcpy(pb, pbuf, PART_SIZE);
    memcpy(pb + PART_SIZE, pbuf + PART_SIZE, FULL_PAYLOAD_SIZE - PART_SIZE);
#else
    memcpy(pb, pbuf, FULL_PAYLOAD_SIZE);
#endif
}

/// Stuffs size bytes.
inline void stuff(uint8_t *pb, int size)
{
    memset(pb, STUFFING_BYTE, opaque(size));
}

/// Hands the assembled packet to the sink.
inline void send_packet()
{
    remux_context.pf_write(remux_context.pv_handle, remux_context.packet, PACKET_SIZE);
}

/// Writes the section of n bytes at pbuf, over as many packets as it takes. Its last four bytes are
/// the CRC's, which is stored there. Always true.
bool mpeg2ts_write_section(MPEG2TSSection_t *s, uint8_t *pbuf, int n);

/// Writes the program association table. Always true.
bool mpeg2ts_send_pat();

/// Writes the program map table. Always true.
bool mpeg2ts_send_pmt();

/// Writes both where they are due, or counts a media packet. To be called before one is assembled:
/// all of them use the same buffer. Always true.
inline bool mpeg2ts_resend_psi()
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

/// Writes the size bytes at pbuf as one PES packet, with timestamp in milliseconds; transport
/// packets as they are. False for an unknown type of frame.
bool mpeg2ts_write_pes(uint8_t *pbuf, int size, GOLT_frametypes_t frametype, int64_t timestamp);

/// Writes a frame through mpeg2ts_write_pes.
bool mpeg2ts_write_packet(GOLT_frame_t *pt_frame);

#endif

// An independent judge of MPEG-2 transport streams (ISO/IEC 13818-1) of 188-byte packets. It shares
// nothing with the remuxer, and it takes any bytes.
//
// It finds packets without a sync byte or cut short, continuity counters that jump, adaptation
// fields, sections and PES headers that contradict themselves, wrong CRCs, tables and PES packets
// that come before what announces them, and PES lengths that aren't kept.
//
// What a remuxer has no use for counts as a problem too, sound or not: scrambling, tables that
// change or take more than a packet, a NIT, any field of adaptation fields but the PCR and of PES
// headers but PTS, DTS and an extension, a repeated packet with another PCR, a clock that doesn't
// start with its PES packets, streams without PES header.
//
// Two things pass that the standard would not have. Times may run in any order: frames in decoding
// order without a DTS have no other. And a PES_packet_length may be the low 16 bits of one that
// doesn't fit.

#ifndef HOST_TS_CHECKER_H
#define HOST_TS_CHECKER_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

struct TsPes {
    uint16_t pid = 0;
    uint8_t stream_id = 0;
    std::optional<uint64_t> pts;  ///< 90 kHz
    std::optional<uint64_t> pcr;  ///< of the packet in which it starts, 27 MHz
    Bytes payload;                ///< behind the header
};

struct TsReport {
    std::vector<std::string> problems;  ///< in the stream's order; a PES packet's where it ends
    std::vector<size_t> pat_packets;    ///< numbers of the packets that hold a PAT, from 0
    std::vector<TsPes> pes;             ///< of the streams in the PMT, in the order of their starts
};

TsReport check_ts(const Bytes &stream);

#endif

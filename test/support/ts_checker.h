// An independent judge of MPEG-2 transport streams (ISO/IEC 13818-1) of 188-byte packets. It shares
// nothing with the remuxer, and it takes any bytes.
//
// It finds packets without a sync byte or cut short, continuity counters that jump, adaptation
// fields, sections and PES headers that contradict themselves, wrong CRCs, tables and PES packets
// that come before what announces them, and PES lengths that aren't kept.
//
// Two things pass that the standard would not have. Times may run in any order: frames in decoding
// order without a DTS have no other. And a PES_packet_length may be the low 16 bits of one that
// doesn't fit.

#ifndef GOLT_TEST_TS_CHECKER_H
#define GOLT_TEST_TS_CHECKER_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// An elementary stream as a PMT lists it.
struct TsStream {
    uint8_t type = 0;
    uint16_t pid = 0;
    std::vector<uint8_t> descriptors;
};

struct TsProgram {
    uint16_t number = 0;
    uint16_t pmt_pid = 0;
    uint16_t pcr_pid = 0;
    std::vector<TsStream> streams;
    std::vector<uint8_t> section;  ///< the PMT, empty until it has come
};

struct TsPes {
    size_t packet = 0;  ///< number of the packet in which it starts
    uint16_t pid = 0;
    uint8_t stream_id = 0;
    std::optional<uint64_t> pts;   ///< 90 kHz
    std::optional<uint64_t> dts;   ///< 90 kHz
    std::optional<uint64_t> pcr;   ///< of the packet in which it starts, 27 MHz
    std::vector<uint8_t> payload;  ///< behind the header
};

struct TsReport {
    std::vector<std::string> problems;  ///< in the stream's order; of very many the first ones
    size_t packets = 0;                 ///< whole ones
    std::vector<size_t> pat_packets;    ///< numbers of the packets in which a PAT starts
    std::vector<TsProgram> programs;
    std::vector<TsPes> pes;  ///< in the order of their starts
};

/// Packets are numbered from 0.
TsReport check_ts(const uint8_t *stream, size_t size);

#endif

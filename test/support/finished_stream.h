// A finished transport stream taken apart, as a receiver sees it: units with their times, the clock, the tables.
// It computes nothing but what ISO/IEC 13818-1 says of the bytes, and shares no code with what wrote them.

#ifndef GOLT_TEST_FINISHED_STREAM_H
#define GOLT_TEST_FINISHED_STREAM_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "bytes.h"

constexpr int64_t NOT_TOLD = -1;

struct FinishedUnit {
    uint16_t pid = 0;
    size_t packet = 0;  ///< in which it starts
    int64_t pts = NOT_TOLD, dts = NOT_TOLD,
            pcr = NOT_TOLD;  ///< 90 kHz; the DTS is the PTS where it isn't stated
    bool f_random_access = false;
    uint32_t length = 0;  ///< PES_packet_length
    size_t size = 0;      ///< bytes after it
    Bytes payload;
};

struct FinishedClock {
    size_t packet;
    uint16_t pid;
    int64_t pcr;
    bool f_jumps;
};

struct FinishedStream {
    std::vector<FinishedUnit> units;
    std::vector<FinishedClock> clock;
    std::vector<size_t> pats, pmts;  ///< packets
    std::vector<Bytes> pmt_sections;
    std::vector<std::string> faults;  ///< sync bytes, continuity, adaptation fields, PES headers

    explicit FinishedStream(const Bytes &stream)
    {
        if (stream.size() % 188 != 0) faults.push_back("not whole packets");
        for (size_t at = 0; at + 188 <= stream.size(); at += 188)
            take(stream.data() + at, at / 188);
    }

    std::vector<FinishedUnit> of(uint16_t pid) const
    {
        std::vector<FinishedUnit> found;
        for (const FinishedUnit &unit : units) {
            if (unit.pid == pid) found.push_back(unit);
        }
        return found;
    }

private:
    static int64_t time(const uint8_t *at)
    {
        return (int64_t{at[0]} >> 1 & 7) << 30 | int64_t{at[1]} << 22 |
               (int64_t{at[2]} >> 1) << 15 | int64_t{at[3]} << 7 | int64_t{at[4]} >> 1;
    }

    void fault(size_t number, const std::string &what)
    {
        faults.push_back("packet " + std::to_string(number) + ": " + what);
    }

    void take(const uint8_t *packet, size_t number)
    {
        const auto pid = static_cast<uint16_t>((packet[1] & 0x1F) << 8 | packet[2]);
        const bool f_start = (packet[1] & 0x40) != 0, has_payload = (packet[3] & 0x10) != 0;
        if (packet[0] != 0x47) fault(number, "no sync byte");
        const int counter = packet[3] & 0xF,
                  before = m_counters.count(pid) != 0 ? m_counters[pid] : -1;
        if (before >= 0 && counter != (has_payload ? (before + 1) % 16 : before))
            fault(number, "counter");
        m_counters[pid] = counter;

        size_t at = 4;
        bool f_random_access = false;
        int64_t pcr = NOT_TOLD;
        if ((packet[3] & 0x20) != 0) {
            at += 1u + packet[4];
            if (at > 188 || (has_payload ? at == 188 : at != 188))
                return fault(number, "adaptation field");
            if (packet[4] > 0) {
                f_random_access = (packet[5] & 0x40) != 0;
                if ((packet[5] & 0x10) != 0) {
                    pcr = int64_t{packet[6]} << 25 | int64_t{packet[7]} << 17 |
                          int64_t{packet[8]} << 9 | int64_t{packet[9]} << 1 | packet[10] >> 7;
                    clock.push_back({number, pid, pcr, (packet[5] & 0x80) != 0});
                }
            }
        }
        if (!has_payload) return;
        const uint8_t *const payload = packet + at;
        const size_t size = 188 - at;
        if (pid == 0 || pid == 0xFFF) {
            (pid == 0 ? pats : pmts).push_back(number);
            const size_t length = ((payload[2] & 0xFu) << 8 | payload[3]) + 3;
            if (pid == 0xFFF) pmt_sections.emplace_back(payload + 1, payload + 1 + length);
            return;
        }
        if (!f_start) {
            if (m_open.count(pid) == 0) return fault(number, "no unit is open");
            FinishedUnit &unit = units[m_open[pid]];
            unit.payload.insert(unit.payload.end(), payload, payload + size);
            unit.size += size;
            return;
        }
        if (size < 9 || payload[0] != 0 || payload[1] != 0 || payload[2] != 1 ||
            9u + payload[8] > size)
            return fault(number, "PES header");
        FinishedUnit unit;
        unit.pid = pid;
        unit.packet = number;
        unit.pcr = pcr;
        unit.f_random_access = f_random_access;
        unit.length = static_cast<uint32_t>(payload[4] << 8 | payload[5]);
        unit.size = size - 6;
        if ((payload[7] & 0x80) != 0) unit.pts = unit.dts = time(payload + 9);
        if ((payload[7] & 0x40) != 0) unit.dts = time(payload + 14);
        unit.payload.assign(payload + 9 + payload[8], payload + size);
        m_open[pid] = units.size();
        units.push_back(unit);
    }

    std::map<uint16_t, int> m_counters;
    std::map<uint16_t, size_t> m_open;
};

#endif

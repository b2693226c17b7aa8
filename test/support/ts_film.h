// A transport stream of H.264 and AAC, built of items that can be changed before they are written as packets.

#ifndef GOLT_TEST_TS_FILM_H
#define GOLT_TEST_TS_FILM_H

#include <functional>
#include <map>
#include <stdexcept>

#include "bytes.h"

constexpr uint16_t PAT_PID = 0, PMT_PID = 0x40, VIDEO_PID = 0x100, AUDIO_PID = 0x101,
                   NULL_PID = 0x1FFF;
constexpr int64_t PICTURE = 3600, AUDIO_FRAME = 1920;  // 40 ms; 1024 samples of 48 kHz
constexpr int64_t START = 90000, LEAD = 18000;
constexpr int NO_TIME = -1;
inline const Bytes DELIMITER = hex("0000000109F0"), SETS = hex("0000000167 4D401E 0000000168 CE38"),
                   KEY = hex("0000000165"), SLICE = hex("0000000141");

struct Item {
    uint16_t pid;
    int64_t pts, dts, pcr;
    Bytes payload;   // of tables the section
    int length = 0;  // added to the true one
    bool f_length = true, f_key = false, f_jumps = false;
};

inline Bytes time_field(uint32_t prefix, int64_t time)
{
    const auto bits = static_cast<uint64_t>(time);
    return be((uint64_t{prefix} << 36) | (bits >> 30 & 7) << 33 | (bits >> 15 & 0x7FFF) << 17 |
                  (bits & 0x7FFF) << 1 | 0x100010001,
              5);
}

inline uint32_t crc_of(const Bytes &bytes)
{
    uint32_t crc = 0xFFFFFFFF;
    for (const uint8_t byte : bytes) {
        crc ^= uint32_t{byte} << 24;
        for (int i = 0; i < 8; ++i)
            crc = crc << 1 ^ (crc >> 31) * 0x04C11DB7;
    }
    return crc;
}

inline Bytes section(const std::string &head, const std::string &body)
{
    const Bytes rest = hex(body);
    Bytes out =
        hex(head) + be16(static_cast<uint32_t>(0xB009 + rest.size())) + hex("0001 C1 00 00") + rest;
    return out + be32(crc_of(out));
}

inline Bytes pat()
{
    return section("00", "0001 E040");
}
inline Bytes pmt(const std::string &more = "F000")
{
    return section("02", "E100 F000 1B E100 F000 0F E101 " + more);
}

/// A frame of AAC. configuration: of its header. front: of what follows, from id_syn_ele on. more: bytes that the header
/// states, but that aren't there.
inline Bytes aac(uint32_t configuration = 2, const char *front = "20", uint32_t more = 0)
{
    const Bytes body = hex(front) + Bytes(20, 0x11);
    const auto size = static_cast<uint32_t>(body.size() + 7 + more);
    return be16(0xFFF1) + be(0x4CU | configuration >> 2, 1) +
           be((configuration & 3) << 6 | size >> 11, 1) + be(size >> 3, 1) +
           be((size & 7) << 5 | 0x1F, 1) + hex("FC") + body;
}

/// Pictures of 25 a second, every tenth a key picture, tables before every second one, and stereo.
struct Film {
    std::vector<Item> items;
    std::vector<Bytes> packets;
    size_t slot = 0;  // packets for a picture and what goes with it; 0: as many as there are

    explicit Film(int pictures = 30)
    {
        int64_t audio = 0;
        for (int i = 0; i < pictures; ++i) {
            const int64_t dts = START + i * PICTURE;
            const bool f_key = i % 10 == 0;
            if (i % 2 == 0 && i > 0) add_tables();
            if (i == 0) add_tables();
            const Bytes payload = f_key ? DELIMITER + SETS + KEY + Bytes(250, 0x77)
                                        : DELIMITER + SLICE + Bytes(90, 0x77);
            items.push_back({VIDEO_PID, dts + PICTURE, dts, dts - LEAD, payload});
            items.back().f_key = f_key;
            for (; audio * AUDIO_FRAME < (i + 1) * PICTURE; ++audio)
                items.push_back({AUDIO_PID, START + audio * AUDIO_FRAME, NO_TIME, NO_TIME, aac()});
        }
    }
    void add_tables()
    {
        items.push_back({PAT_PID, NO_TIME, NO_TIME, NO_TIME, pat()});
        items.push_back({PMT_PID, NO_TIME, NO_TIME, NO_TIME, pmt()});
    }
    /// The number-th of a PID.
    Item &of(uint16_t pid, int number)
    {
        for (Item &item : items)
            if (item.pid == pid && number-- == 0) return item;
        throw std::out_of_range("no such item");
    }
    void each(uint16_t pid, const std::function<void(Item &)> &change, int from = 0)
    {
        for (Item &item : items)
            if (item.pid == pid && from-- <= 0) change(item);
    }
    void remove(const std::function<bool(const Item &)> &which)
    {
        std::vector<Item> kept;
        for (const Item &item : items)
            if (!which(item)) kept.push_back(item);
        items = kept;
    }

    void write()
    {
        size_t begin = 0;
        for (const Item &item : items) {
            if (item.pid == VIDEO_PID) {
                while (slot != 0 && !packets.empty() && packets.size() - begin < slot)
                    packets.push_back(hex("471FFF10") + Bytes(184, 0xFF));
                begin = packets.size();
            }
            write_item(item);
        }
    }
    Bytes file(size_t before = 0, size_t after = 0) const
    {
        Bytes out;
        for (const Bytes &packet : packets)
            out += Bytes(before) + packet + Bytes(after);
        return out;
    }

private:
    void write_item(const Item &item)
    {
        if (item.pts == NO_TIME) {
            Bytes payload = hex("00") + item.payload;
            payload.resize((payload.size() + 183) / 184 * 184, 0xFF);
            for (auto at = payload.begin(); at != payload.end(); at += 184)
                write_packet(item.pid, at == payload.begin(), {}, Bytes(at, at + 184));
            return;
        }
        Bytes fields = time_field(item.dts == NO_TIME ? 2 : 3, item.pts);
        if (item.dts != NO_TIME) fields += time_field(1, item.dts);
        const size_t size = 3 + fields.size() + item.payload.size();
        const auto length =
            item.f_length ? static_cast<uint32_t>(static_cast<int>(size) + item.length) : 0;
        Bytes pes = hex("000001") + be(item.pid == VIDEO_PID ? 0xE0 : 0xC0, 1) + be16(length) +
                    hex("80") + be(item.dts == NO_TIME ? 0x80 : 0xC0, 1) + be(fields.size(), 1) +
                    fields + item.payload;
        Bytes adaptation;
        const uint32_t flags = (item.f_jumps ? 0x80u : 0) | (item.f_key ? 0x40u : 0) |
                               (item.pcr != NO_TIME ? 0x10u : 0);
        if (flags != 0) adaptation = be(flags, 1);
        if (item.pcr != NO_TIME)
            adaptation += be(static_cast<uint64_t>(item.pcr) << 15 | 0x7E00, 6);
        for (bool f_start = true; !pes.empty(); f_start = false) {
            const size_t room = 184 - (adaptation.empty() ? 0 : adaptation.size() + 1);
            const size_t count = std::min(room, pes.size());
            write_packet(item.pid, f_start, adaptation,
                         Bytes(pes.begin(), pes.begin() + static_cast<std::ptrdiff_t>(count)));
            pes.erase(pes.begin(), pes.begin() + static_cast<std::ptrdiff_t>(count));
            adaptation.clear();
        }
    }
    void write_packet(uint16_t pid, bool f_start, Bytes adaptation, const Bytes &payload)
    {
        const size_t left = 184 - payload.size();
        if (left > 0) {
            if (adaptation.empty() && left > 1) adaptation = hex("00");
            adaptation.resize(left - 1, 0xFF);
            adaptation = be(left - 1, 1) + adaptation;
        }
        packets.push_back(hex("47") + be16((f_start ? 0x4000u : 0) | pid) +
                          be((left > 0 ? 0x30u : 0x10u) | (m_counters[pid]++ & 0xF), 1) +
                          adaptation + payload);
    }

    std::map<uint16_t, uint32_t> m_counters;
};

#endif

// Each rule of the judge, broken once in a stream that is otherwise right.

#include "ts_judge.h"

#include <functional>
#include <list>

#include <gtest/gtest.h>

#include "bytes.h"

namespace {

constexpr uint16_t PAT_PID = 0, PMT_PID = 0x40, VIDEO_PID = 0x100, AUDIO_PID = 0x101,
                   NULL_PID = 0x1FFF;
constexpr int64_t PICTURE = 3600, AUDIO_FRAME = 1920;  // 40 ms; 1024 samples of 48 kHz
constexpr int64_t START = 90000, LEAD = 18000;
constexpr int NO_TIME = -1;
const Bytes DELIMITER = hex("0000000109F0"), SETS = hex("0000000167 4D401E 0000000168 CE38"),
            KEY = hex("0000000165"), SLICE = hex("0000000141");

struct Item {
    uint16_t pid;
    int64_t pts, dts, pcr;
    Bytes payload;   // of tables the section
    int length = 0;  // added to the true one
    bool f_length = true, f_key = false, f_jumps = false;
};

Bytes time_field(uint32_t prefix, int64_t time)
{
    const auto bits = static_cast<uint64_t>(time);
    return be((uint64_t{prefix} << 36) | (bits >> 30 & 7) << 33 | (bits >> 15 & 0x7FFF) << 17 |
                  (bits & 0x7FFF) << 1 | 0x100010001,
              5);
}

uint32_t crc_of(const Bytes &bytes)
{
    uint32_t crc = 0xFFFFFFFF;
    for (const uint8_t byte : bytes) {
        crc ^= uint32_t{byte} << 24;
        for (int i = 0; i < 8; ++i)
            crc = crc << 1 ^ (crc >> 31) * 0x04C11DB7;
    }
    return crc;
}

Bytes section(const std::string &head, const std::string &body)
{
    const Bytes rest = hex(body);
    Bytes out =
        hex(head) + be16(static_cast<uint32_t>(0xB009 + rest.size())) + hex("0001 C1 00 00") + rest;
    return out + be32(crc_of(out));
}

Bytes pat()
{
    return section("00", "0001 E040");
}
Bytes pmt(const std::string &more = "F000")
{
    return section("02", "E100 F000 1B E100 F000 0F E101 " + more);
}

// A frame of AAC. configuration: of its header. front: of what follows, from id_syn_ele on. more: bytes that the header
// states, but that aren't there.
Bytes aac(uint32_t configuration = 2, const char *front = "20", uint32_t more = 0)
{
    const Bytes body = hex(front) + Bytes(20, 0x11);
    const auto size = static_cast<uint32_t>(body.size() + 7 + more);
    return be16(0xFFF1) + be(0x4CU | configuration >> 2, 1) +
           be((configuration & 3) << 6 | size >> 11, 1) + be(size >> 3, 1) +
           be((size & 7) << 5 | 0x1F, 1) + hex("FC") + body;
}

// Pictures of 25 a second, every tenth a key picture, tables before every second one, and stereo.
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
            payload.resize(184, 0xFF);
            return write_packet(item.pid, true, {}, payload);
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

struct Found final : TsJudge {
    std::map<std::string, uint64_t> counts;

    void found(const TsProblem &problem) override
    {
        if (!problem.f_unusual) counts[problem.rule->code] += problem.count;
    }
    std::string text() const
    {
        std::string out;
        for (const auto &[code, count] : counts)
            out += (out.empty() ? "" : " ") + code + ":" + std::to_string(count);
        return out;
    }
};

std::string judge(const Bytes &file, size_t *packet_size = nullptr)
{
    Found found;
    TsFileFrames frames(found);
    for (size_t at = 0; at < file.size(); at += 1000)
        frames.feed(file.data() + at, std::min<size_t>(1000, file.size() - at));
    frames.finish();
    found.finish();
    if (packet_size != nullptr) *packet_size = frames.packet_size();
    return found.text();
}

const auto is_table = [](const Item &item) { return item.pid == PAT_PID || item.pid == PMT_PID; };

TEST(TsJudge, FindsEachFaultOfAFrame)
{
    const struct {
        const char *name, *found;
        std::function<void(Film &)> change;
        int pictures = 30;
    } rows[] = {
        {"sound", "", [](Film &) {}},
        {"PMT missing", "table-missing:1",
         [](Film &film) { film.remove([](const Item &item) { return item.pid == PMT_PID; }); }},
        {"PMT with another version", "",
         [](Film &film) {
             film.each(
                 PMT_PID,
                 [](Item &item) {
                     item.payload = pmt("F002 5200");
                     item.payload[5] = 0xC3;
                     item.payload.resize(item.payload.size() - 4);
                     item.payload += be32(crc_of(item.payload));
                 },
                 5);
         }},
        {"PMT with the same version", "table-version:1",
         [](Film &film) {
             film.each(
                 PMT_PID, [](Item &item) { item.payload = pmt("F002 5200"); }, 5);
         }},
        {"wrong CRC", "table-crc:1", [](Film &film) { film.of(PMT_PID, 3).payload.back() ^= 1; }},
        {"tables far apart", "table-late:2",
         [](Film &film) {
             int tables = 0;
             film.remove([&](const Item &item) { return is_table(item) && ++tables > 6; });
         }},
        {"no PCR", "clock-missing:1",
         [](Film &film) { film.each(VIDEO_PID, [](Item &item) { item.pcr = NO_TIME; }); }},
        {"PCR backward", "clock-backward:1",
         [](Film &film) { film.of(VIDEO_PID, 9).pcr = film.of(VIDEO_PID, 8).pcr - 900; }},
        {"PCRs far apart", "clock-late:1",
         [](Film &film) {
             film.of(VIDEO_PID, 9).pcr = film.of(VIDEO_PID, 11).pcr = NO_TIME;
             film.of(VIDEO_PID, 10).pcr = NO_TIME;
         }},
        {"constant rate", "", [](Film &film) { film.slot = 8; }, 80},
        {"PCR off its place", "clock-jitter:3",
         [](Film &film) {
             film.slot = 8;
             film.of(VIDEO_PID, 40).pcr += 9;
         },
         80},
        {"late", "late:30",
         [](Film &film) {
             film.each(VIDEO_PID, [](Item &item) { item.pcr += LEAD + 1; });
             film.each(AUDIO_PID, [](Item &item) { item.pts += LEAD; });
         }},
        // Of 147 frames 120 are held back.
        {"apart", "apart:27",
         [](Film &film) {
             std::list<Item> waiting;
             std::vector<Item> items;
             film.each(VIDEO_PID, [](Item &item) { item.pcr -= 3 * 90000; });
             for (const Item &item : film.items) {
                 if (item.pid == AUDIO_PID)
                     waiting.push_back(item);
                 else
                     items.push_back(item);
                 if (item.pid == AUDIO_PID && waiting.size() > 120) {
                     items.push_back(waiting.front());
                     waiting.pop_front();
                 }
             }
             film.items = items;
         },
         78},
        {"DTS repeated", "dts-backward:1",
         [](Film &film) { film.of(VIDEO_PID, 9).dts -= PICTURE; }},
        {"DTS above PTS", "dts-after-pts:1",
         [](Film &film) { film.of(VIDEO_PID, 9).pts -= PICTURE + 90; }},
        {"PTS backward", "time-backward:1",
         [](Film &film) {
             film.each(
                 AUDIO_PID, [](Item &item) { item.pts -= 2400; }, 9);
         }},
        {"PTS repeated", "time-repeated:1",
         [](Film &film) {
             film.each(
                 AUDIO_PID, [](Item &item) { item.pts -= AUDIO_FRAME; }, 9);
         }},
        {"gap", "time-jump:1",
         [](Film &film) {
             film.each(
                 AUDIO_PID, [](Item &item) { item.pts += 1400; }, 9);
         }},
        {"overlap", "overlap:1",
         [](Film &film) {
             film.each(
                 AUDIO_PID, [](Item &item) { item.pts -= 1400; }, 9);
         }},
        {"rounded", "",
         [](Film &film) {
             film.each(
                 AUDIO_PID, [](Item &item) { item.pts += 1300; }, 9);
         }},
        {"announced jump", "",
         [](Film &film) {
             bool f_after = false;
             for (Item &item : film.items) {
                 f_after = f_after || &item == &film.of(VIDEO_PID, 20);
                 if (!f_after || item.pts == NO_TIME) continue;
                 for (int64_t *time : {&item.pts, &item.dts, &item.pcr})
                     if (*time != NO_TIME) *time += 999999999;
             }
             film.of(VIDEO_PID, 20).f_jumps = true;
         }},
        {"wrong length", "pes-length:1", [](Film &film) { film.of(AUDIO_PID, 9).length = 1; }},
        {"video without length", "", [](Film &film) { film.of(VIDEO_PID, 9).f_length = false; }},
        {"audio without length", "pes-length:1",
         [](Film &film) { film.of(AUDIO_PID, 9).f_length = false; }},
        {"audio that is cut", "cut-frame:1",
         [](Film &film) { film.of(AUDIO_PID, 9).payload = aac(2, "20", 3); }},
        {"the last that is cut", "cut-frame:1",
         [](Film &film) { film.items.back().payload = aac(2, "20", 3); }},
        {"bytes after audio", "stray-bytes:1",
         [](Film &film) { film.of(AUDIO_PID, 9).payload += Bytes(20); }},
        {"two frames, split anyhow", "",
         [](Film &film) {
             // The first PES packet ends within its second frame; the next one has the rest, and a time of its own.
             Item &first = film.of(AUDIO_PID, 9), &second = film.of(AUDIO_PID, 10),
                  &third = film.of(AUDIO_PID, 11);
             const Bytes all = aac() + aac() + aac();
             first.payload.assign(all.begin(), all.begin() + 32);
             second.payload.assign(all.begin() + 32, all.end() - 10);
             third.payload = Bytes(all.end() - 10, all.end()) + aac();
             second.pts += AUDIO_FRAME;
             third.pts += AUDIO_FRAME;
             film.each(
                 AUDIO_PID, [](Item &item) { item.pts += AUDIO_FRAME; }, 12);
         }},
        {"5.1 announced as stereo", "adts:1",
         [](Film &film) { film.of(AUDIO_PID, 9).payload = aac(2, "00"); }},
        {"a pair announced as single", "adts:1",
         [](Film &film) { film.of(AUDIO_PID, 9).payload = aac(1, "20"); }},
        {"filling before a pair", "",
         [](Film &film) { film.of(AUDIO_PID, 9).payload = aac(2, "C040"); }},
        {"channels left to nobody", "adts:1",
         [](Film &film) { film.of(AUDIO_PID, 9).payload = aac(0, "20"); }},
        {"channels left to a layout", "",
         [](Film &film) {
             film.of(AUDIO_PID, 9).payload = aac(0, "A0");
             film.of(AUDIO_PID, 10).payload = aac(0, "20");
         }},
        {"no parameter sets", "no-parameter-sets:30",
         [](Film &film) {
             film.each(VIDEO_PID, [](Item &item) {
                 if (item.f_key) item.payload = DELIMITER + KEY;
             });
         }},
        {"a key picture without", "key-parameter-sets:1",
         [](Film &film) { film.of(VIDEO_PID, 10).payload = DELIMITER + KEY; }},
        {"no delimiter", "no-delimiter:1",
         [](Film &film) { film.of(VIDEO_PID, 9).payload = SLICE; }},
        {"no random access", "no-random-access:1",
         [](Film &film) {
             film.of(VIDEO_PID, 10).f_key = false;
             film.of(VIDEO_PID, 10).payload = DELIMITER + SETS + KEY;
         }},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Film film(row.pictures);
        row.change(film);
        film.write();
        EXPECT_EQ(judge(film.file()), row.found);
    }
}

TEST(TsJudge, FindsEachFaultOfAPacket)
{
    using Packets = std::vector<Bytes>;
    const struct {
        const char *name, *found;
        std::function<void(Packets &)> change;
    } rows[] = {
        {"no sync byte", "sync-byte:1", [](Packets &packets) { packets[20][0] = 0; }},
        {"bytes missing", "lost-bytes:1", [](Packets &packets) { packets[20].resize(100); }},
        {"bytes too many", "lost-bytes:1", [](Packets &packets) { packets[20] += Bytes(30); }},
        // The PAT and the first key picture are gone.
        {"begins within a packet", "lost-bytes:1 no-parameter-sets:8",
         [](Packets &packets) { packets[0].erase(packets[0].begin(), packets[0].begin() + 50); }},
        {"ends within a packet", "lost-bytes:1",
         [](Packets &packets) { packets.back().resize(100); }},
        {"ends within a PES packet", "pes-length:1", [](Packets &packets) { packets.resize(3); }},
        {"marked as damaged", "transport-error:1",
         [](Packets &packets) { packets[20][1] |= 0x80; }},
        {"a packet missing", "continuity:1",
         [](Packets &packets) { packets.erase(packets.begin() + 20); }},
        {"a packet twice", "",
         [](Packets &packets) { packets.insert(packets.begin() + 20, packets[20]); }},
        {"a packet three times", "continuity:1",
         [](Packets &packets) {
             packets.insert(packets.begin() + 20, {packets[20], packets[20]});
         }},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Film film;
        film.write();
        row.change(film.packets);
        EXPECT_EQ(judge(film.file()), row.found);
    }
}

TEST(TsJudge, ReadsPacketsOfAnySize)
{
    const struct {
        size_t before, after, size;
    } rows[] = {{0, 0, 188}, {4, 0, 192}, {0, 16, 204}};
    Film film;
    film.write();
    for (const auto &row : rows) {
        size_t size = 0;
        EXPECT_EQ(judge(film.file(row.before, row.after), &size), "");
        EXPECT_EQ(size, row.size);
    }
}

}  // namespace

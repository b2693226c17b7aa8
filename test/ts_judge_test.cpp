// Each rule of the judge, broken once in a stream that is otherwise right.

#include "ts_judge.h"

#include <functional>
#include <list>

#include <gtest/gtest.h>

#include "ts_film.h"

namespace {

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
        {"PMT of two packets", "",
         [](Film &film) {
             film.each(PMT_PID,
                       [](Item &item) { item.payload = pmt("F0B4" + std::string(360, '5')); });
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
        {"times that start again", "",
         [](Film &film) {
             for (Item &item : film.items)
                 for (int64_t *time : {&item.pts, &item.dts, &item.pcr})
                     if (*time != NO_TIME) *time += (int64_t{1} << 33) - START - 15 * PICTURE;
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

#include "dmx_mp4_stbl.h"

#include <cstdio>
#include <cstring>
#include <type_traits>

#include "dmx_mp4_block.h"
#include "dmx_mp4_box.h"
#include "dmx_mp4_stsd.h"
#include "golt_endian.h"

namespace mp4 {

namespace {

// Entries of sample arrays that are laid out on the file's word, in all tracks together: where all
// samples have one size, no table of the file has to have an entry for each. 18 hours of AC-3.
constexpr uint32_t UNREAD_ENTRIES = 2 * 1024 * 1024;

// Entries of the sample tables, in the layout of the file.
struct s_stsc_entry {
    uint32_t ui4_start_chunk;  // counted from 1
    uint32_t ui4_num_samples;  // in each chunk of the run
    uint32_t ui4_sample_did;
};

struct s_xtts_entry {  // in the file's byte order
    uint32_t ui4_num_samples;
    uint32_t ui4_delta;  // ticks
};

struct s_xtts {
    uint32_t ui4_num_entries;
    heap_array<s_xtts_entry> ps_entries;
};

enum : uint32_t {
    STBL_STSD = 0x1,
    STBL_STSZ = 0x2,
    STBL_STCO = 0x4,
    STBL_STSC = 0x8,
    STBL_NEEDED = 0xF,
    STBL_STSS = 0x10,
    STBL_STTS = 0x20,
    STBL_CTTS = 0x40
};

// The tables of one "stbl" as they are in the file. Sizes and sync samples aren't here: they go
// straight to the track.
struct s_stbl {
    uint32_t ui4_boxes;  // those read
    uint32_t ui4_num_chunks;
    heap_array<uint32_t> pui4_co;
    uint32_t ui4_stsc_entries;
    heap_array<s_stsc_entry> p_stsc;
    s_xtts stts;
    s_xtts ctts;
};

bool read_table_box(uint32_t ui4_type, uint32_t ui4_pos, uint32_t ui4_last, s_track *p_tr,
                    s_stbl *p_stbl);
bool flatten(const s_stbl &stbl, const s_parse_ctx &ctx);

}  // namespace

bool _dmx_mp4_parse_stbl(uint32_t ui4_pos, uint32_t ui4_end, s_parse_ctx *p_ctx)
{
    s_stbl stbl = {};
    uint32_t ui4_size = 0;
    uint32_t ui4_type = 0;
    while (ui4_pos < ui4_end && _dmx_mp4_get_box_header(ui4_pos, &ui4_size, &ui4_type)) {
        const uint32_t ui4_last = held_last_byte(ui4_pos, ui4_size, ui4_end);
        if (ui4_type == box_type("stsd")) {
            if (!_dmx_mp4_parse_stsd(ui4_pos + 16, ui4_last, p_ctx)) break;
            stbl.ui4_boxes |= STBL_STSD;
        } else if (!read_table_box(ui4_type, ui4_pos, ui4_last, p_ctx->p_tr, &stbl)) {
            return false;
        }
        if (!step_over(&ui4_pos, ui4_size)) break;
    }
    if (!flatten(stbl, *p_ctx)) return false;

    const char *const walker = "_dmx_mp4_parse_stbl";
    if (!has_all_boxes(walker, STBL_NEEDED, stbl.ui4_boxes & STBL_NEEDED)) return false;
    static const struct {
        uint32_t ui4_box;
        const char *name;
    } optional_boxes[] = {{STBL_STSS, "stss"}, {STBL_STTS, "stts"}, {STBL_CTTS, "ctts"}};
    for (const auto &row : optional_boxes) {
        if ((stbl.ui4_boxes & row.ui4_box) == 0)
            printf("GOLT/mp4: %s: Sync Sample Box '%s' not found\n", walker, row.name);
    }
    return true;
}

namespace {

// Reading

// Brings words into the processor's order, two at a time where there are two: the tables of a long
// film have millions.
void swap_words(uint32_t *pui4_words, uint32_t ui4_count)
{
    uint32_t *const pui4_last = pui4_words + (ui4_count & ~1u);
    for (; pui4_words < pui4_last; pui4_words += 2) {
        uint64_t ui8_pair = 0;
        memcpy(&ui8_pair, pui4_words, sizeof ui8_pair);
        ui8_pair = __builtin_bswap64(ui8_pair);
        ui8_pair = ui8_pair << 32 | ui8_pair >> 32;
        memcpy(pui4_words, &ui8_pair, sizeof ui8_pair);
    }
    if ((ui4_count & 1) != 0) *pui4_last = bswap_32(*pui4_last);
}

// Reads the ui4_count entries at ui8_pos of a box that ends at ui4_last. *pui4_count and *p_table
// change together, when all have come.
template <typename T>
bool read_entries(uint64_t ui8_pos, uint32_t ui4_last, uint32_t ui4_count, uint32_t *pui4_count,
                  heap_array<T> *p_table)
{
    const uint64_t ui8_size = uint64_t{ui4_count} * sizeof(T);
    if (ui8_size > UINT32_MAX) return false;
    // The whole table is read, whatever its box says.
    if (!may_reach(ui8_pos, ui8_size, ui4_last)) return false;
    if (read_array(ui8_pos, static_cast<uint32_t>(ui8_size), p_table) != READ_WHOLE) return false;
    *pui4_count = ui4_count;
    // Entries are nothing but words. Those of "stts" and "ctts" are looked at once, and swapped then.
    if constexpr (!std::is_same_v<T, s_xtts_entry>)
        swap_words(reinterpret_cast<uint32_t *>(p_table->get()),
                   static_cast<uint32_t>(ui8_size / sizeof(uint32_t)));
    return true;
}

// A table: at ui8_pos the count of its entries, and after it the entries.
template <typename T>
bool read_table(uint64_t ui8_pos, uint32_t ui4_last, uint32_t *pui4_count, heap_array<T> *p_table)
{
    uint32_t ui4_count = 0;
    return read_be32_at(ui8_pos, &ui4_count) &&
           read_entries(ui8_pos + sizeof ui4_count, ui4_last, ui4_count, pui4_count, p_table);
}

// Replaces the table that an earlier track of the kind may have left.
void replace(uint32_t **ppui4_table, heap_array<uint32_t> *p_new)
{
    std::free(*ppui4_table);
    *ppui4_table = p_new->release();
}

bool read_stsz(uint32_t ui4_pos, uint32_t ui4_last, s_track *p_tr)
{
    if (!read_be32_at(uint64_t{ui4_pos} + 12, &p_tr->ui4_sample_size)) return false;
    if (p_tr->ui4_sample_size != 0) return true;
    heap_array<uint32_t> pui4_sizes;
    if (!read_table(uint64_t{ui4_pos} + 16, ui4_last, &p_tr->ui4_num_sizes, &pui4_sizes))
        return false;
    replace(&p_tr->pui4_sample_sizes, &pui4_sizes);
    return true;
}

bool read_stss(uint32_t ui4_pos, uint32_t ui4_last, s_track *p_tr)
{
    heap_array<uint32_t> pui4_numbers;
    if (!read_table(uint64_t{ui4_pos} + 12, ui4_last, &p_tr->ui4_num_sync_samples, &pui4_numbers))
        return false;
    for (uint32_t i = 0; i < p_tr->ui4_num_sync_samples; ++i)
        pui4_numbers[i] -= 1;
    replace(&p_tr->pui4_sync_samples, &pui4_numbers);
    return true;
}

// One child of "stbl", except "stsd"; sets its bit in ui4_boxes. False when it was cut.
bool read_table_box(uint32_t ui4_type, uint32_t ui4_pos, uint32_t ui4_last, s_track *p_tr,
                    s_stbl *p_stbl)
{
    const uint64_t ui8_table = uint64_t{ui4_pos} + 12;
    uint32_t ui4_box = 0;
    bool f_ok = true;
    switch (ui4_type) {
    case box_type("stsz"):
        ui4_box = STBL_STSZ;
        f_ok = read_stsz(ui4_pos, ui4_last, p_tr);
        break;
    case box_type("stco"):
        ui4_box = STBL_STCO;
        f_ok = read_table(ui8_table, ui4_last, &p_stbl->ui4_num_chunks, &p_stbl->pui4_co);
        break;
    case box_type("stsc"):
        ui4_box = STBL_STSC;
        f_ok = read_table(ui8_table, ui4_last, &p_stbl->ui4_stsc_entries, &p_stbl->p_stsc);
        break;
    case box_type("stss"):
        ui4_box = STBL_STSS;
        f_ok = read_stss(ui4_pos, ui4_last, p_tr);
        break;
    case box_type("stts"):
        ui4_box = STBL_STTS;
        f_ok = read_table(ui8_table, ui4_last, &p_stbl->stts.ui4_num_entries,
                          &p_stbl->stts.ps_entries);
        break;
    case box_type("ctts"):
        ui4_box = STBL_CTTS;
        f_ok = read_table(ui8_table, ui4_last, &p_stbl->ctts.ui4_num_entries,
                          &p_stbl->ctts.ps_entries);
        break;
    default: break;
    }
    p_stbl->ui4_boxes |= ui4_box;
    return f_ok;
}

// Layout

// The only source of the number of samples; sums as the format's 32-bit numbers do.
uint32_t count_samples(const s_stbl &stbl)
{
    uint32_t ui4_count = 0;
    for (uint32_t i = 0; i < stbl.ui4_stsc_entries; ++i) {
        const s_stsc_entry &run = stbl.p_stsc[i];
        const uint32_t ui4_next_chunk = i + 1 < stbl.ui4_stsc_entries
                                            ? stbl.p_stsc[i + 1].ui4_start_chunk
                                            : stbl.ui4_num_chunks + 1;
        ui4_count += run.ui4_num_samples * (ui4_next_chunk - run.ui4_start_chunk);
    }
    return ui4_count;
}

// The number of the ui4_wanted entries that may still be laid out because the file states them.
uint32_t grant_unread(uint32_t ui4_wanted)
{
    const uint32_t ui4_left = UNREAD_ENTRIES - dmx_mp4.ui4_unread_entries;
    const uint32_t ui4_granted = ui4_wanted < ui4_left ? ui4_wanted : ui4_left;
    dmx_mp4.ui4_unread_entries += ui4_granted;
    return ui4_granted;
}

// Samples of one chunk lie back to back from ui8_offset on. Places those from ui4_first up to ui4_end
// and returns the first one not placed, which is ui4_end unless they lead past 4 GiB.
uint32_t place_chunk(const s_track &tr, uint64_t ui8_offset, uint32_t ui4_first, uint32_t ui4_end,
                     uint32_t *pui4_offsets)
{
    const uint32_t ui4_constant = tr.ui4_sample_size;
    const uint32_t *const pui4_sizes = tr.pui4_sample_sizes;
    const auto size_of = [=](uint32_t i) {
        return ui4_constant != 0 ? ui4_constant : pui4_sizes[i];
    };
    for (uint32_t i = ui4_first; i < ui4_end; ++i) {
        pui4_offsets[i] = static_cast<uint32_t>(ui8_offset);
        ui8_offset += size_of(i);
    }
    // Looked at only here, as hardly a file comes near it: those that start past 4 GiB are taken back.
    while (ui8_offset >= POSITIONS_END && ui4_end > ui4_first) {
        ui8_offset -= size_of(ui4_end - 1);
        if (ui8_offset < POSITIONS_END) break;
        --ui4_end;
    }
    return ui4_end;
}

// Returns the number of samples placed: it is short of ui4_room where the tables contradict each
// other or lead past 4 GiB, and the track ends there. Chunks that don't exist hold no samples. A
// chunk that is visited again takes new samples each time, so that ui4_room bounds the visits.
uint32_t expand_offsets(const s_stbl &stbl, const s_track &tr, uint32_t ui4_room,
                        uint32_t *pui4_offsets)
{
    uint32_t ui4_si = 0;
    for (uint32_t i = 0; i < stbl.ui4_stsc_entries; ++i) {
        const s_stsc_entry run = stbl.p_stsc[i];
        uint32_t ui4_last_chunk = stbl.ui4_num_chunks;
        if (i + 1 < stbl.ui4_stsc_entries &&
            stbl.p_stsc[i + 1].ui4_start_chunk - 1 < ui4_last_chunk)
            ui4_last_chunk = stbl.p_stsc[i + 1].ui4_start_chunk - 1;
        if (run.ui4_num_samples == 0) continue;
        if (run.ui4_start_chunk == 0) return ui4_si;
        for (uint32_t ui4_chunk = run.ui4_start_chunk; ui4_chunk <= ui4_last_chunk; ++ui4_chunk) {
            const uint32_t ui4_left = ui4_room - ui4_si;
            const uint32_t ui4_wanted = run.ui4_num_samples;
            const uint32_t ui4_end = ui4_si + (ui4_wanted < ui4_left ? ui4_wanted : ui4_left);
            ui4_si = place_chunk(tr, stbl.pui4_co[ui4_chunk - 1], ui4_si, ui4_end, pui4_offsets);
            if (ui4_si < ui4_end || ui4_wanted > ui4_left) return ui4_si;
        }
    }
    return ui4_si;
}

// The offsets of ui4_count samples, or of as many as have a size. False without memory.
bool lay_out_offsets(const s_stbl &stbl, uint32_t ui4_count, s_track *p_tr)
{
    const bool f_one_size = p_tr->ui4_sample_size != 0;
    const uint32_t ui4_room = f_one_size                        ? grant_unread(ui4_count)
                              : ui4_count < p_tr->ui4_num_sizes ? ui4_count
                                                                : p_tr->ui4_num_sizes;
    heap_array<uint32_t> pui4_offsets = make_array<uint32_t>(ui4_room);
    if (pui4_offsets == nullptr) return false;
    p_tr->ui4_num_offsets = expand_offsets(stbl, *p_tr, ui4_room, pui4_offsets.get());
    replace(&p_tr->pui4_sample_offsets, &pui4_offsets);
    // Tables that contradict each other have as many samples as they agree upon. If there are only too
    // many to lay them all out, the mean interval is still that of all of them.
    p_tr->ui4_num_samples =
        f_one_size && p_tr->ui4_num_offsets == ui4_room ? ui4_count : p_tr->ui4_num_offsets;
    return true;
}

// A place in a table of runs.
struct delta_walk_t {
    const s_xtts_entry *p_next;
    const s_xtts_entry *p_end;
    uint32_t ui4_left;   // samples of the present run
    uint32_t ui4_delta;  // of each of them

    explicit delta_walk_t(const s_xtts &xtts)
        : p_next(xtts.ps_entries.get())
        , p_end(xtts.ps_entries.get() + xtts.ui4_num_entries)
        , ui4_left(0)
        , ui4_delta(0)
    {
    }

    // Moves to the next run that has samples. After the last one, where it returns false, there is
    // one of delta 0 for all the samples that a track can have.
    bool next_run()
    {
        do {
            if (p_next == p_end) {
                ui4_left = UINT32_MAX;
                ui4_delta = 0;
                return false;
            }
            ui4_left = bswap_32(p_next->ui4_num_samples);
            ui4_delta = bswap_32(p_next->ui4_delta);
            ++p_next;
        } while (ui4_left == 0);
        return true;
    }
};

// Presentation times in ms, in decoding order, of ui4_num_samples samples. Samples after the last
// run of "stts" have the decoding time 0, those after the last run of "ctts" no offset.
heap_array<uint32_t> expand_timestamps(const s_stbl &stbl, uint32_t ui4_num_samples,
                                       uint32_t ui4_tscale)
{
    heap_array<uint32_t> pui4_ts = make_array<uint32_t>(ui4_num_samples);
    if (pui4_ts == nullptr) return pui4_ts;
    delta_walk_t t_durations(stbl.stts);
    delta_walk_t t_offsets(stbl.ctts);
    uint32_t ui4_next_ts = 0;
    for (uint32_t i = 0; i < ui4_num_samples; ++i) {
        if (t_durations.ui4_left == 0 && !t_durations.next_run()) ui4_next_ts = 0;
        if (t_offsets.ui4_left == 0) t_offsets.next_run();
        --t_durations.ui4_left;
        --t_offsets.ui4_left;
        const double db_ms = (ui4_next_ts + t_offsets.ui4_delta) * 1000.0 / ui4_tscale;
        pui4_ts[i] = static_cast<uint32_t>(static_cast<int64_t>(db_ms));
        ui4_next_ts += t_durations.ui4_delta;
    }
    return pui4_ts;
}

// The times of all samples that have an offset. Where the offsets are an earlier track's, a table of
// times can come without the bytes that a table of sizes has. False without memory.
bool lay_out_times(const s_stbl &stbl, bool f_offsets, uint32_t ui4_tscale, s_track *p_tr)
{
    const uint32_t ui4_count =
        f_offsets ? p_tr->ui4_num_offsets : grant_unread(p_tr->ui4_num_offsets);
    heap_array<uint32_t> pui4_ts = expand_timestamps(stbl, ui4_count, ui4_tscale);
    if (pui4_ts == nullptr) return false;
    replace(&p_tr->pui4_ts, &pui4_ts);
    p_tr->ui4_num_ts = ui4_count;
    return true;
}

// Turns the tables into the track's arrays. What no table was read for stays as an earlier track of
// the kind has left it. False without memory.
bool flatten(const s_stbl &stbl, const s_parse_ctx &ctx)
{
    s_track *p_tr = ctx.p_tr;
    constexpr uint32_t FOR_OFFSETS = STBL_STSZ | STBL_STCO | STBL_STSC;
    const bool f_offsets = (stbl.ui4_boxes & FOR_OFFSETS) == FOR_OFFSETS;
    const bool f_constant = stbl.stts.ui4_num_entries <= 1 && stbl.ctts.ui4_num_entries == 0;
    if ((stbl.ui4_boxes & STBL_STSC) != 0) p_tr->ui4_num_samples = count_samples(stbl);
    if (f_offsets && !lay_out_offsets(stbl, p_tr->ui4_num_samples, p_tr)) return false;
    if (!f_constant) {
        if (!lay_out_times(stbl, f_offsets, ctx.ui4_tscale, p_tr)) return false;
    } else if (f_offsets) {
        heap_array<uint32_t> none;
        replace(&p_tr->pui4_ts, &none);
    }
    if (f_constant && stbl.stts.ui4_num_entries == 1)
        p_tr->db_interval = bswap_32(stbl.stts.ps_entries[0].ui4_delta) * (1000.0 / ctx.ui4_tscale);
    if (p_tr->db_interval == 0 && p_tr->ui4_num_samples != 0)
        p_tr->db_interval = static_cast<double>(p_tr->ui4_duration) / p_tr->ui4_num_samples;
    return true;
}

}  // namespace

}  // namespace mp4

// The sample descriptions and tables of a track (ISO/IEC 14496-12, 14496-1). The tables are read
// through once, entry by entry, and none is kept.

#include <algorithm>

#include "parsers.h"

namespace outline {

namespace {

/// Where the tables are.
struct Tables {
    std::optional<Stretch> sizes, chunks, offsets, durations;
    bool f_compact_sizes = false;
    bool f_64_bit_offsets = false;
};

/// Sizes of samples, whichever box has them.
struct Sizes {
    uint32_t constant = 0;  // 0: each has its own
    uint64_t count = 0;
    size_t bits = 32;  // of an entry
    std::optional<Stretch> entries;

    std::optional<uint64_t> sum(uint64_t first, uint64_t number) const;
};

uint32_t stated_samples(Stretch sizes);
void read_description(Stretch body, Track &track);
void read_video_entry(Stretch entry, Track &track);
void read_audio_entry(Stretch entry, Track &track);
void read_entry_children(Stretch body, Track &track, int depth);
void read_decoder_descriptors(Stretch body, Track &track);
void sum_durations(Stretch body, Mp4Details &mp4);
Sizes sizes_of(const Tables &tables);
std::optional<uint64_t> find_end(const Tables &tables, const Sizes &sizes);

}  // namespace

TablePlace place_of(const Stretch &body)
{
    return {body.at(), body.end()};
}

void read_sample_tables(Stretch body, Track &track)
{
    Tables tables;
    while (std::optional<Box> box = next_box(body)) {
        switch (box->type) {
        case box_type("stsd"):
            track.mp4.stsd = place_of(box->body);
            read_description(box->body, track);
            break;
        case box_type("stts"):
            tables.durations = box->body;
            track.mp4.stts = place_of(box->body);
            break;
        case box_type("ctts"): track.mp4.ctts = place_of(box->body); break;
        case box_type("stsc"):
            tables.chunks = box->body;
            track.mp4.stsc = place_of(box->body);
            break;
        case box_type("stsz"):
            tables.sizes = box->body;
            track.mp4.stsz = place_of(box->body);
            track.mp4.samples = stated_samples(box->body);
            break;
        case box_type("stz2"):
            tables.sizes = box->body;
            tables.f_compact_sizes = track.mp4.f_compact_sizes = true;
            break;
        case box_type("stco"):
        case box_type("co64"):
            tables.offsets = box->body;
            tables.f_64_bit_offsets = box->type == box_type("co64");
            if (box->type == box_type("stco")) track.mp4.stco = place_of(box->body);
            track.mp4.f_offsets = true;
            track.mp4.f_64_bit_offsets = tables.f_64_bit_offsets;
            break;
        case box_type("stss"):
            track.mp4.stss = place_of(box->body);
            box->body.skip(4);
            track.mp4.sync_samples = box->body.u32();
            break;
        }
    }
    if (tables.durations) sum_durations(*tables.durations, track.mp4);
    const Sizes sizes = sizes_of(tables);
    track.mp4.samples = sizes.count;
    track.mp4.bytes = sizes.sum(0, sizes.count);
    track.mp4.end = find_end(tables, sizes);
}

namespace {

uint32_t stated_samples(Stretch sizes)
{
    sizes.skip(8);  // version and flags, size of all samples
    return sizes.u32();
}

void read_description(Stretch body, Track &track)
{
    body.skip(8);  // version and flags, entry_count: one entry is all that players take
    std::optional<Box> entry = next_box(body);
    if (!entry) return;
    track.codec.clear();
    for (int shift = 24; shift >= 0; shift -= 8) {
        const auto letter = static_cast<uint8_t>(entry->type >> shift);
        track.codec += letter >= 0x20 && letter < 0x7F ? static_cast<char>(letter) : '?';
    }
    entry->body.skip(8);  // reserved, data_reference_index
    if (track.kind == TrackKind::VIDEO) read_video_entry(entry->body, track);
    if (track.kind == TrackKind::AUDIO) read_audio_entry(entry->body, track);
}

void read_video_entry(Stretch entry, Track &track)
{
    entry.skip(16);  // pre_defined and reserved
    track.width = entry.u16();
    track.height = entry.u16();
    entry.skip(50);  // resolutions, reserved, frame_count, compressorname, depth, pre_defined
    read_entry_children(entry, track, 0);
}

// The versions 1 and 2 are of QuickTime and have more fields.
void read_audio_entry(Stretch entry, Track &track)
{
    track.mp4.entry_version = entry.u16();
    entry.skip(6);  // revision level, vendor
    track.channels = entry.u16();
    entry.skip(6);  // samplesize, compression ID, packet size
    track.sample_rate = entry.u32() >> 16;
    if (track.mp4.entry_version == 1) entry.skip(16);
    if (track.mp4.entry_version == 2) entry.skip(36);
    read_entry_children(entry, track, 0);
}

void read_entry_children(Stretch body, Track &track, int depth)
{
    while (std::optional<Box> box = next_box(body)) {
        switch (box->type) {
        case box_type("avcC"):
            track.config = box->body.bytes(box->body.left(), Outline::MOST_CONFIG);
            break;
        case box_type("esds"): read_decoder_descriptors(box->body, track); break;
        case box_type("wave"):  // in which QuickTime wraps them
            if (depth == 0) read_entry_children(box->body, track, 1);
            break;
        }
    }
}

// A descriptor's size: 7 bits of each byte, as long as the top bit is set.
uint64_t descriptor_size(Stretch &in)
{
    uint64_t size = 0;
    for (int i = 0; i < 4; ++i) {
        const uint8_t byte = in.u8();
        size = size << 7 | (byte & 0x7F);
        if ((byte & 0x80) == 0) break;
    }
    return size;
}

// ES_Descriptor, in it DecoderConfigDescriptor, in it DecoderSpecificInfo (ISO/IEC 14496-1).
void read_decoder_descriptors(Stretch body, Track &track)
{
    constexpr uint8_t ES = 3, DECODER_CONFIG = 4, DECODER_INFO = 5;
    body.skip(4);  // version and flags
    while (body.left() > 0) {
        const uint8_t tag = body.u8();
        const uint64_t size = std::min(descriptor_size(body), body.left());
        if (tag == ES) {
            body.skip(2);
            const uint8_t flags = body.u8();
            if ((flags & 0x80) != 0) body.skip(2);          // dependsOn_ES_ID
            if ((flags & 0x40) != 0) body.skip(body.u8());  // URL
            if ((flags & 0x20) != 0) body.skip(2);          // OCR_ES_Id
        } else if (tag == DECODER_CONFIG) {
            track.mp4.object_type = body.u8();
            body.skip(12);  // streamType, buffer size and bit rates
        } else if (tag == DECODER_INFO) {
            track.config = body.bytes(size, Outline::MOST_CONFIG);
        } else {
            body.skip(size);
        }
    }
}

// One run alone without offsets of presentation has no mean interval but its own.
void sum_durations(Stretch body, Mp4Details &mp4)
{
    constexpr uint64_t ENTRY_SIZE = 8;
    body.skip(4);
    const uint64_t count = std::min<uint64_t>(body.u32(), body.left() / ENTRY_SIZE);
    const bool f_constant = count == 1 && mp4.ctts.begin == 0;
    const double ms = mp4.timescale == 0 ? 0 : 1000.0 / mp4.timescale;
    const double interval = mean_interval(mp4);
    uint64_t sum = 0;
    double off = 0, least = 0, most = 0;
    for (uint64_t i = 0; i < count; ++i) {
        const uint64_t samples = body.u32(), duration = body.u32();
        if (body.is_short()) return;
        const uint64_t more = samples * duration;
        if (more > UINT64_MAX - sum) return;
        sum += more;
        if (samples != 0) mp4.last_length = static_cast<uint32_t>(duration);
        // Most at the run's first sample or at its last one.
        least = std::min(least, off);
        most = std::max(most, off);
        const double step = interval - static_cast<double>(duration) * ms;
        const double last = off + (static_cast<double>(samples) - 1) * step;
        if (samples != 0) {
            least = std::min(least, last);
            most = std::max(most, last);
        }
        off += static_cast<double>(samples) * step;
    }
    mp4.ticks = sum;
    if (f_constant) return;
    mp4.least_off = least;
    mp4.most_off = most;
}

Sizes sizes_of(const Tables &tables)
{
    Sizes sizes;
    if (!tables.sizes) return sizes;
    Stretch body = *tables.sizes;
    body.skip(4);
    if (tables.f_compact_sizes) {
        sizes.bits = body.u32() & 0xFF;
        if (sizes.bits != 4 && sizes.bits != 8 && sizes.bits != 16) return {};
    } else {
        sizes.constant = body.u32();
    }
    sizes.count = body.u32();
    if (body.is_short()) return {};
    if (sizes.constant == 0) sizes.count = std::min(sizes.count, body.left() * 8 / sizes.bits);
    sizes.entries = body;
    return sizes;
}

// Of so many samples from the first one on, which counts from 0.
std::optional<uint64_t> Sizes::sum(uint64_t first, uint64_t number) const
{
    if (!entries || first > count || number > count - first) return {};
    if (constant != 0) return number * constant;
    Stretch at = *entries;
    at.skip(first * bits / 8);
    // Of entries of 4 bits a byte has two, the first in its high half.
    uint64_t total = 0;
    for (uint64_t i = first; i < first + number; ++i) {
        if (bits >= 8) {
            total += at.number(bits / 8);
        } else {
            Stretch byte = at;
            total += i % 2 == 0 ? byte.u8() >> 4u : at.u8() & 0xFu;
            if (byte.is_short()) return {};
        }
        if (at.is_short()) return {};
    }
    return total;
}

/// A chunk and its samples; both count from 0.
struct Chunk {
    uint64_t number, offset, first_sample, samples;
};

std::optional<Chunk> last_chunk(const Tables &tables)
{
    if (!tables.offsets) return {};
    const size_t entry_size = tables.f_64_bit_offsets ? 8 : 4;
    Stretch body = *tables.offsets;
    body.skip(4);
    const uint64_t count = std::min<uint64_t>(body.u32(), body.left() / entry_size);
    Chunk last = {};
    for (uint64_t i = 0; i < count; ++i) {
        const uint64_t offset = body.number(entry_size);
        if (body.is_short()) return {};
        if (offset >= last.offset) last = {i, offset, 0, 0};
    }
    if (count == 0) return {};
    return last;
}

// Each entry of "stsc" holds for the chunks from its own up to that of the next.
bool find_samples(const Tables &tables, Chunk &chunk)
{
    constexpr uint64_t ENTRY_SIZE = 12;
    if (!tables.chunks) return false;
    Stretch body = *tables.chunks;
    body.skip(4);
    const uint64_t count = std::min<uint64_t>(body.u32(), body.left() / ENTRY_SIZE);
    uint64_t run_begin = 0, run_samples = 0;
    for (uint64_t i = 0; i < count; ++i) {
        const uint64_t begin = uint64_t{body.u32()} - 1, samples = body.u32();
        body.skip(4);  // sample_description_index
        if (body.is_short() || begin > UINT32_MAX || begin < run_begin) return false;
        if (begin > chunk.number) break;
        chunk.first_sample += (begin - run_begin) * run_samples;
        run_begin = begin;
        run_samples = samples;
    }
    chunk.first_sample += (chunk.number - run_begin) * run_samples;
    chunk.samples = run_samples;
    return run_samples > 0;
}

std::optional<uint64_t> find_end(const Tables &tables, const Sizes &sizes)
{
    std::optional<Chunk> chunk = last_chunk(tables);
    if (!chunk || !find_samples(tables, *chunk)) return {};
    const std::optional<uint64_t> bytes = sizes.sum(chunk->first_sample, chunk->samples);
    if (!bytes || *bytes > UINT64_MAX - chunk->offset) return {};
    return chunk->offset + *bytes;
}

}  // namespace

}  // namespace outline

// The boxes of MP4 and QuickTime files (ISO/IEC 14496-12) from the top to each track.

#include <algorithm>

#include "parsers.h"

namespace outline {

namespace {

constexpr uint32_t HEADER_SIZE = 8;  // of a box with a size of 32 bits
constexpr uint32_t LARGE_HEADER_SIZE = 16;

void note_media_box(const Box &box, Mp4Outline &mp4);
void read_movie(Stretch body, Outline &outline);
void read_movie_header(Stretch body, Outline &outline);
void read_user_data(Stretch body, Outline &outline);
Track read_track(Stretch body);
void read_track_header(Stretch body, Track &track);
void read_edits(Stretch body, Mp4Details &mp4);
void read_references(Stretch body, Mp4Details &mp4);
void read_media(Stretch body, Track &track);
void read_media_header(Stretch body, Track &track);
TrackKind kind_of_handler(const std::string &handler);
void take_chapters(Outline &outline);
void read_layer(Reader &reader, Track &track);

// The C library's rounding would be another shared object to load.
int64_t ticks_of_time(int64_t time, uint32_t timescale)
{
    constexpr int64_t TICKS_PER_SECOND = 90000;
    constexpr int64_t LONGEST = INT32_MAX;  // seconds
    if (timescale == 0) return 0;
    const int64_t seconds = std::clamp(time / timescale, -LONGEST, LONGEST);
    const int64_t rest = time % timescale * TICKS_PER_SECOND;
    const int64_t half = rest < 0 ? -int64_t{timescale} / 2 : int64_t{timescale} / 2;
    return seconds * TICKS_PER_SECOND + (rest + half) / timescale;
}

}  // namespace

std::optional<Box> next_box(Stretch &in)
{
    if (in.left() < HEADER_SIZE) return {};
    uint64_t size = in.u32(), header_size = HEADER_SIZE;
    const uint32_t type = in.u32();
    const bool f_large = size == 1, f_open = size == 0;
    if (f_large) {
        size = in.u64();
        header_size = LARGE_HEADER_SIZE;
    }
    if (f_open) size = header_size + in.left();
    if (in.is_short() || size < header_size) return {};
    const uint64_t declared = size - header_size;
    return Box{type, in.child(std::min(declared, in.left())), declared, f_large, f_open};
}

// As far as it is needed: the movie box and the begin of the media, or the first fragment.
void read_mp4(Reader &reader, Outline &outline)
{
    Mp4Outline &mp4 = outline.mp4;
    Stretch file(reader, 0, reader.size());
    bool f_first = true;
    while (!mp4.f_moof && !(mp4.f_moov && mp4.f_mdat && !mp4.f_fragmented)) {
        const std::optional<Box> box = next_box(file);
        if (!box) break;
        switch (box->type) {
        case box_type("ftyp"): mp4.f_ftyp = mp4.f_ftyp || f_first; break;
        case box_type("moof"): mp4.f_moof = mp4.f_fragmented = true; break;
        case box_type("mdat"): note_media_box(*box, mp4); break;
        case box_type("moov"):
            mp4.f_moov = true;
            mp4.f_moov_first = !mp4.f_mdat;
            mp4.f_moov_cut = box->declared > box->body.left();
            read_movie(box->body, outline);
            break;
        }
        f_first = false;
    }
    take_chapters(outline);
    outline.looked_at_to = file.at();
}

void read_layers(Reader &reader, Outline &outline)
{
    for (Track &track : outline.tracks)
        read_layer(reader, track);
}

namespace {

void note_media_box(const Box &box, Mp4Outline &mp4)
{
    mp4.f_mdat = true;
    if (!mp4.f_moov) {
        mp4.f_64_bit_mdat = mp4.f_64_bit_mdat || box.f_64_bit_size;
        mp4.f_open_box = mp4.f_open_box || box.f_open;
    }
    if (box.declared <= UINT64_MAX - box.body.at()) mp4.mdat_end = box.body.at() + box.declared;
}

void read_movie(Stretch body, Outline &outline)
{
    while (const std::optional<Box> box = next_box(body)) {
        switch (box->type) {
        case box_type("mvhd"): read_movie_header(box->body, outline); break;
        case box_type("mvex"): outline.mp4.f_fragmented = true; break;
        case box_type("udta"): read_user_data(box->body, outline); break;
        case box_type("trak"):
            if (outline.tracks.size() < Outline::MOST_TRACKS)
                outline.tracks.push_back(read_track(box->body));
            else
                ++outline.more_tracks;
            break;
        }
    }
}

void read_movie_header(Stretch body, Outline &outline)
{
    const bool f_long = body.u32() >> 24 == 1;
    body.skip(f_long ? 16 : 8);  // creation_time, modification_time
    const uint32_t timescale = body.u32();
    const uint64_t duration = f_long ? body.u64() : body.u32();
    if (body.is_short()) return;
    outline.mp4.timescale = timescale;
    const bool f_known = duration != (f_long ? UINT64_MAX : UINT32_MAX);
    if (f_known && duration != 0) outline.duration_ns = ticks_to_ns(duration, timescale);
}

// "chpl", a list of chapters beside the tracks, which many programs write.
void read_user_data(Stretch body, Outline &outline)
{
    for (uint64_t at = body.at(); std::optional<Box> box = next_box(body); at = body.at()) {
        if (box->type == box_type("meta")) outline.attachments_at = at;
        if (box->type != box_type("chpl")) continue;
        const bool f_later_version = box->body.u32() >> 24 != 0;
        if (f_later_version) box->body.skip(4);
        const uint8_t count = box->body.u8();
        if (!box->body.is_short()) outline.chapters = count;
    }
}

Track read_track(Stretch body)
{
    Track track;
    while (const std::optional<Box> box = next_box(body)) {
        switch (box->type) {
        case box_type("tkhd"):
            track.mp4.tkhd = place_of(box->body);
            read_track_header(box->body, track);
            break;
        case box_type("edts"): read_edits(box->body, track.mp4); break;
        case box_type("tref"): read_references(box->body, track.mp4); break;
        case box_type("mdia"): read_media(box->body, track); break;
        }
    }
    const Mp4Details &mp4 = track.mp4;
    const uint64_t ticks = mp4.ticks.value_or(0) != 0 ? *mp4.ticks : mp4.duration;
    if (ticks != 0) track.duration_ns = ticks_to_ns(ticks, mp4.timescale);
    return track;
}

void read_track_header(Stretch body, Track &track)
{
    constexpr uint32_t ENABLED = 1;
    constexpr uint32_t ONE = 0x10000, MINUS_ONE = 0xFFFF0000;  // 16.16
    const uint32_t flags = body.u32();
    const bool f_long = flags >> 24 == 1;
    body.skip(f_long ? 16 : 8);  // creation_time, modification_time
    track.number = body.u32();
    track.f_enabled = (flags & ENABLED) != 0;
    // Another reserved word, duration, two reserved words, layer, alternate_group, volume and two bytes
    body.skip(4 + (f_long ? 8 : 4) + 8 + 8);
    const uint32_t a = body.u32(), b = body.u32();
    body.skip(4);
    const uint32_t c = body.u32(), d = body.u32();
    if (body.is_short()) return;
    if (a == 0 && d == 0 && b == ONE && c == MINUS_ONE) track.mp4.rotation = 90;
    if (a == MINUS_ONE && d == MINUS_ONE && b == 0 && c == 0) track.mp4.rotation = 180;
    if (a == 0 && d == 0 && b == MINUS_ONE && c == ONE) track.mp4.rotation = 270;
}

void read_edits(Stretch body, Mp4Details &mp4)
{
    while (std::optional<Box> box = next_box(body)) {
        if (box->type != box_type("elst")) continue;
        Stretch &list = box->body;
        const bool f_long = list.u32() >> 24 == 1;
        const uint64_t entry_size = f_long ? 20 : 12;
        const uint64_t count = std::min<uint64_t>(list.u32(), list.left() / entry_size);
        mp4.edits.clear();
        mp4.more_edits = 0;
        for (uint64_t i = 0; i < count && mp4.edits.size() < Outline::MOST_EDITS; ++i) {
            Edit edit = {};
            edit.duration = f_long ? list.u64() : list.u32();
            edit.media_time =
                f_long ? static_cast<int64_t>(list.u64()) : static_cast<int32_t>(list.u32());
            edit.rate = static_cast<int32_t>(list.u32());
            if (list.is_short()) return;
            mp4.edits.push_back(edit);
        }
        mp4.more_edits = count - mp4.edits.size();
    }
}

void read_references(Stretch body, Mp4Details &mp4)
{
    constexpr size_t MOST_REFERENCES = 8;
    while (std::optional<Box> box = next_box(body)) {
        if (box->type != box_type("chap")) continue;
        while (box->body.left() >= 4 && mp4.chapter_tracks.size() < MOST_REFERENCES)
            mp4.chapter_tracks.push_back(box->body.u32());
    }
}

void read_media(Stretch body, Track &track)
{
    while (std::optional<Box> box = next_box(body)) {
        switch (box->type) {
        case box_type("mdhd"):
            track.mp4.mdhd = place_of(box->body);
            read_media_header(box->body, track);
            break;
        case box_type("hdlr"):
            track.mp4.hdlr = place_of(box->body);
            box->body.skip(8);  // version and flags, pre_defined
            track.handler = box->body.text(4, 4);
            track.kind = kind_of_handler(track.handler);
            break;
        case box_type("minf"):
            while (const std::optional<Box> inner = next_box(box->body))
                if (inner->type == box_type("stbl")) read_sample_tables(inner->body, track);
            break;
        }
    }
}

void read_media_header(Stretch body, Track &track)
{
    const bool f_long = body.u32() >> 24 == 1;
    body.skip(f_long ? 16 : 8);  // creation_time, modification_time
    const uint32_t timescale = body.u32();
    const uint64_t duration = f_long ? body.u64() : body.u32();
    const uint16_t language = body.u16();
    if (body.is_short()) return;
    track.mp4.timescale = timescale;
    const bool f_known = duration != (f_long ? UINT64_MAX : UINT32_MAX);
    track.mp4.duration = f_known ? duration : 0;
    // Three letters of 5 bits; smaller numbers are codes of QuickTime.
    constexpr uint16_t FIRST_LETTERS = 0x400;
    if (language < FIRST_LETTERS) return;
    track.language.clear();
    for (int shift = 10; shift >= 0; shift -= 5) {
        const char letter = static_cast<char>((language >> shift & 0x1F) + 0x60);
        if (letter >= 'a' && letter <= 'z') track.language += letter;
    }
}

TrackKind kind_of_handler(const std::string &handler)
{
    if (handler == "vide") return TrackKind::VIDEO;
    if (handler == "soun") return TrackKind::AUDIO;
    for (const char *name : {"text", "sbtl", "subt", "subp", "clcp"})
        if (handler == name) return TrackKind::SUBTITLES;
    return TrackKind::OTHER;
}

// The tracks that others name as their chapters.
void take_chapters(Outline &outline)
{
    std::vector<uint32_t> named;
    for (const Track &track : outline.tracks)
        named.insert(named.end(), track.mp4.chapter_tracks.begin(), track.mp4.chapter_tracks.end());
    for (Track &track : outline.tracks) {
        track.f_chapters = std::find(named.begin(), named.end(), track.number) != named.end();
        if (track.f_chapters && !outline.chapters) outline.chapters = track.mp4.samples;
    }
    if (outline.mp4.f_moov && !outline.chapters) outline.chapters = 0;
}

// 0x69 and 0x6B stand for all layers (ISO/IEC 14496-1): the first sample tells.
void read_layer(Reader &reader, Track &track)
{
    constexpr uint8_t MPEG_2_AUDIO = 0x69, MPEG_1_AUDIO = 0x6B;
    Mp4Details &mp4 = track.mp4;
    const bool f_layered = mp4.object_type == MPEG_2_AUDIO || mp4.object_type == MPEG_1_AUDIO;
    if (!f_layered || mp4.stco.begin == 0) return;
    Stretch table(reader, mp4.stco.begin, mp4.stco.end);
    table.skip(8);  // version and flags, number of chunks
    const uint32_t first = table.u32();
    if (table.is_short()) return;
    Stretch sample(reader, first, reader.size());
    if (const auto header = parse_mpeg_audio_header(sample.u32())) mp4.layer = header->layer;
}

}  // namespace

}  // namespace outline

double mean_interval(const Mp4Details &track)
{
    if (track.timescale == 0 || track.samples == 0) return 0;
    const uint64_t scale = track.timescale;
    const uint64_t ms = track.duration / scale * 1000 + track.duration % scale * 1000 / scale;
    return static_cast<double>(ms) / static_cast<double>(track.samples);
}

int64_t edited_offset(const Mp4Details &track, uint32_t movie_timescale)
{
    constexpr int64_t EMPTY = -1;
    int64_t offset = 0;
    for (const Edit &edit : track.edits) {
        if (edit.media_time != EMPTY)
            return offset - outline::ticks_of_time(edit.media_time, track.timescale);
        offset += outline::ticks_of_time(static_cast<int64_t>(edit.duration), movie_timescale);
    }
    return offset;
}

// MPEG audio files (ISO/IEC 11172-3, 13818-3): the tags at both ends, and the first frame, which
// states how many others there are.

#include <algorithm>
#include <cstring>

#include "parsers.h"

namespace outline {

namespace {

constexpr uint64_t ID3V1_SIZE = 128, APE_FOOTER = 32;
// Beyond a tag some files have a little padding before the first frame.
constexpr uint64_t SEARCHED = 8192;

uint64_t read_front_tags(Reader &reader, MpegAudioOutline &audio);
void read_end_tags(Reader &reader, MpegAudioOutline &audio);
bool find_first_frame(Reader &reader, uint64_t from, MpegAudioHeader &header, uint64_t &offset);
void read_first_frame(Reader &reader, const MpegAudioHeader &header, MpegAudioOutline &audio);
void set_duration(const MpegAudioHeader &header, Outline &outline);

}  // namespace

std::optional<MpegAudioHeader> parse_mpeg_audio_header(uint32_t bits)
{
    static const uint16_t RATES_1[3][15] = {
        // kbit/s of MPEG-1, by layer and bitrate_index
        {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448},
        {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384},
        {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320}};
    static const uint16_t RATES_2[3][15] = {
        // of MPEG-2 and 2.5
        {0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256},
        {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160},
        {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160}};
    static const uint32_t SAMPLE_RATES[3] = {44100, 48000, 32000};
    static const uint32_t VERSIONS[4] = {25, 0, 20, 10};
    const uint32_t version = VERSIONS[bits >> 19 & 3], layer = 4 - (bits >> 17 & 3);
    const uint32_t rate_index = bits >> 12 & 0xF, frequency = bits >> 10 & 3;
    if (bits >> 21 != 0x7FF || version == 0 || layer == 4) return {};
    if (rate_index == 0 || rate_index == 15 || frequency == 3) return {};

    MpegAudioHeader out = {};
    out.version = version;
    out.layer = layer;
    out.bit_rate = (version == 10 ? RATES_1 : RATES_2)[layer - 1][rate_index] * 1000u;
    out.sample_rate = SAMPLE_RATES[frequency] / (version == 10 ? 1 : version == 20 ? 2 : 4);
    out.channels = (bits >> 6 & 3) == 3 ? 1 : 2;
    out.samples = layer == 1 ? 384 : layer == 3 && version != 10 ? 576 : 1152;
    const uint32_t padding = bits >> 9 & 1, slot = layer == 1 ? 4 : 1;
    out.size = (out.samples / 8 / slot * out.bit_rate / out.sample_rate + padding) * slot;
    return out;
}

uint32_t take_synchsafe(Stretch &in)
{
    uint32_t value = 0;
    for (int i = 0; i < 4; ++i)
        value = value << 7 | (in.u8() & 0x7Fu);
    return value;
}

Id3Header take_id3_header(Stretch &in)
{
    constexpr uint32_t ID3 = 0x494433;
    constexpr uint8_t FOOTER_PRESENT = 0x10;
    constexpr uint64_t HEADER_SIZE = 10;
    Id3Header header = {};
    if (in.u24() != ID3) return header;
    header.version = in.u8();
    in.skip(1);  // revision
    header.flags = in.u8();
    header.size = take_synchsafe(in);
    const uint64_t footer = (header.flags & FOOTER_PRESENT) != 0 ? HEADER_SIZE : 0;
    if (!in.is_short()) header.whole_size = HEADER_SIZE + header.size + footer;
    return header;
}

void read_mpeg_audio(Reader &reader, Outline &outline)
{
    MpegAudioOutline &audio = outline.mpeg_audio;
    const uint64_t from = read_front_tags(reader, audio);
    MpegAudioHeader header = {};
    uint64_t offset = 0;
    if (!find_first_frame(reader, from, header, offset)) {
        if (audio.id3v2_tags != 0) outline.container = Container::MPEG_AUDIO;
        return;
    }
    outline.container = Container::MPEG_AUDIO;
    audio.first_frame = offset;
    audio.version = header.version;
    audio.layer = header.layer;
    audio.bit_rate = header.bit_rate;
    audio.samples = header.samples;
    read_first_frame(reader, header, audio);
    if (reader.knows_size()) read_end_tags(reader, audio);

    Track track;
    track.number = 1;
    track.kind = TrackKind::AUDIO;
    track.codec = "mp" + std::to_string(header.layer);
    track.channels = header.channels;
    track.sample_rate = header.sample_rate;
    outline.tracks.push_back(track);
    set_duration(header, outline);
}

namespace {

// The offset after them.
uint64_t read_front_tags(Reader &reader, MpegAudioOutline &audio)
{
    constexpr uint64_t MOST_TAGS = 16;
    uint64_t offset = 0;
    while (audio.id3v2_tags < MOST_TAGS) {
        Stretch tag(reader, offset, reader.size());
        const Id3Header header = take_id3_header(tag);
        if (header.whole_size == 0) break;
        offset += header.whole_size;
        ++audio.id3v2_tags;
    }
    return audio.id3v2_size = offset;
}

bool has_text(Reader &reader, uint64_t offset, const char *text)
{
    uint8_t bytes[8] = {};
    const size_t size = strlen(text);
    return size <= sizeof bytes && reader.read(offset, bytes, size) &&
           memcmp(bytes, text, size) == 0;
}

uint32_t little_32(Reader &reader, uint64_t offset)
{
    uint8_t bytes[4] = {};
    if (!reader.read(offset, bytes, sizeof bytes)) return 0;
    return uint32_t{bytes[3]} << 24 | uint32_t{bytes[2]} << 16 | uint32_t{bytes[1]} << 8 | bytes[0];
}

// From the end: ID3v1, before it APEv2 whose footer states its size.
void read_end_tags(Reader &reader, MpegAudioOutline &audio)
{
    constexpr uint32_t HAS_HEADER = 0x80000000;
    const uint64_t begin = *audio.first_frame;
    audio.end = reader.size();
    if (audio.end - begin < ID3V1_SIZE) return;
    // One load for both.
    const uint64_t looked_at = std::min(audio.end - begin, ID3V1_SIZE + APE_FOOTER);
    uint8_t first = 0;
    if (!reader.read(audio.end - looked_at, &first, 1)) return;
    audio.f_id3v1 = has_text(reader, audio.end - ID3V1_SIZE, "TAG");
    if (audio.f_id3v1) audio.end -= ID3V1_SIZE;
    if (audio.end - begin < APE_FOOTER) return;
    const uint64_t footer = audio.end - APE_FOOTER;
    if (!has_text(reader, footer, "APETAGEX")) return;
    const uint64_t header = (little_32(reader, footer + 20) & HAS_HEADER) != 0 ? APE_FOOTER : 0;
    const uint64_t size = little_32(reader, footer + 12) + header;
    if (size < APE_FOOTER || size > audio.end - begin) return;
    audio.ape_size = size;
    audio.end -= size;
}

// A header that another one of the same kind follows, or the end of the file.
bool find_first_frame(Reader &reader, uint64_t from, MpegAudioHeader &header, uint64_t &offset)
{
    Stretch in(reader, from, reader.size());
    uint32_t bits = in.u24();
    for (uint64_t i = 0; i < SEARCHED && in.left() > 0 && !in.is_short(); ++i) {
        bits = bits << 8 | in.u8();
        const std::optional<MpegAudioHeader> found = parse_mpeg_audio_header(bits);
        if (!found || in.is_short()) continue;
        Stretch next(reader, from + i, reader.size());
        next.skip(found->size);
        const bool f_last = next.left() < 4;
        const std::optional<MpegAudioHeader> second = parse_mpeg_audio_header(next.u32());
        const bool f_same = second && second->layer == found->layer &&
                            second->version == found->version &&
                            second->sample_rate == found->sample_rate;
        // What a tag announces, or the file begins with, is believed without.
        if (!f_same && !(i == 0 && (from > 0 || f_last))) continue;
        header = *found;
        offset = from + i;
        return true;
    }
    return false;
}

// The side information of Layer III, as long as this, lies before the header of the encoders.
uint64_t side_size(const MpegAudioHeader &header)
{
    if (header.version == 10) return header.channels == 1 ? 17 : 32;
    return header.channels == 1 ? 9 : 17;
}

void read_first_frame(Reader &reader, const MpegAudioHeader &header, MpegAudioOutline &audio)
{
    constexpr uint32_t XING = 0x58696E67, INFO = 0x496E666F, VBRI = 0x56425249;
    constexpr uint32_t HAS_FRAMES = 1, HAS_BYTES = 2;
    if (header.layer != 3) return;
    const uint64_t begin = *audio.first_frame, end = begin + header.size;
    Stretch xing(reader, begin + 4 + side_size(header), end);
    const uint32_t name = xing.u32();
    if (name == XING || name == INFO) {
        audio.header =
            name == XING ? MpegAudioOutline::Header::XING : MpegAudioOutline::Header::INFO;
        const uint32_t flags = xing.u32();
        if ((flags & HAS_FRAMES) != 0) audio.frames = xing.u32();
        if ((flags & HAS_BYTES) != 0) audio.bytes = xing.u32();
        if (xing.is_short()) audio.frames = audio.bytes = {};
        return;
    }
    constexpr uint64_t VBRI_OFFSET = 36;
    Stretch vbri(reader, begin + VBRI_OFFSET, end);
    if (vbri.u32() != VBRI) return;
    vbri.skip(6);  // version, delay, quality
    const uint32_t bytes = vbri.u32(), frames = vbri.u32();
    if (vbri.is_short()) return;
    audio.header = MpegAudioOutline::Header::VBRI;
    audio.frames = frames;
    audio.bytes = bytes;
}

void set_duration(const MpegAudioHeader &header, Outline &outline)
{
    MpegAudioOutline &audio = outline.mpeg_audio;
    if (audio.frames)
        outline.duration_ns = ticks_to_ns(*audio.frames * header.samples, header.sample_rate);
    if (!outline.duration_ns && audio.end > *audio.first_frame) {
        outline.duration_ns = ticks_to_ns((audio.end - *audio.first_frame) * 8, header.bit_rate);
        audio.f_estimate = true;
    }
    outline.tracks.back().duration_ns = outline.duration_ns;
}

}  // namespace

}  // namespace outline

#include "m2ts.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>

#include <fmt/format.h>

#include "byte_view.h"
#include "io/message.h"
#include "stream/source_bytes.h"
#include "survey.h"
#include "ts_elementary.h"
#include "ts_packet.h"
#include "ts_time.h"

namespace {

constexpr size_t STAMP = 4, RECORD = STAMP + TS_PACKET_SIZE;
constexpr size_t AT_ONCE = 4096;  // records
constexpr size_t PTS_AT = 9;      // in a PES packet

/// Shows the packets of a file, from record to record. take: gets the offset of each; false ends the walk.
template <typename Take>
void walk_packets(ByteSource &source, uint64_t from, uint64_t to, Take take)
{
    std::vector<uint8_t> block(AT_ONCE * RECORD);
    while (to - from >= RECORD) {
        const auto wanted = static_cast<size_t>(std::min<uint64_t>((to - from) / RECORD, AT_ONCE));
        const size_t got =
            source.read_at(from, block.data(), wanted * RECORD, wanted * RECORD) / RECORD;
        for (size_t i = 0; i < got; ++i)
            if (!take(from + i * RECORD, block.data() + i * RECORD + STAMP)) return;
        if (got < wanted) return;
        from += got * RECORD;
    }
}

/// The first program's tables, as its packets bring them.
class Tables {
public:
    struct Stream {
        uint16_t pid;
        uint8_t type;
    };

    void take(const uint8_t *packet)
    {
        const TsPacket view(packet);
        if (view.pid() == 0 && view.is_start() && !m_pmt_pid) take_pat(packet);
        if (m_pmt_pid && view.pid() == *m_pmt_pid && !m_f_complete) take_pmt(packet);
    }
    bool is_complete() const { return m_f_complete; }
    const std::vector<Stream> &streams() const { return m_streams; }
    const std::vector<uint8_t> &packets() const { return m_packets; }

private:
    static constexpr size_t MOST_SECTION = 1024;

    static ByteView payload(const uint8_t *packet)
    {
        const size_t at = TsPacket(packet).payload_at();
        return {packet + at, TS_PACKET_SIZE - at};
    }
    void keep(const uint8_t *packet)
    {
        m_packets.insert(m_packets.end(), packet, packet + TS_PACKET_SIZE);
    }
    void take_pat(const uint8_t *packet)
    {
        ByteView in = payload(packet);
        in.take(in.get(1));  // pointer_field
        in.take(8);          // up to last_section_number
        while (in.left >= 8) {
            const uint64_t program = in.get(2), pid = in.get(2) & 0x1FFF;
            if (program == 0) continue;
            m_pmt_pid = static_cast<uint16_t>(pid);
            keep(packet);
            return;
        }
    }
    void take_pmt(const uint8_t *packet)
    {
        ByteView in = payload(packet);
        if (TsPacket(packet).is_start()) {
            m_section.clear();
            m_packets.resize(TS_PACKET_SIZE);
            in.take(in.get(1));
        } else if (m_section.empty()) {
            return;
        }
        keep(packet);
        m_section.insert(m_section.end(), in.at, in.at + in.left);
        if (m_section.size() < 3) return;
        const size_t size = (size_t{m_section[1]} << 8 | m_section[2]) & 0xFFF;
        if (size > MOST_SECTION) m_section.clear();
        if (m_section.size() >= size + 3 && !m_section.empty()) read_section(size + 3);
    }
    void read_section(size_t size)
    {
        constexpr size_t CRC_SIZE = 4, ENTRY = 5;
        ByteView in{m_section.data(), size};
        in.take(10);
        in.take(in.get(2) & 0xFFF);
        while (!in.f_short && in.left >= CRC_SIZE + ENTRY) {
            const uint64_t type = in.get(1), pid = in.get(2) & 0x1FFF;
            in.take(in.get(2) & 0xFFF);
            m_streams.push_back({static_cast<uint16_t>(pid), static_cast<uint8_t>(type)});
        }
        m_f_complete = true;
    }

    std::optional<uint16_t> m_pmt_pid;
    std::vector<uint8_t> m_section;
    std::vector<Stream> m_streams;
    std::vector<uint8_t> m_packets;
    bool m_f_complete = false;
};

/// What a stream_type stands for. codec: as in CODECS; empty: browsers know none.
struct Kind {
    uint8_t type;
    TrackKind kind;
    const char *title, *codec;
};
const Kind KINDS[] = {{0x1B, TrackKind::VIDEO, "H.264", ""},
                      {0x01, TrackKind::VIDEO, "MPEG-1 video", ""},
                      {0x02, TrackKind::VIDEO, "MPEG-2 video", ""},
                      {0x24, TrackKind::VIDEO, "HEVC", ""},
                      {0xEA, TrackKind::VIDEO, "VC-1", ""},
                      {0x03, TrackKind::AUDIO, "MPEG audio", "mp4a.40.34"},
                      {0x04, TrackKind::AUDIO, "MPEG audio", "mp4a.40.34"},
                      {0x0F, TrackKind::AUDIO, "AAC", "mp4a.40.2"},
                      {0x11, TrackKind::AUDIO, "AAC (LATM)", ""},
                      {0x80, TrackKind::AUDIO, "PCM", ""},
                      {0x81, TrackKind::AUDIO, "AC-3", "ac-3"},
                      {0x82, TrackKind::AUDIO, "DTS", ""},
                      {0x83, TrackKind::AUDIO, "TrueHD", ""},
                      {0x84, TrackKind::AUDIO, "E-AC-3", "ec-3"},
                      {0x85, TrackKind::AUDIO, "DTS-HD", ""},
                      {0x86, TrackKind::AUDIO, "DTS-HD", ""},
                      {0x87, TrackKind::AUDIO, "E-AC-3", "ec-3"}};

/// A stream of the program, and what its type stands for.
struct Lane {
    uint16_t pid = 0;
    const Kind *kind = nullptr;  // none: there is no such stream
};

// Null: none that is played.
const Kind *kind_of(uint8_t type)
{
    const auto *const found = std::find_if(std::begin(KINDS), std::end(KINDS),
                                           [=](const Kind &kind) { return kind.type == type; });
    return found != std::end(KINDS) ? found : nullptr;
}

Lane lane_of(const Tables &tables, TrackKind wanted)
{
    for (const Tables::Stream &stream : tables.streams()) {
        const Kind *const kind = kind_of(stream.type);
        if (kind != nullptr && kind->kind == wanted) return {stream.pid, kind};
    }
    return {};
}

// By profile_idc, the constraint flags and level_idc of the first SPS in a byte stream.
std::string avc_codec(const std::vector<uint8_t> &bytes)
{
    static const uint8_t CODE[] = {0, 0, 1};
    constexpr ptrdiff_t WANTED = sizeof CODE + 4;
    auto at = bytes.begin();
    for (;;) {
        at = std::search(at, bytes.end(), CODE, CODE + sizeof CODE);
        if (bytes.end() - at < WANTED) return "";
        at += sizeof CODE;
        if ((*at & 0x1F) == nal::SPS)
            return fmt::format("avc1.{:02x}{:02x}{:02x}", at[1], at[2], at[3]);
    }
}

/// Walks over a file and finds where segments can begin.
class KeySearch {
public:
    KeySearch(Film &film, uint64_t first_packet, const std::string &path)
        : m_film(film)
        , m_path(path)
        , m_first_packet(first_packet)
        , m_plan(film.segments, {0, first_packet, 0})
    {
    }

    bool take(uint64_t offset, const uint8_t *packet);
    void end(uint64_t size);

private:
    void choose_streams();
    void name_codecs();
    void begin_unit(uint64_t offset, const uint8_t *packet, const uint8_t *payload, size_t size);
    void end_head();
    void add_key();
    bool is_key(const FrameContent &content) const;
    uint64_t served(uint64_t offset) const
    {
        return (offset - m_first_packet) / RECORD * TS_PACKET_SIZE;
    }

    // Of a picture; its parameter sets come first.
    static constexpr size_t HEAD_SIZE = 1024;

    Film &m_film;
    const std::string m_path;
    const uint64_t m_first_packet;
    Plan m_plan;
    Tables m_tables;
    Lane m_video, m_audio;
    uint16_t m_pid = 0;  // of the one that is cut
    Codec m_codec = Codec::UNKNOWN;
    CutClock m_clock{PTS_BITS, 0};
    std::optional<int64_t> m_first;
    int64_t m_last = 0, m_highest = 0;
    uint64_t m_units = 0;
    // The unit that has begun last
    bool m_f_head = false;
    bool m_f_access = false;  // random_access_indicator
    uint64_t m_offset = 0;
    std::vector<uint8_t> m_head;
    std::string m_avc_codec;
};

bool KeySearch::take(uint64_t offset, const uint8_t *packet)
{
    const TsPacket view(packet);
    if (!view.has_sync_byte())
        throw NotDone(m_path, fmt::format("no packet is at byte {}", offset));
    if (!m_tables.is_complete()) {
        m_tables.take(packet);
        if (m_tables.is_complete()) choose_streams();
        return true;
    }
    if (view.pid() != m_pid || !view.has_payload() || view.is_scrambled()) return true;
    const size_t at = view.payload_at();
    const uint8_t *const payload = packet + at;
    const size_t size = TS_PACKET_SIZE - at;
    if (view.is_start()) {
        end_head();
        begin_unit(offset, packet, payload, size);
    } else if (m_f_head) {
        m_head.insert(m_head.end(), payload, payload + size);
    }
    if (m_f_head && m_head.size() >= HEAD_SIZE) end_head();
    return !m_plan.is_full();
}

void KeySearch::choose_streams()
{
    m_video = lane_of(m_tables, TrackKind::VIDEO);
    m_audio = lane_of(m_tables, TrackKind::AUDIO);
    const Lane &lane = m_video.kind != nullptr ? m_video : m_audio;
    if (lane.kind == nullptr) throw NotDone(m_path, "it has neither video nor audio");
    m_pid = lane.pid;
    m_codec = codec_of_stream_type(lane.kind->type);
    m_film.f_video = m_video.kind != nullptr;
    m_film.file.tables = m_tables.packets();
    for (const Kind *kind : {m_video.kind, m_audio.kind})
        if (kind != nullptr)
            m_film.kinds += (m_film.kinds.empty() ? "" : ", ") + std::string(kind->title);
}

// All that is in the segments, or nothing: all streams of the program are.
void KeySearch::name_codecs()
{
    std::string codecs = m_avc_codec;
    for (const Tables::Stream &stream : m_tables.streams()) {
        const Kind *const kind = kind_of(stream.type);
        constexpr uint8_t FIRST_SUBTITLES = 0x90, LAST_SUBTITLES = 0x92;  // of Blu-ray Discs
        if (stream.type >= FIRST_SUBTITLES && stream.type <= LAST_SUBTITLES) continue;
        if (kind != nullptr && kind->kind == TrackKind::VIDEO && !m_avc_codec.empty()) continue;
        if (kind == nullptr || kind->codec[0] == 0) return;
        if (codecs.find(kind->codec) == std::string::npos)
            codecs += (codecs.empty() ? "" : ",") + std::string(kind->codec);
    }
    m_film.codecs = codecs;
}

void KeySearch::begin_unit(uint64_t offset, const uint8_t *packet, const uint8_t *payload,
                           size_t size)
{
    constexpr int64_t LONGEST_STEP = 60 * TICKS_PER_SECOND;
    constexpr uint8_t HAS_PTS = 0x80, RANDOM_ACCESS = 0x40;
    if (size < PTS_AT + PTS_FIELD_SIZE || (payload[7] & HAS_PTS) == 0) return;
    const int64_t time = m_clock.follow(
        time_of_field(ByteView{payload + PTS_AT, PTS_FIELD_SIZE}.get(PTS_FIELD_SIZE)));
    m_clock.settle();
    if (!m_first) m_first = m_highest = time;
    if (m_units > 0 && std::abs(time - m_last) > LONGEST_STEP)
        throw NotDone(m_path, "its times jump");
    ++m_units;
    m_last = time;
    m_highest = std::max(m_highest, time);
    const size_t header = std::min(size, PTS_AT + payload[PTS_AT - 1]);
    m_f_head = true;
    m_offset = offset;
    m_f_access = TsPacket(packet).has_adaptation_field() && packet[TS_HEADER_SIZE] > 0 &&
                 (packet[TS_HEADER_SIZE + 1] & RANDOM_ACCESS) != 0;
    m_head.assign(payload + header, payload + size);
}

void KeySearch::end_head()
{
    if (!m_f_head) return;
    m_f_head = false;
    if (!m_film.f_video) return add_key();
    ContentReader reader(m_codec);
    reader.begin();
    reader.feed(m_head.data(), m_head.size());
    const FrameContent content = reader.finish();
    if (!m_f_access && !is_key(content)) return;
    if (m_codec == Codec::H264) {
        m_film.f_independent = m_film.f_independent && content.has(nal::IDR);
        if (m_avc_codec.empty()) m_avc_codec = avc_codec(m_head);
    } else {
        m_film.f_independent = false;
    }
    add_key();
}

bool KeySearch::is_key(const FrameContent &content) const
{
    return m_codec == Codec::MPEG2 ? content.has(mpeg2::SEQUENCE)
                                   : content.has(nal::IDR) || content.has(nal::SPS);
}

void KeySearch::add_key()
{
    const int64_t time = m_last - *m_first;
    if (m_offset > m_first_packet) m_plan.add({time, m_offset, served(m_offset)});
}

void KeySearch::end(uint64_t size)
{
    end_head();
    if (!m_first) throw NotDone(m_path, "no frame in it can be read");
    const int64_t span = m_highest - *m_first;
    const int64_t step = m_units > 1 ? span / static_cast<int64_t>(m_units - 1) : 0;
    m_plan.end(span + step, served(size));
    name_codecs();
}

}  // namespace

void survey_m2ts(Source &source, Film &film)
{
    const uint64_t first = film.file.outline.transport.first_packet;
    SourceBytes bytes(source);
    KeySearch search(film, first, source.path());
    walk_packets(bytes, first, source.size(), [&](uint64_t offset, const uint8_t *packet) {
        return search.take(offset, packet);
    });
    search.end(source.size());
}

// Its own counters stay. The tables before it are as if they were the last ones before it once more, which ISO/IEC
// 13818-1 allows.
std::string copy_m2ts_segment(Source &source, const Film &film, size_t number,
                              std::vector<uint8_t> &segment)
{
    const uint64_t from = film.segments[number].place;
    const uint64_t to =
        number + 1 < film.segments.size() ? film.segments[number + 1].place : source.size();
    segment = film.file.tables;
    const size_t tables_size = segment.size();
    int first_counter[2] = {-1, -1};  // of PAT and PMT
    bool f_full = false;
    SourceBytes bytes(source);
    walk_packets(bytes, from, to, [&](uint64_t, const uint8_t *packet) {
        const TsPacket view(packet);
        for (size_t i = 0; i < 2; ++i)
            if (first_counter[i] < 0 && tables_size > i * TS_PACKET_SIZE &&
                view.pid() == TsPacket(segment.data() + i * TS_PACKET_SIZE).pid())
                first_counter[i] = view.counter();
        f_full = segment.size() > LARGEST_SEGMENT - TS_PACKET_SIZE;
        if (!f_full) segment.insert(segment.end(), packet, packet + TS_PACKET_SIZE);
        return !f_full;
    });
    if (f_full) return fmt::format("it has more than {} MiB", LARGEST_SEGMENT / (1024 * 1024));
    if (!source.fault().empty()) return source.fault();
    const auto count = static_cast<int>(tables_size / TS_PACKET_SIZE);
    for (int i = 0; i < count; ++i) {
        const int counter = i == 0 ? first_counter[0] - 1 : first_counter[1] - count + i;
        uint8_t &byte = segment[static_cast<size_t>(i) * TS_PACKET_SIZE + 3];
        byte = static_cast<uint8_t>((byte & 0xF0) | (static_cast<unsigned>(counter) & 0xF));
    }
    return "";
}

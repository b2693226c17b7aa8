#include "tally.h"

#include <algorithm>
#include <cstring>

#include "byte_view.h"

namespace {

constexpr size_t PES_FLAGS_AT = 7, PES_LENGTH_AT = 4, PES_PREFIX = 6, PES_HEADER_LENGTH_AT = 8,
                 PTS_AT = 9;
constexpr uint16_t PAT_PID = 0;

/// Whether a frame begins as those of its codec do.
bool begins_right(Codec codec, const uint8_t *frame, size_t size)
{
    constexpr uint8_t START_CODE[] = {0, 0, 0, 1};
    constexpr size_t UNIT_AT = sizeof START_CODE;
    if (size <= UNIT_AT) return true;  // too little to decide
    switch (codec) {
    case Codec::H264: {
        const bool f_forbidden = (frame[UNIT_AT] & 0x80) != 0;
        const bool f_no_type = (frame[UNIT_AT] & 0x1F) == 0;
        return std::equal(START_CODE, START_CODE + UNIT_AT, frame) && !f_forbidden && !f_no_type;
    }
    case Codec::MPEG_AUDIO: return frame[0] == 0xFF && (frame[1] & 0xE0) == 0xE0;
    case Codec::AC3:
    case Codec::EAC3: return frame[0] == 0x0B && frame[1] == 0x77;
    case Codec::AAC: {
        // Zeros after the ADTS header that the library writes: no frame of AAC begins so.
        constexpr size_t ADTS_SIZE = 7, ZEROS = 16;
        return size < ADTS_SIZE + ZEROS || std::any_of(frame + ADTS_SIZE, frame + ADTS_SIZE + ZEROS,
                                                       [](uint8_t byte) { return byte != 0; });
    }
    case Codec::MPEG2:
    case Codec::UNKNOWN: break;
    }
    return true;
}

}  // namespace

int64_t StreamTally::mean_step() const
{
    return frames < 2 ? 0 : (reached - first) / static_cast<int64_t>(frames - 1);
}

int64_t StreamTally::end() const
{
    if (frames == 0) return 0;
    if (sample_rate == 0) return reached + mean_step();
    const uint64_t length = samples * static_cast<uint64_t>(TICKS_PER_SECOND) / sample_rate;
    return std::max(first + static_cast<int64_t>(length), reached);
}

int64_t Tally::reached() const
{
    const int64_t in_audio = audio().stands_still() ? audio().end() : audio().reached;
    if (video().frames == 0) return in_audio;
    return audio().frames == 0 ? video().reached : std::max(video().reached, in_audio);
}

int64_t Tally::end() const
{
    int64_t end = first_passed();
    for (const StreamTally *tally : {&video(), &audio()})
        if (tally->frames > 0) end = std::max({end, tally->reached, tally->end()});
    return end;
}

void Tally::begin(const PELA::MediaBuffer::ContentInfo &content)
{
    m_f_counting = true;
    m_streams[VIDEO].pid = static_cast<uint16_t>(content.videoPid);
    m_streams[AUDIO].pid = static_cast<uint16_t>(content.audioPid);
    Codec &video = m_streams[VIDEO].tally.codec, &audio = m_streams[AUDIO].tally.codec;
    video = content.videoCodec == PELA::VIDEO_CODEC_H264    ? Codec::H264
            : content.videoCodec == PELA::VIDEO_CODEC_MPEG2 ? Codec::MPEG2
                                                            : Codec::UNKNOWN;
    switch (content.audioCodec) {
    case PELA::AUDIO_CODEC_MP3: audio = Codec::MPEG_AUDIO; break;
    case PELA::AUDIO_CODEC_AAC: audio = Codec::AAC; break;
    case PELA::AUDIO_CODEC_DD: audio = Codec::AC3; break;
    case PELA::AUDIO_CODEC_DDP: audio = Codec::EAC3; break;
    case PELA::AUDIO_CODEC_UNKNOWN: break;
    }
    m_f_gated = m_streams[VIDEO].f_dropped || m_streams[AUDIO].f_dropped;
}

void Tally::expect_around(int64_t time)
{
    for (Stream &stream : m_streams) {
        stream.clock = CutClock(PTS_BITS, time);
        stream.clock.settle();
    }
}

void Tally::pass_from(int64_t time)
{
    for (Stream &stream : m_streams)
        stream.from = time;
    m_f_gated = true;
}

void Tally::pass_until(int64_t time)
{
    for (Stream &stream : m_streams)
        stream.until = time;
    m_f_gated = true;
}

int Tally::look(uint8_t *buffer, int size)
{
    if (m_f_foreign && size == static_cast<int>(TS_PACKET_SIZE)) m_packets.take(buffer);
    if (!m_f_counting || size != static_cast<int>(TS_PACKET_SIZE))
        return m_next.write(buffer, size);
    const TsPacket packet(buffer);
    for (Stream &stream : m_streams) {
        if (packet.pid() != stream.pid) continue;
        if (packet.is_start())
            begin_frame(stream, buffer);
        else if (stream.tally.codec == Codec::H264 && is_suspect(buffer))
            find_hole(stream, buffer);
        return stream.f_passes ? pass(buffer) : size;
    }
    if (!m_f_gated || m_first_passed) return m_next.write(buffer, size);
    const size_t table = packet.pid() == PAT_PID ? 0 : 1;
    memcpy(m_tables[table].data(), buffer, TS_PACKET_SIZE);
    m_f_table[table] = true;
    return size;
}

void Tally::begin_frame(Stream &stream, uint8_t *packet)
{
    const size_t at = TsPacket(packet).payload_at();
    const uint8_t *pes = packet + at;
    const size_t size = TS_PACKET_SIZE - at;
    if (size < PTS_AT + PTS_FIELD_SIZE || (pes[PES_FLAGS_AT] & 0x80) == 0) return;
    const uint64_t cut = time_of_field(ByteView{pes + PTS_AT, PTS_FIELD_SIZE}.get(PTS_FIELD_SIZE));
    const int64_t time = stream.clock.follow(cut);
    stream.clock.settle();
    stream.f_passes = false;
    stream.f_ended = stream.f_ended || (stream.until && time >= *stream.until);
    if (stream.f_ended) return;
    count(stream, time, pes, size);
    stream.f_passes = is_wanted(stream, time);
    if (!stream.f_passes) return;
    ++stream.tally.passed;
    m_first_passed = std::min(m_first_passed.value_or(INT64_MAX), time + stream.shift);
    if (stream.shift != 0) shift_times(stream, packet);
}

// Where audio has no clock, all its frames have the time of the first. When that one isn't passed, the time is
// that of the one which is.
void Tally::shift_times(const Stream &stream, uint8_t *packet) const
{
    constexpr uint64_t RANGE = (uint64_t{1} << PTS_BITS) - 1;
    constexpr uint8_t PCR_FLAG = 0x10;
    constexpr size_t PCR_AT = 6, PCR_BASE_END = 4;
    const TsPacket view(packet);
    uint8_t *const pts = packet + view.payload_at() + PTS_AT;
    const uint64_t time = static_cast<uint64_t>(stream.time + stream.shift) & RANGE;
    pts[0] = static_cast<uint8_t>((pts[0] & 0xF1) | (time >> 29 & 0x0E));
    pts[1] = static_cast<uint8_t>(time >> 22);
    pts[2] = static_cast<uint8_t>((time >> 14 & 0xFE) | 1);
    pts[3] = static_cast<uint8_t>(time >> 7);
    pts[4] = static_cast<uint8_t>((time << 1 & 0xFE) | 1);
    const bool f_pcr = view.has_adaptation_field() && packet[TS_HEADER_SIZE] > PCR_AT &&
                       (packet[TS_HEADER_SIZE + 1] & PCR_FLAG) != 0;
    if (!f_pcr) return;
    uint8_t *const pcr = packet + PCR_AT;
    for (size_t i = 0; i < PCR_BASE_END; ++i)
        pcr[i] = static_cast<uint8_t>(time >> (25 - 8 * i));
    pcr[PCR_BASE_END] =
        static_cast<uint8_t>((pcr[PCR_BASE_END] & 0x7F) | static_cast<uint8_t>((time & 1) << 7));
}

void Tally::count(Stream &stream, int64_t time, const uint8_t *pes, size_t size)
{
    StreamTally &tally = stream.tally;
    if (tally.frames++ == 0) tally.first = tally.reached = time;
    tally.longest_step = std::max(tally.longest_step, time - tally.reached);
    tally.reached = std::max(tally.reached, time);
    tally.first = std::min(tally.first, time);

    const size_t header = PTS_AT + pes[PES_HEADER_LENGTH_AT];
    const size_t packet = (size_t{pes[PES_LENGTH_AT]} << 8 | pes[PES_LENGTH_AT + 1]) + PES_PREFIX;
    const size_t length = packet > header ? packet - header : 0;  // of the frame; 0: not stated
    tally.bytes += length;
    stream.time = time;
    stream.f_damaged = false;
    if (header > size) return;
    if (!begins_right(tally.codec, pes + header, size - header)) note_damage(stream);
    if (&stream == &m_streams[AUDIO]) count_audio(stream, pes + header, size - header, length);
}

void Tally::count_audio(Stream &stream, const uint8_t *frame, size_t size, size_t length)
{
    StreamTally &tally = stream.tally;
    const std::optional<AudioHeader> header = read_audio_header(tally.codec, frame, size);
    const bool f_own_header = tally.codec == Codec::AC3 || tally.codec == Codec::MPEG_AUDIO;
    if (!header) {
        if (f_own_header) note_damage(stream);
        return;
    }
    // A few muxers put several frames together.
    const size_t frames = f_own_header && header->size != 0 ? length / header->size : 1;
    if (f_own_header && header->size != 0 && frames * header->size != length) note_damage(stream);
    if (tally.sample_rate == 0) tally.sample_rate = header->sample_rate;
    stream.frame_start = tally.end();
    tally.samples += std::max<size_t>(frames, 1) * header->samples;
}

void Tally::note_damage(Stream &stream)
{
    if (stream.f_damaged || stream.f_dropped) return;
    stream.f_damaged = true;
    if (stream.tally.damaged++ == 0) stream.tally.first_damaged = stream.time;
}

// NAL units have no three zeros in a row (ISO/IEC 14496-10). A whole packet of zeros is what is left of a
// file that was never filled there.
void Tally::find_hole(Stream &stream, const uint8_t *packet)
{
    const size_t at = TsPacket(packet).payload_at();
    const bool f_hole =
        std::all_of(packet + at, packet + TS_PACKET_SIZE, [](uint8_t byte) { return byte == 0; });
    if (f_hole) note_damage(stream);
}

bool Tally::is_wanted(Stream &stream, int64_t time)
{
    if (stream.f_dropped) return false;
    if (!stream.from) return true;
    const StreamTally &tally = stream.tally;
    const bool f_audio = &stream == &m_streams[AUDIO];
    const bool f_still = f_audio && tally.stands_still();
    const int64_t start = f_still ? stream.frame_start : time;
    // Audio is wanted up to the frame's end.
    const int64_t reached = f_audio ? start + tally.end() - stream.frame_start - 1 : time;
    if (reached < *stream.from) return false;
    stream.shift = start - time;
    stream.from.reset();
    m_f_gated = std::any_of(m_streams.begin(), m_streams.end(), [](const Stream &one) {
        return one.f_dropped || one.from.has_value() || one.until.has_value();
    });
    return true;
}

// The tables come first.
int Tally::pass(uint8_t *packet)
{
    for (size_t table = 0; table < m_tables.size(); ++table) {
        if (!m_f_table[table]) continue;
        m_f_table[table] = false;
        m_next.write(m_tables[table].data(), static_cast<int>(TS_PACKET_SIZE));
    }
    return m_next.write(packet, static_cast<int>(TS_PACKET_SIZE));
}

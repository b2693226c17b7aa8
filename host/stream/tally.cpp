#include "tally.h"

#include <algorithm>
#include <cstring>

#include "byte_view.h"

namespace {

constexpr size_t PES_FLAGS_AT = 7, PES_LENGTH_AT = 4, PES_HEADER_LENGTH_AT = 8, PTS_AT = 9;
constexpr uint16_t PAT_PID = 0;

/// Whether a frame begins as those of its codec do.
bool is_sound(Codec codec, const uint8_t *frame, size_t size)
{
    constexpr uint8_t START_CODE[] = {0, 0, 0, 1};
    constexpr size_t UNIT_AT = sizeof START_CODE;
    if (size <= UNIT_AT) return true;  // too little to tell
    switch (codec) {
    case Codec::H264: {
        const bool f_forbidden = (frame[UNIT_AT] & 0x80) != 0;
        const bool f_no_type = (frame[UNIT_AT] & 0x1F) == 0;
        return std::equal(START_CODE, START_CODE + UNIT_AT, frame) && !f_forbidden && !f_no_type;
    }
    case Codec::MPEG_AUDIO: return frame[0] == 0xFF && (frame[1] & 0xE0) == 0xE0;
    case Codec::AC3:
    case Codec::EAC3: return frame[0] == 0x0B && frame[1] == 0x77;
    case Codec::AAC:
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
    return first + static_cast<int64_t>(samples * static_cast<uint64_t>(TICKS_PER_SECOND) /
                                        sample_rate);
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

void Tally::expect(int64_t time)
{
    for (Stream &stream : m_streams)
        stream.clock = CutClock(PTS_BITS, time);
}

void Tally::pass_from(int64_t time)
{
    for (Stream &stream : m_streams)
        stream.from = time;
    m_f_gated = true;
}

int Tally::look(uint8_t *buffer, int size)
{
    if (!m_f_counting || size != static_cast<int>(TS_PACKET_SIZE)) return m_next.write(buffer, size);
    const TsPacket packet(buffer);
    for (Stream &stream : m_streams) {
        if (packet.pid() != stream.pid) continue;
        if (packet.is_start()) begin_frame(stream, buffer);
        return stream.f_passes ? pass(buffer) : size;
    }
    if (!m_f_gated || m_first_passed) return m_next.write(buffer, size);
    const size_t table = packet.pid() == PAT_PID ? 0 : 1;
    memcpy(m_tables[table].data(), buffer, TS_PACKET_SIZE);
    m_f_table[table] = true;
    return size;
}

void Tally::begin_frame(Stream &stream, const uint8_t *packet)
{
    const size_t at = TsPacket(packet).payload_at();
    const uint8_t *pes = packet + at;
    const size_t size = TS_PACKET_SIZE - at;
    if (size < PTS_AT + PTS_FIELD_SIZE || (pes[PES_FLAGS_AT] & 0x80) == 0) return;
    const uint64_t cut = time_of_field(ByteView{pes + PTS_AT, PTS_FIELD_SIZE}.get(PTS_FIELD_SIZE));
    const int64_t time = stream.clock.follow(cut);
    stream.clock.settle();
    count(stream, time, pes, size);
    stream.f_passes = is_wanted(stream, time);
    if (!stream.f_passes) return;
    ++stream.tally.passed;
    if (!m_first_passed) m_first_passed = time;
}

void Tally::count(Stream &stream, int64_t time, const uint8_t *pes, size_t size)
{
    StreamTally &tally = stream.tally;
    if (tally.frames++ == 0) tally.first = tally.reached = time;
    tally.longest_step = std::max(tally.longest_step, time - tally.reached);
    tally.reached = std::max(tally.reached, time);
    tally.first = std::min(tally.first, time);

    const size_t header = PTS_AT + pes[PES_HEADER_LENGTH_AT];
    const uint32_t length = uint32_t{pes[PES_LENGTH_AT]} << 8 | pes[PES_LENGTH_AT + 1];
    if (length + PES_LENGTH_AT + 2 > header) tally.bytes += length + PES_LENGTH_AT + 2 - header;
    if (header > size) return;
    if (!is_sound(tally.codec, pes + header, size - header) && tally.damaged++ == 0)
        tally.first_damaged = time;
    if (&stream != &m_streams[AUDIO]) return;
    ContentReader reader(tally.codec);
    reader.begin();
    reader.feed(pes + header, size - header);
    const std::optional<SoundHeader> sound = reader.finish().sound;
    if (!sound) return;
    tally.samples += sound->samples;
    if (tally.sample_rate == 0) tally.sample_rate = sound->sample_rate;
}

bool Tally::is_wanted(Stream &stream, int64_t time)
{
    if (stream.f_dropped) return false;
    if (!stream.from) return true;
    const StreamTally &tally = stream.tally;
    int64_t reached = time;
    if (&stream == &m_streams[AUDIO]) {
        // Where all frames have one time, the samples tell how far it is.
        if (tally.stands_still() || tally.frames == 1) reached = tally.end();
        else if (tally.sample_rate != 0 && tally.frames > 0)
            reached += static_cast<int64_t>(tally.samples / tally.frames *
                                            static_cast<uint64_t>(TICKS_PER_SECOND) / tally.sample_rate);
        --reached;
    }
    if (reached < *stream.from) return false;
    stream.from.reset();
    m_f_gated = std::any_of(m_streams.begin(), m_streams.end(), [](const Stream &one) {
        return one.f_dropped || one.from.has_value();
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

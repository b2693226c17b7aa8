// Units of the library, a picture or a frame of audio each, as they are written.

#include <algorithm>
#include <cstring>

#include "stage_state.h"

namespace golt {

namespace {

constexpr int64_t PCR_STEP = 40 * TICKS_PER_MS;
constexpr int64_t TABLES_STEP = 100 * TICKS_PER_MS;
// Where several times are the same, or rounded.
constexpr int64_t SAME_TIME = 2 * TICKS_PER_MS;
// Packets of a picture after which it is cheaper to fill one up than to move the bytes of all that follow.
constexpr unsigned PACKETS_MOVED = 16;

}  // namespace

void Stage::State::replay(const uint8_t *packet)
{
    const unsigned pid = (packet[1] & 0x1Fu) << 8 | packet[2];
    const Payload payload = payload_of(packet);
    UnitStart start = {};
    const bool f_start = (packet[1] & 0x40) != 0 && read_unit_start(payload, start);
    process(packet, pid == VIDEO_PID ? VIDEO : AUDIO, payload, f_start ? &start : nullptr);
}

void Stage::State::process(const uint8_t *packet, LaneIndex lane, Payload payload,
                           const UnitStart *start)
{
    if (start != nullptr)
        begin_unit(packet, lane, payload, *start,
                   m_out_times.extend(lane, start->pts) + m_offsets[lane]);
    else if (lane == m_lane)
        go_on(packet, payload);
}

void Stage::State::begin_unit(const uint8_t *packet, LaneIndex lane, Payload payload,
                              const UnitStart &start, int64_t time)
{
    end_unit();
    m_lane = lane;
    m_open_head = head_of_pid(m_pids[lane].pid);
    m_stream_id = start.stream_id;
    m_time = time;
    if (lane == AUDIO) {
        begin_audio(packet, payload, start);
        if (m_walk.unread() < TS_ROOM) return;
    } else {
        begin_head(payload.bytes + start.size, payload.size - start.size);
    }
    begin_run();
}

void Stage::State::begin_head(const uint8_t *bytes, size_t size)
{
    ++m_counts.pictures;
    m_phase = Phase::HEAD;
    if (m_head.begin(m_program.video_codec(), bytes, size)) begin_picture();
}

void Stage::State::go_on(const uint8_t *packet, Payload payload)
{
    end_run();
    const bool f_audio = m_phase == Phase::COPIED_AUDIO;
    const bool f_fits = m_writer.pes_size() + payload.size <= LONGEST_PES;
    if (m_phase == Phase::COPIED_SLICES || (f_audio && f_fits)) {
        if (f_audio) m_walk.add(payload.bytes, payload.size);
        m_writer.copy(packet, payload.size);
    } else {
        move(payload);
    }
    // The last packet of a unit isn't full.
    if (payload.size == TS_ROOM) begin_run();
}

// Into packets that aren't those of the library.
void Stage::State::move(Payload payload)
{
    if (m_phase == Phase::COPIED_AUDIO) m_phase = Phase::AUDIO;
    feed(payload);
    if (++m_packets_moved >= PACKETS_MOVED) align();
}

// Packets in which there is nothing to look at, as nearly all are.
void Stage::State::begin_run()
{
    if (m_f_holding) return;
    uint64_t most = UINT64_MAX;
    switch (m_phase) {
    case Phase::COPIED_SLICES: break;
    case Phase::FILTERED_SLICES:
        if (!m_filter.is_between()) return;
        [[fallthrough]];
    case Phase::SLICES:
        if (m_packets_moved < PACKETS_MOVED) most = PACKETS_MOVED - m_packets_moved;
        break;
    case Phase::AUDIO:
    case Phase::COPIED_AUDIO:
        most = std::min(m_walk.unread(), LONGEST_PES - m_writer.pes_size()) / TS_ROOM;
        break;
    case Phase::NONE:
    case Phase::HEAD: return;
    }
    if (most == 0) return;
    m_writer.begin_run(head_of_pid(m_pids[m_lane].pid) | bit::PAYLOAD, most,
                       m_phase == Phase::FILTERED_SLICES);
}

void Stage::State::end_run()
{
    const uint64_t count = m_writer.end_run();
    if (count == 0) return;
    m_counts.packets_in += count;
    if (m_lane == AUDIO) {
        m_walk.pass(count * TS_ROOM);
        return;
    }
    m_packets_moved += static_cast<unsigned>(count);
    if (m_packets_moved >= PACKETS_MOVED) align();
}

void Stage::State::align()
{
    if (m_phase == Phase::FILTERED_SLICES && m_filter.is_between()) m_writer.align();
    if (m_phase != Phase::SLICES) return;
    m_writer.align();
    m_phase = Phase::COPIED_SLICES;
}

// Bytes of a unit, TS_ROOM at most.
void Stage::State::feed(Payload payload)
{
    switch (m_phase) {
    case Phase::HEAD:
        if (m_head.add(payload.bytes, payload.size)) begin_picture();
        break;
    case Phase::SLICES: m_writer.append(payload.bytes, payload.size); break;
    case Phase::FILTERED_SLICES: m_filter.add(payload.bytes, payload.size); break;
    case Phase::AUDIO:
        m_walk.add(payload.bytes, payload.size);
        m_writer.append(payload.bytes, payload.size);
        break;
    case Phase::COPIED_SLICES:
    case Phase::COPIED_AUDIO:
    case Phase::NONE: break;
    }
}

void Stage::State::end_unit()
{
    end_run();
    m_open_head = NO_HEAD;
    if (m_phase == Phase::NONE) return;
    if (m_lane == AUDIO)
        end_audio();
    else
        end_picture();
    m_writer.end_pes();
    m_phase = Phase::NONE;
    m_lane = NO_LANE;
}

void Stage::State::end_audio()
{
    constexpr uint64_t USUAL_SAMPLES = 1024;
    const bool f_short = m_program.audio_codec() == AudioCodec::AAC && m_aac.is_known;
    const uint64_t samples =
        f_short ? m_walk.samples() / USUAL_SAMPLES * m_aac.samples : m_walk.samples();
    m_audio.add(samples, m_walk.rate());
    if (m_counts.audio_frames == 1)
        m_grid = {m_audio.last(), static_cast<uint32_t>(samples), m_walk.rate()};
}

void Stage::State::end_picture()
{
    if (m_phase == Phase::HEAD) {
        m_head.end();
        begin_picture();
    }
    if (m_phase == Phase::FILTERED_SLICES) m_filter.end();
}

void Stage::State::begin_audio(const uint8_t *packet, Payload payload, const UnitStart &unit)
{
    ++m_counts.audio_frames;
    if (m_audio.is_lost(m_time, m_durations)) ++m_counts.untimed_audio;
    const int64_t time = m_audio.next(m_time, m_durations);
    PesStart start;
    start.stream_id = m_stream_id;
    start.pcr = advance_clock(AUDIO, time, false);
    start.pts = written(time);
    const AudioCodec codec = m_program.audio_codec();
    const size_t size = payload.size - unit.size;
    const bool f_correct = codec == AudioCodec::AAC && m_aac.is_known && size >= ADTS_SIZE;
    const uint8_t *const bytes = payload.bytes + unit.size;
    const bool f_longer = f_correct && size > ADTS_SIZE && lacks_pce(bytes, m_aac);
    if (f_longer || !unit.f_plain || !has_plain_pcr(packet)) {
        move_audio(start, bytes, size, f_longer);
        return;
    }
    const auto pes_at = static_cast<size_t>(payload.bytes - packet);
    uint8_t *const frame = m_writer.begin_copied_pes(m_pids[AUDIO], packet, pes_at, start);
    m_phase = Phase::COPIED_AUDIO;
    if (f_correct) correct_adts(frame, m_aac);
    m_walk.begin(codec, frame, size);
}

// The frame's first bytes, into a packet that isn't that of the library. f_longer: the element that states the channels
// goes with them.
void Stage::State::move_audio(const PesStart &start, const uint8_t *bytes, size_t size,
                              bool f_longer)
{
    m_writer.begin_pes(m_pids[AUDIO], start);
    m_phase = Phase::AUDIO;
    m_walk.begin(m_program.audio_codec(), bytes, size);
    if (f_longer)
        put_with_pce(bytes, size);
    else
        m_writer.append(bytes, size);
}

void Stage::State::put_with_pce(const uint8_t *bytes, size_t size)
{
    uint8_t header[ADTS_SIZE];
    memcpy(header, bytes, ADTS_SIZE);
    correct_adts(header, m_aac);
    add_pce_to_adts(header, m_aac);
    m_writer.append(header, ADTS_SIZE);
    m_writer.append(m_aac.pce, m_aac.pce_size);
    m_writer.append(bytes + ADTS_SIZE, size - ADTS_SIZE);
}

void Stage::State::begin_picture()
{
    take_sets();
    PesStart start;
    start.stream_id = m_stream_id;
    start.f_video = true;
    start.f_random_access = m_head.is_key();
    order_picture(start);
    m_writer.begin_pes(m_pids[VIDEO], start);
    m_phase = Phase::SLICES;
    m_packets_moved = 0;
    put_head();
}

void Stage::State::order_picture(PesStart &start)
{
    if (!m_f_decode_begun) {
        m_decode.begin(depth(), &m_time, 1, m_pcr + ClockBound::LEAD);
        m_f_decode_begun = true;
    }
    int64_t pts = m_time;
    int64_t dts = m_decode.next(pts);
    // After a pause it is the time of a picture before that, and the clock has gone on.
    const int64_t in_time = m_pcr + ClockBound::LEAD;
    if (dts < in_time && m_head.is_idr()) dts = m_decode.begin_again(pts, in_time);
    if (dts > pts && dts - pts <= SAME_TIME) pts = dts;
    if (dts > pts) {
        // It is reordered farther than its parameter sets state; those after it may be, too.
        ++m_counts.misordered;
        m_decode.set_depth(m_decode.depth() + 1);
        dts = pts;
    }
    start.pcr = advance_clock(VIDEO, dts, start.f_random_access);
    start.pts = written(pts);
    start.dts = written(dts);
}

// An access unit delimiter first, and before a key picture the parameter sets, each once.
void Stage::State::put_head()
{
    const bool f_h264 = m_program.video_codec() == VideoCodec::H264;
    const bool has_delimiter = m_head.begins_with_delimiter();
    const uint8_t *const bytes = m_head.bytes();
    size_t done = 0;
    if (f_h264 && !has_delimiter) m_writer.append(nal::DELIMITER_UNIT, sizeof nal::DELIMITER_UNIT);
    if (f_h264 && has_delimiter) {
        done = m_head.count() > 1 ? m_head.unit(1).start : m_head.body();
        m_writer.append(bytes, done);
    }
    bool f_filtered = f_h264 && m_sets.may_have_fields();
    if (f_h264 && m_head.is_key() && m_sets.count() > 0) {
        put_sets(nal::SPS);
        put_sets(nal::PPS);
        for (size_t i = 0; i < m_head.count(); ++i) {
            const PictureHead::Unit &unit = m_head.unit(i);
            if (!m_sets.has(bytes + unit.at, unit.end - unit.at)) continue;
            // Where they are before the first slice they may be before others, too.
            f_filtered = true;
            m_writer.append(bytes + done, unit.start - done);
            done = i + 1 < m_head.count() ? m_head.unit(i + 1).start : m_head.body();
        }
    }
    if (!f_filtered) {
        m_writer.append(bytes + done, m_head.size() - done);
        return;
    }
    m_writer.append(bytes + done, m_head.body() - done);
    m_phase = Phase::FILTERED_SLICES;
    m_filter.begin();
    for (done = m_head.body(); done < m_head.size();) {
        const size_t part = std::min(m_head.size() - done, TS_ROOM);
        feed({bytes + done, part});
        done += part;
    }
}

void Stage::State::put_sets(uint8_t type)
{
    static const uint8_t start_code[] = {0, 0, 0, 1};
    for (size_t i = 0; i < m_sets.count(); ++i) {
        if (m_sets.type(i) != type) continue;
        m_writer.append(start_code, sizeof start_code);
        m_writer.append(m_sets.unit(i), m_sets.size(i));
    }
}

void Stage::State::take_sets()
{
    if (m_program.video_codec() == VideoCodec::MPEG2) {
        if (m_head.mpeg2_depth() < 0) return;
        m_mpeg2_depth = static_cast<size_t>(m_head.mpeg2_depth());
        m_decode.set_depth(m_mpeg2_depth);
        return;
    }
    bool f_new = false;
    for (size_t i = 0; i < m_head.count(); ++i) {
        const PictureHead::Unit &unit = m_head.unit(i);
        if (unit.type == nal::SPS || unit.type == nal::PPS)
            f_new = m_sets.take(m_head.bytes() + unit.at, unit.end - unit.at) || f_new;
    }
    if (f_new) m_decode.set_depth(depth());
}

// Brings the clock to where a unit of this time may begin. Returns the PCR that its first packet has to bear, or
// NO_TIME.
int64_t Stage::State::advance_clock(LaneIndex lane, int64_t time, bool f_tables)
{
    const bool f_other_expected = lane == VIDEO ? m_program.has_audio() : m_program.has_video();
    const bool f_carries = m_program.pcr_pid() == m_pids[lane].pid;
    const int64_t bound = m_bound.add(lane, time, f_other_expected);
    if (m_bound.behind() > m_counts.worst_apart) m_counts.worst_apart = m_bound.behind();
    if (!m_f_clock_begun || m_f_clock_jumps) return begin_clock(f_carries);

    const int64_t late = m_pcr + ClockBound::LEAD - time;
    if (late > 0) {
        ++m_counts.late;
        m_counts.worst_late = std::max(m_counts.worst_late, late);
    }
    if (bound - m_pcr > PCR_STEP) catch_up(bound);
    const bool f_step = f_carries && bound > m_pcr;
    if (f_step) m_pcr = bound;
    put_tables(f_tables);
    return f_step ? written(m_pcr) : NO_TIME;
}

// By packets of its own, up to a step before the time.
void Stage::State::catch_up(int64_t time)
{
    if (time - m_pcr > LONGEST_GAP) {
        m_pcr = time;
        put_clock(true);
    }
    while (time - m_pcr > PCR_STEP) {
        m_pcr += PCR_STEP;
        put_tables(false);
        put_clock(false);
    }
}

int64_t Stage::State::begin_clock(bool f_carries)
{
    const bool f_jumps = m_f_clock_jumps;
    m_f_clock_begun = true;
    m_f_clock_jumps = false;
    if (f_jumps || !f_carries) {
        put_clock(f_jumps);
        return NO_TIME;
    }
    put_tables(true);
    return written(m_pcr);
}

// A packet of its own. Where the clock jumps, receivers get the tables, too.
void Stage::State::put_clock(bool f_jumps)
{
    if (f_jumps) ++m_counts.jumps;
    if (f_jumps || m_tables_last == NO_TIME) put_tables(true);
    m_writer.put_clock(m_pids[m_program.has_video() ? VIDEO : AUDIO], written(m_pcr), f_jumps);
}

// f_due: even if the next PCR still came early enough for them.
void Stage::State::put_tables(bool f_due)
{
    if (!f_due && m_pcr <= m_tables_last) return;
    m_tables_last = m_pcr + TABLES_STEP - PCR_STEP;
    m_program.put_tables(m_writer);
}

}  // namespace golt

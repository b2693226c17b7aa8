#include "golt_stage.h"

#include <algorithm>
#include <new>

#include "stage_state.h"

namespace golt {

namespace {

constexpr int64_t USUAL_SHIFT = SECOND;
// Times that go back by more than this are those of another place in the file; of pictures that are not in order
// yet, by more than the second.
constexpr int64_t JUMP_BACK = SECOND;
constexpr int64_t FIRST_JUMP_BACK = 5 * SECOND;
// The stream's first packets are held back no longer than this.
constexpr int64_t LONGEST_HOLD = 3 * SECOND;
// Without a sequence parameter set that can be read.
constexpr size_t UNKNOWN_DEPTH = 4;

}  // namespace

Stage::Stage(Write sink, void *handle, const StageHints &hints)
    : m_state(new (std::nothrow) State(sink, handle, hints))
{
    if (m_state != nullptr && m_state->m_writer.open()) return;
    delete m_state;
    m_state = nullptr;
}

Stage::~Stage()
{
    delete m_state;
}

// The way that nearly all packets go has no call in it, which would make it keep registers.
bool Stage::write(const uint8_t *packets, size_t size)
{
    if (m_state == nullptr) return false;
    if (size != TS_SIZE) return m_state->write(packets, size);
    return m_state->m_writer.copy_in_run(packets) || m_state->take_one(packets) >= 0;
}

int Stage::take(const uint8_t *packets, int size)
{
    if (m_state == nullptr) return -1;
    if (size != static_cast<int>(TS_SIZE)) return size < 0 ? -1 : m_state->take_all(packets, size);
    return m_state->m_writer.copy_in_run(packets) ? size : m_state->take_one(packets);
}

bool Stage::flush()
{
    return m_state != nullptr && m_state->flush();
}

bool Stage::finish()
{
    return m_state != nullptr && m_state->finish();
}

StageCounts Stage::counts() const
{
    if (m_state == nullptr) return {};
    StageCounts counts = m_state->m_counts;
    counts.packets_in += m_state->m_writer.size_of_run();
    counts.bytes_out = m_state->m_writer.bytes_out();
    return counts;
}

int64_t Stage::shift() const
{
    return m_state != nullptr ? m_state->m_shift : 0;
}

AudioGrid Stage::audio_grid() const
{
    return m_state != nullptr ? m_state->m_grid : AudioGrid();
}

Stage::State::State(Write sink, void *handle, const StageHints &hints)
    : m_writer(sink, handle)
    , m_mode(hints.mode)
    , m_offsets{hints.video.offset, hints.audio.offset}
    , m_durations(hints.audio_durations)
    , m_aac(read_aac_config(hints.audio.config, hints.audio.config_size))
    , m_hinted_grid(hints.audio_grid)
{
    m_sets.take_config(hints.video.config, hints.video.config_size);
    if (hints.begin == StageHints::ANYWHERE) return;
    m_in_times.begin(hints.begin);
    m_out_times = m_in_times;
}

int Stage::State::take_all(const uint8_t *packets, int size)
{
    return write(packets, static_cast<size_t>(size)) ? size : -1;
}

bool Stage::State::write(const uint8_t *bytes, size_t size)
{
    if (m_mode == StageMode::BY_FIRST_PACKET && size > 0)
        m_mode = size >= TS_SIZE && is_library_pat(bytes) ? StageMode::REMUX : StageMode::PASS;
    if (m_mode == StageMode::PASS) {
        m_writer.pass(bytes, size);
        m_counts.packets_in += size / TS_SIZE;
        return !m_writer.has_failed();
    }
    for (; size >= TS_SIZE; size -= TS_SIZE, bytes += TS_SIZE)
        take_one(bytes);
    if (size > 0) ++m_counts.dropped;
    return !m_writer.has_failed();
}

int Stage::State::take_one(const uint8_t *packet)
{
    const uint32_t head = be32(packet);
    const bool f_append = m_writer.is_in_run(head) && (m_phase != Phase::FILTERED_SLICES ||
                                                       !may_have_code(packet + TS_HEAD, TS_ROOM));
    if (!f_append) return take_other(packet, head);
    m_writer.append_in_run(packet);
    return static_cast<int>(TS_SIZE);
}

int Stage::State::take_other(const uint8_t *packet, uint32_t head)
{
    if (m_mode != StageMode::REMUX) return take_all(packet, TS_SIZE);
    ++m_counts.packets_in;
    const Payload payload = payload_of(packet);
    if ((head & SYNC_START_AND_PID) == m_open_head && payload.size > 0)
        go_on(packet, payload);
    else if ((head & SYNC_AND_PID) == head_of_pid(PMT_PID))
        take_pmt(packet);
    else if ((head & SYNC_AND_PID) != head_of_pid(PAT_PID))
        take(packet, head, payload);
    return m_writer.has_failed() ? -1 : static_cast<int>(TS_SIZE);
}

bool Stage::State::flush()
{
    end_run();
    m_writer.flush();
    begin_run();
    return !m_writer.has_failed();
}

bool Stage::State::finish()
{
    if (m_f_holding && !m_held.is_empty()) end_hold();
    end_unit();
    m_writer.flush();
    return !m_writer.has_failed();
}

// Packets as they come

void Stage::State::take(const uint8_t *packet, uint32_t head, Payload payload)
{
    const LaneIndex lane = lane_of(head & SYNC_AND_PID);
    if ((head & UNIT_START) != 0)
        take_start(packet, lane, payload);
    else
        take_more(packet, lane, payload);
}

// The streams that it lists may be other ones.
void Stage::State::take_pmt(const uint8_t *packet)
{
    if (m_program.take_pmt(packet)) m_open_head = NO_HEAD;
}

void Stage::State::take_start(const uint8_t *packet, LaneIndex lane, Payload payload)
{
    UnitStart start;
    m_in_lane = read_unit_start(payload, start) ? lane : NO_LANE;
    if (m_in_lane == NO_LANE) {
        drop();
        return;
    }
    const int64_t time = time_of(lane, start);
    if (m_f_holding)
        hold(packet, lane, payload, &start);
    else
        begin_unit(packet, lane, payload, start, time);
}

void Stage::State::take_more(const uint8_t *packet, LaneIndex lane, Payload payload)
{
    if (lane == NO_LANE || lane != m_in_lane || payload.size == 0)
        drop();
    else if (m_f_holding)
        hold(packet, lane, payload, nullptr);
    else if (lane == m_lane)
        go_on(packet, payload);
}

void Stage::State::drop()
{
    if (m_in_lane == NO_LANE) {
        end_run();
        m_open_head = NO_HEAD;
    }
    ++m_counts.dropped;
}

LaneIndex Stage::State::lane_of(uint32_t head) const
{
    if (head == head_of_pid(VIDEO_PID) && m_program.has_video()) return VIDEO;
    return head == head_of_pid(AUDIO_PID) && m_program.knows_audio() ? AUDIO : NO_LANE;
}

int64_t Stage::State::time_of(LaneIndex lane, const UnitStart &start)
{
    const int64_t time = m_in_times.extend(lane, start.pts) + m_offsets[lane];
    if (lane == AUDIO) m_program.note_audio();
    if (is_jump(lane, time)) {
        if (m_f_holding) end_hold();
        begin_hold();
    }
    if (m_f_holding) note_held(lane, time);
    m_f_begun[lane] = true;
    return time;
}

// Audio that goes back without being behind the clock needs nothing but a new time.
bool Stage::State::is_jump(LaneIndex lane, int64_t time) const
{
    if (!m_f_begun[lane]) return false;
    if (m_f_holding) return time < m_told[lane] - FIRST_JUMP_BACK;
    if (lane == VIDEO) return m_decode.has_last() && time < m_decode.last() - JUMP_BACK;
    return time < m_audio.last() - JUMP_BACK && time < m_pcr + ClockBound::LEAD &&
           !m_audio.stands_still(time, m_durations);
}

void Stage::State::begin_hold()
{
    end_run();
    m_f_holding = true;
    m_f_begun[VIDEO] = m_f_begun[AUDIO] = false;
    m_pictures_held = 0;
    m_out_times = m_in_times;
}

void Stage::State::note_held(LaneIndex lane, int64_t time)
{
    const bool f_first = !m_f_begun[VIDEO] && !m_f_begun[AUDIO];
    m_told[lane] = time;
    m_lowest = f_first ? time : std::min(m_lowest, time);
    m_highest = f_first ? time : std::max(m_highest, time);
    if (lane == AUDIO && !m_f_begun[AUDIO]) m_first_audio = time;
    if (lane == VIDEO && m_pictures_held < MOST_FIRST_TIMES) m_first_times[m_pictures_held] = time;
    if (lane == VIDEO) ++m_pictures_held;
}

void Stage::State::hold(const uint8_t *packet, LaneIndex lane, Payload payload,
                        const UnitStart *start)
{
    // The unit before is still being written, with its own picture's head.
    if (start != nullptr && m_held.is_empty()) {
        end_unit();
        m_f_depth_known = m_sets.reorder_depth() >= 0;
    }
    if (lane == VIDEO && !m_f_depth_known) look_for_depth(payload, start);
    if (!m_held.add(packet)) {
        m_counts.f_no_memory = m_counts.f_no_memory || m_held.is_short();
        end_hold();
        process(packet, lane, payload, start);
        return;
    }
    if (may_go_on()) end_hold();
}

// The first picture states how many there have to be.
void Stage::State::look_for_depth(Payload payload, const UnitStart *start)
{
    if (m_pictures_held > 1) {
        m_head.end();
    } else {
        const size_t header = start != nullptr ? start->size : 0;
        const uint8_t *const bytes = payload.bytes + header;
        if (start != nullptr)
            m_head.begin(m_program.video_codec(), bytes, payload.size - header);
        else
            m_head.add(bytes, payload.size);
    }
    m_f_depth_known = m_head.is_complete();
    if (m_f_depth_known) take_sets();
}

bool Stage::State::may_go_on() const
{
    if (m_highest - m_lowest > LONGEST_HOLD) return true;
    const bool f_pictures =
        !m_program.has_video() || (m_f_depth_known && m_pictures_held > depth());
    return f_pictures && (!m_program.has_audio() || m_f_begun[AUDIO]);
}

size_t Stage::State::depth() const
{
    if (m_program.video_codec() == VideoCodec::MPEG2) return m_mpeg2_depth;
    const int told = m_sets.reorder_depth();
    return told >= 0 ? static_cast<size_t>(told) : UNKNOWN_DEPTH;
}

void Stage::State::end_hold()
{
    m_f_holding = false;
    m_f_decode_begun = m_pictures_held > 0;
    int64_t first = m_first_audio;
    if (m_f_decode_begun) {
        const size_t count = std::min(m_pictures_held, MOST_FIRST_TIMES);
        const int64_t picture = m_decode.begin(depth(), m_first_times, count, INT64_MIN);
        first = m_f_begun[AUDIO] ? std::min(first, picture) : picture;
    }
    m_audio.begin(m_hinted_grid);
    m_bound.begin();
    const int64_t clock = first - ClockBound::FIRST_LEAD;
    if (!m_f_shifted) {
        m_shift = std::max(USUAL_SHIFT, -clock);
        m_f_shifted = true;
        m_pcr = clock;
    } else if (clock <= m_pcr || clock - m_pcr > LONGEST_GAP) {
        m_f_clock_jumps = true;
        m_pcr = clock;
    }
    m_held.release([this](const uint8_t *packet) { replay(packet); });
}

}  // namespace golt

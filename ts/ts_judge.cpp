#include "ts_judge.h"

#include <algorithm>
#include <utility>

namespace {

constexpr uint64_t LONGEST_PES = 0xFFFF;
constexpr uint16_t NO_PCR_PID = 0x1FFF;

}  // namespace

void TsJudge::on_frame(const StreamFrame &frame)
{
    const TsPes &pes = frame.pes;
    const auto known = m_streams.find(pes.pid);
    if (known == m_streams.end()) return;
    Stream &stream = known->second;
    // Times of frames that begin after a jump of the clock are counted by the new one.
    if (stream.jumps != m_jumps && pes.first_packet >= m_jump_at) start_again(pes.pid, stream);
    stream.packet = pes.first_packet;
    if (pes.length != 0 && pes.size > LONGEST_PES && !pes.f_broken)
        report(rules::PES_TOO_LONG, frame, static_cast<int64_t>(pes.size));
    if (stream.f_video)
        judge_pictures(stream, frame);
    else
        judge_audio(stream, frame);
    stream.f_broken = pes.f_broken;
    if (!frame.time) return;
    judge_order(stream, frame);
    if (frame.codec == Codec::UNKNOWN) return;

    judge_distance(stream, frame);
    if (const auto step = stream.order.add({*frame.time, pes.first_packet}))
        judge_step(pes.pid, stream, *step);
}

// What concerns no frame happens when the clock says.
void TsJudge::on_problem(const TsProblem &problem)
{
    TsProblem timed = problem;
    if (!timed.time) timed.time = m_clock.now();
    found(timed);
}

void TsJudge::on_stream(uint16_t pid, uint8_t stream_type)
{
    const bool f_video = is_video(codec_of_stream_type(stream_type));
    Stream stream(f_video ? REORDER_PICTURES : 0);
    stream.f_video = f_video;
    stream.jumps = m_jumps;
    m_streams.insert_or_assign(pid, std::move(stream));
}

void TsJudge::on_frame_start(uint16_t pid)
{
    const auto known = m_streams.find(pid);
    if (known != m_streams.end()) known->second.others_at_start = m_reached[!known->second.f_video];
}

void TsJudge::on_pcr(uint64_t packet, uint64_t pcr, bool f_jumps)
{
    m_f_pcr = true;
    m_clock.on_pcr(packet, pcr, f_jumps);
    if (!f_jumps) return;
    ++m_jumps;
    m_jump_at = packet;
}

void TsJudge::finish()
{
    for (auto &[pid, stream] : m_streams) {
        while (const auto step = stream.order.drain())
            judge_step(pid, stream, *step);
        if (stream.missing > 0 && !stream.f_broken)
            found({&rules::CUT_FRAME, stream.packet, pid, nullptr, false, stream.reached,
                   static_cast<int64_t>(stream.missing)});
    }
    if (!m_f_pcr && !m_streams.empty() && m_clock.pid() != NO_PCR_PID)
        found({&rules::CLOCK_MISSING, 0, m_clock.pid()});
    m_clock.finish();
}

void TsJudge::start_again(uint16_t pid, Stream &stream)
{
    while (const auto step = stream.order.drain())
        judge_step(pid, stream, *step);
    stream.order = TimeOrder(stream.f_video ? REORDER_PICTURES : 0);
    stream.jumps = m_jumps;
    stream.reached.reset();
    stream.decoding.reset();
    stream.time.reset();
    m_reached[stream.f_video].reset();
}

void TsJudge::judge_order(Stream &stream, const StreamFrame &frame)
{
    const TsPes &pes = frame.pes;
    const int64_t decoding = *frame.decoding_time();
    if (decoding > *frame.time) report(rules::DTS_AFTER_PTS, frame, decoding - *frame.time);
    // Of audio the times say it themselves.
    if (stream.f_video && stream.decoding && decoding <= *stream.decoding)
        report(rules::DTS_BACKWARD, frame, *stream.decoding - decoding);
    stream.decoding = decoding;
    // What arrived before a jump has another clock.
    if (!pes.arrived || (m_jumps > 0 && pes.first_packet < m_jump_at)) return;
    const int64_t lead =
        difference_of_times(pes.dts.value_or(*pes.pts), *pes.arrived / uint64_t{PCR_PER_TICK});
    m_least_lead = std::min(m_least_lead.value_or(lead), lead);
    if (lead < 0) report(rules::LATE, frame, -lead);
}

void TsJudge::judge_step(uint16_t pid, Stream &stream, const TimeOrder::Step &step)
{
    const auto say = [&](const TsRule &rule, int64_t amount) {
        found({&rule, step.packet, pid, nullptr, false, step.time, amount});
    };
    if (step.backward > 0) return say(rules::TIME_BACKWARD, step.backward);
    if (!step.f_length) return;
    if (step.length == 0) say(rules::TIME_REPEATED, 0);
    if (!stream.f_video) return;
    const int64_t mean =
        stream.steps == 0 ? INT64_MAX / PICTURE_JUMP_FACTOR : stream.sum / stream.steps;
    if (step.length > PICTURE_JUMP && step.length > PICTURE_JUMP_FACTOR * mean)
        say(rules::TIME_JUMP, step.length);
    stream.sum += step.length;
    ++stream.steps;
}

// Frames of audio follow one another without gap or overlap, as long as their headers say. After lost packets the
// frames aren't known.
void TsJudge::judge_audio(Stream &stream, const StreamFrame &frame)
{
    const AudioContent &audio = frame.content.audio;
    if (!stream.f_broken && audio.cut > 0)
        report(rules::CUT_FRAME, frame, static_cast<int64_t>(audio.cut));
    const bool f_whole = !stream.f_broken && !frame.pes.f_broken;
    if (f_whole && audio.stray > 0)
        report(rules::STRAY_BYTES, frame, static_cast<int64_t>(audio.stray));
    if (audio.contradiction != nullptr && !frame.pes.f_broken)
        report(rules::ADTS, frame, 0, audio.contradiction);
    stream.missing = audio.missing;
    if (audio.first) stream.sample_rate = audio.first->sample_rate;
    stream.samples += audio.earlier_samples;
    if (frame.time) {
        if (f_whole && stream.time && stream.sample_rate != 0 && stream.samples != 0 &&
            *frame.time > *stream.time) {
            const auto length = static_cast<int64_t>(stream.samples * uint64_t{TICKS_PER_SECOND} /
                                                     stream.sample_rate);
            const int64_t gap = *frame.time - *stream.time - length;
            if (gap > AUDIO_TOLERANCE) report(rules::TIME_JUMP, frame, gap);
            if (gap < -AUDIO_TOLERANCE) report(rules::OVERLAP, frame, -gap);
        }
        stream.time = frame.time;
        stream.samples = 0;
    }
    stream.samples += audio.samples;
}

// A stream that has ended, or hasn't begun, isn't late; the next frame of one that goes on is.
void TsJudge::judge_distance(Stream &stream, const StreamFrame &frame)
{
    const int64_t decoding = *frame.decoding_time();
    stream.reached = std::max(stream.reached.value_or(decoding), decoding);
    std::optional<int64_t> &reached = m_reached[stream.f_video];
    reached = std::max(reached.value_or(decoding), decoding);
    const std::optional<int64_t> &other = stream.others_at_start;
    const int64_t late = other.value_or(*stream.reached) - *stream.reached;
    if (late > APART) report(rules::APART, frame, late);
}

// A PES packet without a time goes on with the picture before.
void TsJudge::judge_pictures(Stream &stream, const StreamFrame &frame)
{
    const FrameContent &content = frame.content;
    const bool f_h264 = frame.codec == Codec::H264;
    bool f_sets[2] = {};     // SPS and PPS of the access unit
    bool f_picture = false;  // one has been seen in it
    bool f_reported = false;
    for (size_t i = 0; i < content.unit_count; ++i) {
        const uint8_t unit = content.units[i];
        if (unit == (f_h264 ? nal::SPS : mpeg2::SEQUENCE)) stream.f_sequence = f_sets[0] = true;
        if (f_h264 && unit == nal::PPS) stream.f_picture_sets = f_sets[1] = true;
        if (f_h264 && unit == nal::DELIMITER) f_picture = f_sets[0] = f_sets[1] = false;
        if (f_h264 ? unit < nal::SLICE || unit > nal::IDR : unit != mpeg2::PICTURE) continue;
        const bool f_first = !std::exchange(f_picture, true);
        if (!stream.f_sequence || (f_h264 && !stream.f_picture_sets)) {
            if (!std::exchange(f_reported, true)) report(rules::NO_SETS, frame);
        } else if (f_h264 && f_first && unit == nal::IDR && frame.time && !frame.pes.f_broken &&
                   !(f_sets[0] && f_sets[1])) {
            report(rules::KEY_SETS, frame);
        }
    }
    if (!f_h264 || !frame.time || frame.pes.f_broken || content.unit_count == 0) return;
    if (content.units[0] != nal::DELIMITER) report(rules::NO_DELIMITER, frame);
    if (content.has(nal::IDR) && !frame.pes.f_random_access) report(rules::NO_RANDOM_ACCESS, frame);
}

void TsJudge::report(const TsRule &rule, const StreamFrame &frame, int64_t amount,
                     const char *detail)
{
    found({&rule, frame.pes.first_packet, frame.pes.pid, detail, false, frame.time, amount});
}

std::optional<TimeOrder::Step> TimeOrder::add(const Frame &frame)
{
    const auto is_later = [](const Frame &a, const Frame &b) { return a.time > b.time; };
    m_waiting.insert(std::upper_bound(m_waiting.begin(), m_waiting.end(), frame, is_later), frame);
    if (m_waiting.size() <= m_held_back) return {};
    return leave();
}

std::optional<TimeOrder::Step> TimeOrder::drain()
{
    if (m_waiting.empty()) return {};
    return leave();
}

TimeOrder::Step TimeOrder::leave()
{
    const auto [time, packet] = m_waiting.back();
    m_waiting.pop_back();
    Step step = {time, packet, 0, m_last.has_value(), 0};
    if (m_last && time < *m_last) {
        step.backward = *m_last - time;
        m_waiting.clear();  // they belong to what came before
    } else if (m_last) {
        step.length = time - *m_last;
    }
    m_last = time;
    return step;
}

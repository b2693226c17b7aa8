#include "check.h"

#include <algorithm>

#include <fmt/format.h>

#include "io/interrupt.h"
#include "several.h"
#include "stream/findings.h"
#include "stream/scan.h"
#include "stream/time_text.h"

namespace {

// The limits. --help and the manual repeat them.
constexpr size_t REORDER_PICTURES = 16;                  // MaxDpbFrames of H.264
constexpr int64_t AUDIO_JUMP = 100 * TICKS_PER_MS;       // over the length of a frame
constexpr int64_t PICTURE_JUMP = 10 * TICKS_PER_SECOND;  // and over
constexpr int64_t PICTURE_JUMP_FACTOR = 10;              // times the mean step
constexpr int64_t APART = TICKS_PER_SECOND;              // ISO/IEC 13818-1: data waits 1 s
constexpr int64_t PCR_INTERVAL = 100 * TICKS_PER_MS;     // ISO/IEC 13818-1
constexpr uint64_t LONGEST_PES = 0xFFFF;
constexpr int64_t PCR_RANGE = (int64_t{1} << PTS_BITS) * PCR_PER_TICK;  // 27 MHz

constexpr FindingKind
    BACKWARD = {"time-backward", "a time runs backward", Amount::TICKS, "at most by"},
    REPEATED = {"time-repeated", "a frame has the time of the previous one", Amount::NONE, ""},
    JUMP = {"time-jump", "the time jumps", Amount::TICKS, "at most by"},
    LATE = {"apart", "frames come later than those of the other stream", Amount::TICKS,
            "at most by"},
    PCR_BACKWARD = {"clock-backward", "the PCR runs backward", Amount::TICKS, "at most by"},
    PCR_LATE = {"clock-late", "the PCR comes later than 100 ms", Amount::TICKS, "at most after"},
    NO_SETS = {"no-parameter-sets", "a picture comes before the first parameter sets", Amount::NONE,
               ""},
    LONG_PES = {"pes-length", "a PES packet is longer than its length field can hold",
                Amount::BYTES, "at most"},
    CUT = {"cut-frame", "a frame is shorter than its header states", Amount::BYTES, "at most by"},
    STRUCTURE = {"structure", "in the packets", Amount::NONE, ""};

/// The times of a stream, brought into the order of presentation by as many pictures as a decoder
/// may hold back; an audio decoder holds back none.
class TimeOrder {
public:
    explicit TimeOrder(size_t held_back)
        : m_held_back(held_back)
    {
    }

    struct Step {
        int64_t time, length;
        bool f_length;  // there was a time before
        int64_t backward;
    };
    /// Takes the next time; what leaves the order, if any does.
    std::optional<Step> add(int64_t time);
    /// What is still held back, one by one.
    std::optional<Step> drain();

private:
    Step leave();

    const size_t m_held_back;
    std::vector<int64_t> m_waiting;  // sorted, the last one first
    std::optional<int64_t> m_last;
};

struct StreamJudge {
    StreamJudge(const std::string &called, size_t held_back)
        : name(called)
        , order(held_back)
    {
    }

    std::string name;
    TimeOrder order;
    uint64_t packet = 0;             // where the last frame begins
    std::optional<int64_t> reached;  // the latest time
    int64_t sum = 0, steps = 0;      // of the steps between pictures
    int64_t frame_length = 0;        // of the last audio frame, by its header
    bool f_sequence = false, f_picture_sets = false;
};

class Judge final : public FrameUser {
public:
    Findings findings;
    Totals totals;

    void on_frame(const StreamFrame &frame) override;
    void on_problem(const TsProblem &problem) override;
    void on_pcr(uint64_t packet, uint64_t pcr, bool f_jumps) override;
    void finish();
    explicit Judge(bool f_foreign)
        : m_f_foreign(f_foreign)
    {
    }

private:
    StreamJudge &judge_of(const StreamFrame &frame);
    void judge_step(StreamJudge &stream, bool f_video, const TimeOrder::Step &step);
    void judge_distance(const StreamJudge &stream, const StreamFrame &frame);
    void judge_content(StreamJudge &stream, const StreamFrame &frame);

    const bool m_f_foreign;  // packets pass as they are: what is unusual in them is no fault
    std::map<uint16_t, StreamJudge> m_streams;
    std::optional<int64_t> m_reached[2];  // the latest times of audio and of video
    std::optional<int64_t> m_pcr;
};

ExitStatus check_one(const CheckOptions &options, const InputOptions &input_options,
                     Printer &printer);
int64_t length_of(const StreamFrame &frame);
std::string report_text(const Input &input, const Judge &judge, const std::string &fault);
Json report_json(const Input &input, const Judge &judge, const std::string &fault);

}  // namespace

ExitStatus check(const CheckOptions &options, Printer &printer)
{
    return for_each_input(options.paths, options.f_json, printer, [&](const std::string &path) {
        InputOptions input = options.input;
        input.path = path;
        return check_one(options, input, printer);
    });
}

namespace {

ExitStatus check_one(const CheckOptions &options, const InputOptions &input_options,
                     Printer &printer)
{
    Input input(input_options);
    Judge judge(!input.format().f_times);
    StreamFrames frames(0, judge);
    Pump pump(input, frames);
    read_all(input, pump, frames);
    judge.finish();
    if (pump.frames() == 0) throw NotDone(input.source().path(), pump.why_nothing_came());

    std::string fault = pump.fault_in_input();
    if (stop_signal() != 0) fault = fmt::format("stopped by {}", stop_signal_name());
    const int indent = options.paths.size() > 1 ? -1 : 2;
    printer.print(options.f_json ? json_text(report_json(input, judge, fault), indent)
                                 : report_text(input, judge, fault));
    printer.flush();
    return judge.findings.all().empty() && fault.empty() ? EXIT_DONE : EXIT_DONE_WITH_FAULTS;
}

void Judge::on_frame(const StreamFrame &frame)
{
    totals[frame.pes.pid].add(frame);
    StreamJudge &stream = judge_of(frame);
    stream.packet = frame.pes.first_packet;
    judge_content(stream, frame);
    if (!frame.time) return;

    stream.reached = std::max(stream.reached.value_or(*frame.time), *frame.time);
    std::optional<int64_t> &reached = m_reached[is_video(frame.codec)];
    reached = std::max(reached.value_or(*stream.reached), *stream.reached);
    judge_distance(stream, frame);
    if (const auto step = stream.order.add(*frame.time))
        judge_step(stream, is_video(frame.codec), *step);
    if (frame.content.audio) stream.frame_length = length_of(frame);
}

void Judge::on_problem(const TsProblem &problem)
{
    if (m_f_foreign && problem.f_unusual) return;
    findings.add(STRUCTURE, fmt::format("PID {:#x}", problem.pid), problem.packet, {}, 0,
                 problem.what);
}

void Judge::on_pcr(uint64_t packet, uint64_t pcr, bool f_jumps)
{
    const auto now = static_cast<int64_t>(pcr);
    if (m_pcr && !f_jumps) {
        // The nearer way round, as the clock starts again every 26 hours.
        int64_t step = (now - *m_pcr) % PCR_RANGE;
        if (step > PCR_RANGE / 2) step -= PCR_RANGE;
        if (step < -PCR_RANGE / 2) step += PCR_RANGE;
        const int64_t time = now / PCR_PER_TICK;
        if (step < 0) findings.add(PCR_BACKWARD, "clock", packet, time, -step / PCR_PER_TICK);
        if (step > PCR_INTERVAL * PCR_PER_TICK)
            findings.add(PCR_LATE, "clock", packet, time, step / PCR_PER_TICK);
    }
    m_pcr = now;
}

void Judge::finish()
{
    for (auto &[pid, stream] : m_streams) {
        while (const auto step = stream.order.drain())
            judge_step(stream, is_video(totals[pid].codec), *step);
    }
}

StreamJudge &Judge::judge_of(const StreamFrame &frame)
{
    const auto found = m_streams.find(frame.pes.pid);
    if (found != m_streams.end()) return found->second;
    const bool f_video = is_video(frame.codec);
    const std::string name = m_f_foreign ? fmt::format("PID {:#x}", frame.pes.pid)
                             : f_video   ? "video"
                                         : "sound";
    const size_t held_back = f_video ? REORDER_PICTURES : 0;
    return m_streams.emplace(frame.pes.pid, StreamJudge(name, held_back)).first->second;
}

void Judge::judge_step(StreamJudge &stream, bool f_video, const TimeOrder::Step &step)
{
    if (step.backward > 0) {
        findings.add(BACKWARD, stream.name, stream.packet, step.time, step.backward);
        return;
    }
    if (!step.f_length) return;
    if (step.length == 0) findings.add(REPEATED, stream.name, stream.packet, step.time);
    if (f_video) {
        const int64_t mean =
            stream.steps == 0 ? INT64_MAX / PICTURE_JUMP_FACTOR : stream.sum / stream.steps;
        if (step.length > PICTURE_JUMP && step.length > PICTURE_JUMP_FACTOR * mean)
            findings.add(JUMP, stream.name, stream.packet, step.time, step.length);
        stream.sum += step.length;
        ++stream.steps;
    } else if (step.length > stream.frame_length + AUDIO_JUMP) {
        findings.add(JUMP, stream.name, stream.packet, step.time, step.length);
    }
}

// A stream that has ended, or hasn't begun, isn't late; the next frame of one that goes on is.
void Judge::judge_distance(const StreamJudge &stream, const StreamFrame &frame)
{
    if (frame.codec == Codec::UNKNOWN) return;
    const std::optional<int64_t> &other = m_reached[!is_video(frame.codec)];
    const int64_t late = other.value_or(*stream.reached) - *stream.reached;
    if (late > APART) findings.add(LATE, stream.name, frame.pes.first_packet, frame.time, late);
}

void Judge::judge_content(StreamJudge &stream, const StreamFrame &frame)
{
    const uint64_t packet = frame.pes.first_packet;
    const FrameContent &content = frame.content;
    if (frame.pes.length != 0 && frame.pes.size > LONGEST_PES)
        findings.add(LONG_PES, stream.name, packet, frame.time,
                     static_cast<int64_t>(frame.pes.size));
    if (content.audio && content.audio->size > frame.pes.payload_size)
        findings.add(CUT, stream.name, packet, frame.time,
                     static_cast<int64_t>(content.audio->size - frame.pes.payload_size));

    for (size_t i = 0; i < content.unit_count; ++i) {
        const uint8_t unit = content.units[i];
        const bool f_h264 = frame.codec == Codec::H264;
        if (unit == (f_h264 ? nal::SPS : mpeg2::SEQUENCE)) stream.f_sequence = true;
        if (f_h264 && unit == nal::PPS) stream.f_picture_sets = true;
        const bool f_picture =
            f_h264 ? unit >= nal::SLICE && unit <= nal::IDR : unit == mpeg2::PICTURE;
        if (!f_picture) continue;
        if (!stream.f_sequence || (f_h264 && !stream.f_picture_sets))
            findings.add(NO_SETS, stream.name, packet, frame.time);
        break;
    }
}

std::optional<TimeOrder::Step> TimeOrder::add(int64_t time)
{
    m_waiting.insert(std::upper_bound(m_waiting.begin(), m_waiting.end(), time, std::greater<>()),
                     time);
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
    const int64_t time = m_waiting.back();
    m_waiting.pop_back();
    Step step = {time, 0, m_last.has_value(), 0};
    if (m_last && time < *m_last) {
        step.backward = *m_last - time;
        m_waiting.clear();  // they belong to what came before
    } else if (m_last) {
        step.length = time - *m_last;
    }
    m_last = time;
    return step;
}

// How long a PES packet of audio lasts, 90 kHz; ready-made ones may hold several frames.
int64_t length_of(const StreamFrame &frame)
{
    const AudioHeader &header = *frame.content.audio;
    if (header.sample_rate == 0) return 0;
    const uint64_t size = std::max<uint64_t>(header.size, 1);
    const uint64_t in_it = std::max<uint64_t>((frame.pes.payload_size + size - 1) / size, 1);
    return static_cast<int64_t>(in_it * header.samples * TICKS_PER_SECOND / header.sample_rate);
}

// The verdict, and below it what it rests on.
std::string report_text(const Input &input, const Judge &judge, const std::string &fault)
{
    const Findings &findings = judge.findings;
    const uint64_t count =
        findings.all().size() + findings.left_out() + static_cast<uint64_t>(!fault.empty());
    std::string text = fmt::format("{}: {}\n", printable(input.source().path()),
                                   count == 0 ? "nothing found" : counted(count, "finding"));
    for (const auto &[pid, totals] : judge.totals)
        text += fmt::format("  PID {:#x}, {}: {}\n", pid, codec_name(totals.codec),
                            totals_text(totals));
    for (const Finding &finding : findings.all())
        text += fmt::format("  {}\n", finding.text());
    if (findings.left_out() > 0)
        text += fmt::format("  {} more of other kinds\n", findings.left_out());
    if (!fault.empty()) text += fmt::format("  {}\n", printable(fault));
    return text;
}

Json report_json(const Input &input, const Judge &judge, const std::string &fault)
{
    Json json = json_document("golt.check/1");
    json["input"] = input.source().path();
    json["format"] = input.format().name;
    json["clean"] = judge.findings.all().empty() && fault.empty();
    json["fault"] = fault.empty() ? Json() : Json(fault);
    json["streams"] = Json::array();
    for (const auto &[pid, totals] : judge.totals)
        json["streams"].push_back(totals_json(totals));
    json["findings"] = Json::array();
    for (const Finding &finding : judge.findings.all()) {
        Json one = {{"code", finding.kind->code},
                    {"stream", finding.subject},
                    {"count", finding.count},
                    {"first_packet", finding.first_packet},
                    {"first_ms", finding.first_time ? json_ms(*finding.first_time) : Json()}};
        if (finding.kind->amount == Amount::TICKS) one["worst_ms"] = json_ms(finding.worst);
        if (finding.kind->amount == Amount::BYTES) one["worst_bytes"] = finding.worst;
        one["text"] = finding.text();
        json["findings"].push_back(std::move(one));
    }
    json["left_out"] = judge.findings.left_out();
    return json;
}

}  // namespace

#include "plot.h"

#include <algorithm>
#include <filesystem>

#include "io/output.h"
#include "io/printer.h"
#include "plot_drawing.h"
#include "stream/scan.h"
#include "stream/source_bytes.h"
#include "stream/timeline.h"

namespace {

/// Fills the timeline.
class Plotter final : public FrameUser {
public:
    Timeline timeline;

    void on_frame(const StreamFrame &frame) override;

private:
    /// The audio of one PID.
    struct AudioClock {
        int64_t told;  // latest time, as the stream has it
        int64_t time;  // the same, as it has to be
        int64_t duration;
    };

    int64_t follow_audio(const StreamFrame &frame);

    std::map<uint16_t, AudioClock> m_clocks;
    std::optional<int64_t> m_latest[Timeline::STREAMS];
};

std::optional<Timeline::Stream> stream_of(const StreamFrame &frame);
bool is_key(const FrameContent &content);
void take_keys_of_file(Input &input, Timeline &timeline);

}  // namespace

ExitStatus plot(const PlotOptions &options, Descriptor standard_output)
{
    Input input(options.input, Order::BY_TIME);
    const std::string &path = input.source().path();
    Output output(options.output, std::move(standard_output), input.source().status(),
                  options.f_force);
    Plotter plotter;
    StreamFrames frames(0, plotter);
    Pump pump(input, frames);
    read_all(input, pump, frames);
    if (pump.frames() == 0) throw NotDone(path, pump.why_nothing_came());
    plotter.timeline.finish();
    if (plotter.timeline.is_empty()) throw NotDone(path, "no frame in it has a time");
    const std::string fault = pump.fault_in_input();
    take_keys_of_file(input, plotter.timeline);

    Printer printer(output.descriptor(), output.name());
    draw_timeline(plotter.timeline, std::filesystem::path(path).filename().string(), printer);
    printer.flush();
    output.complete();
    return end_command(path, fault);
}

namespace {

void Plotter::on_frame(const StreamFrame &frame)
{
    const std::optional<Timeline::Stream> stream = stream_of(frame);
    if (!stream || !frame.time) return;
    const bool f_video = *stream == Timeline::VIDEO;
    const int64_t time = f_video ? *frame.time : follow_audio(frame);
    timeline.add(*stream, time, frame.pes.payload_size);
    if (f_video && is_key(frame.content)) timeline.add_key(time);

    std::optional<int64_t> &own = m_latest[*stream];
    const std::optional<int64_t> &other = m_latest[f_video ? Timeline::AUDIO : Timeline::VIDEO];
    own = std::max(own.value_or(time), time);
    if (other) timeline.add_late(*stream, time, *other - *own);
}

// Where Matroska doesn't state how long a frame lasts, the library gives all audio the same time. It then
// follows from the frames.
int64_t Plotter::follow_audio(const StreamFrame &frame)
{
    const auto [place, f_first] = m_clocks.try_emplace(frame.pes.pid);
    AudioClock &clock = place->second;
    const bool f_stands = !f_first && *frame.time == clock.told;
    clock.time = f_stands ? clock.time + clock.duration : *frame.time;
    clock.told = *frame.time;
    clock.duration = 0;
    const std::optional<AudioHeader> &audio = frame.content.audio.first;
    if (audio && audio->sample_rate != 0)
        clock.duration = int64_t{audio->samples} * TICKS_PER_SECOND / audio->sample_rate;
    return clock.time;
}

// By stream_id (ISO/IEC 13818-1) where the codec isn't known.
std::optional<Timeline::Stream> stream_of(const StreamFrame &frame)
{
    if (is_video(frame.codec)) return Timeline::VIDEO;
    if (frame.codec != Codec::UNKNOWN) return Timeline::AUDIO;
    constexpr uint8_t VIDEO_MASK = 0xF0, VIDEO_ID = 0xE0, AUDIO_MASK = 0xE0, AUDIO_ID = 0xC0;
    if ((frame.pes.stream_id & VIDEO_MASK) == VIDEO_ID) return Timeline::VIDEO;
    if ((frame.pes.stream_id & AUDIO_MASK) == AUDIO_ID) return Timeline::AUDIO;
    return {};
}

// Open groups begin with parameter sets, but without an IDR picture.
bool is_key(const FrameContent &content)
{
    return content.has(nal::IDR) || content.has(nal::SPS) || content.has(mpeg2::SEQUENCE);
}

// The file's own marks are better, where it can be asked for them. At a server that would be a request for each
// block of Matroska.
void take_keys_of_file(Input &input, Timeline &timeline)
{
    const bool f_remote = is_url(input.source().path());
    if (f_remote && input.outline().container != Container::MP4) return;
    Timeline marked = timeline;
    marked.forget_keys();
    SourceBytes bytes(input.source());
    // Not those that have not been read, wherever they may be.
    const int64_t last_ms = (timeline.end() - 1) / TICKS_PER_MS;
    const auto take = [&](int64_t time_ms) {
        if (time_ms <= last_ms) marked.add_key(time_ms * TICKS_PER_MS);
    };
    const bool f_all = list_key_pictures(bytes, input.outline(), input.selection(), take);
    if (f_all && marked.key_count() > 0) timeline = marked;
}

}  // namespace

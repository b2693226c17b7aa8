#include "scan.h"

#include <algorithm>
#include <vector>

#include <unistd.h>

#include <fmt/format.h>

#include "io/interrupt.h"
#include "io/message.h"
#include "io/progress.h"
#include "time_text.h"

void StreamTotals::add(const StreamFrame &frame)
{
    pid = frame.pes.pid;
    codec = frame.codec;
    ++frames;
    bytes += frame.pes.payload_size;
    audio_frames += frame.content.audio.frames;
    if (frame.time) {
        ++timed_frames;
        first = std::min(first, *frame.time);
        last = std::max(last, *frame.time);
    }
    if (!audio) audio = frame.content.audio.first;
}

int64_t StreamTotals::duration() const
{
    if (timed_frames < 2) return 0;
    return last - first + (last - first) / static_cast<int64_t>(timed_frames - 1);
}

double StreamTotals::bits_per_second() const
{
    if (duration() <= 0) return 0;
    return static_cast<double>(bytes) * 8 * static_cast<double>(TICKS_PER_SECOND) /
           static_cast<double>(duration());
}

void read_all(Input &input, Pump &pump, StreamFrames &frames)
{
    Progress progress(isatty(STDERR_FILENO) != 0);
    while (pump.copy_frame()) {
        // Packets that pass as they are aren't frames.
        if (input.format().f_times) frames.end_frames();
        if (progress.is_due(frames.bytes()))
            progress.show(frames.bytes(), std::clamp(pump.part_done(), 0.0, 1.0),
                          counted(pump.frames(), "frame"));
    }
    frames.finish();
}

std::string read_all(Source &source, TsFileFrames &frames, const std::function<bool()> &is_enough)
{
    constexpr size_t PIECE = 65536;
    std::vector<uint8_t> piece(PIECE);
    Progress progress(isatty(STDERR_FILENO) != 0);
    while (!is_enough() && stop_signal() == 0) {
        const int size = source.read(piece.data(), static_cast<int>(piece.size()));
        if (size <= 0) break;
        frames.feed(piece.data(), static_cast<size_t>(size));
        const double part = source.size() == 0 ? 0
                                               : static_cast<double>(source.position()) /
                                                     static_cast<double>(source.size());
        if (progress.is_due(source.position()))
            progress.show(source.position(), std::min(part, 1.0),
                          counted(frames.packets(), "packet"));
    }
    frames.finish();
    if (!source.fault().empty() && frames.packet_size() == 0)
        throw NotDone(source.path(), source.fault());
    if (stop_signal() != 0) return fmt::format("stopped by {}", stop_signal_name());
    if (frames.packet_size() == 0) throw NotDone(source.path(), "no transport packets found");
    return source.fault().empty() ? source.doubt() : source.fault();
}

std::string totals_text(const StreamTotals &totals)
{
    const bool f_packed = totals.audio_frames > totals.frames;
    std::string text = counted(f_packed ? totals.audio_frames : totals.frames, "frame");
    if (f_packed) text += " in " + counted(totals.frames, "PES packet");
    text += ", " + counted(totals.bytes, "byte");
    if (totals.timed_frames == 0) return text;
    text += fmt::format(", {} to {}", time_text(totals.first / TICKS_PER_MS),
                        time_text(totals.last / TICKS_PER_MS));
    if (totals.duration() > 0)
        text += fmt::format(" ({:.3f} s), {:.1f} kbit/s",
                            static_cast<double>(totals.duration()) / TICKS_PER_SECOND,
                            totals.bits_per_second() / 1000);
    return text;
}

Json totals_json(const StreamTotals &totals)
{
    Json json = {{"pid", totals.pid},
                 {"kind", is_video(totals.codec) ? "video" : "sound"},
                 {"codec", codec_id(totals.codec)},
                 {"frames", totals.frames},
                 {"bytes", totals.bytes}};
    if (totals.audio_frames > totals.frames) json["audio_frames"] = totals.audio_frames;
    if (totals.timed_frames > 0) {
        json["first_ms"] = json_ms(totals.first);
        json["last_ms"] = json_ms(totals.last);
        json["duration_ms"] = json_ms(totals.duration());
        json["bits_per_second"] = static_cast<uint64_t>(totals.bits_per_second());
    }
    return json;
}

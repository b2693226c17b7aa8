#include "outline.h"

#include <algorithm>

#include "parsers.h"

using namespace outline;

namespace {

using Parser = void (*)(Reader &reader, Outline &result);

constexpr uint32_t EBML_ID = 0x1A45DFA3;

bool is_mp4(Reader &reader);

}  // namespace

const Track *Outline::track(uint32_t number) const
{
    const auto found = std::find_if(tracks.begin(), tracks.end(),
                                    [&](const Track &track) { return track.number == number; });
    return found == tracks.end() ? nullptr : &*found;
}

Outline read_outline(ByteSource &source)
{
    Reader reader(source);
    Outline result;
    result.size = source.size();
    Stretch head(reader, 0, reader.size());
    if (is_mp4(reader)) {
        result.container = Container::MP4;
        read_mp4(reader, result);
    } else if (head.u32() == EBML_ID) {
        result.container = Container::MATROSKA;
        read_matroska(reader, result);
    } else {
        read_transport_stream(reader, result);
        if (result.container == Container::UNKNOWN) read_mpeg_audio(reader, result);
    }
    result.f_partial = reader.has_failed();
    // The headers are there in any case; a sample may be out of reach.
    if (result.container == Container::MP4) read_layers(reader, result);
    return result;
}

std::optional<uint64_t> mean_frame_rate(const Track &track)
{
    const Mp4Details &mp4 = track.mp4;
    constexpr double SECONDS = 1000;
    double rate = 0;
    if (mp4.ticks.value_or(0) != 0)
        rate = SECONDS * static_cast<double>(mp4.samples) * mp4.timescale /
               static_cast<double>(*mp4.ticks);
    else if (track.matroska.default_duration_ns)
        rate = SECONDS * 1e9 / static_cast<double>(*track.matroska.default_duration_ns);
    constexpr double MOST = 1e15;
    if (rate <= 0 || rate > MOST) return {};
    // Rounded without the mathematics library, which would have to be loaded for it.
    return (static_cast<uint64_t>(rate * 2) + 1) / 2;
}

std::optional<AudioConfig> parse_audio_config(const std::vector<uint8_t> &config)
{
    static const uint32_t RATES[13] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                       22050, 16000, 12000, 11025, 8000,  7350};
    constexpr uint32_t ESCAPE_TYPE = 31, ESCAPE_RATE = 15;
    size_t at = 0;  // bits
    const auto take = [&](size_t count) {
        uint32_t value = 0;
        for (; count > 0; --count, ++at) {
            const bool bit = at / 8 < config.size() && (config[at / 8] >> (7 - at % 8) & 1) != 0;
            value = value << 1 | (bit ? 1u : 0u);
        }
        return value;
    };
    AudioConfig out = {};
    out.object_type = take(5);
    if (out.object_type == ESCAPE_TYPE) out.object_type = 32 + take(6);
    const uint32_t rate_index = take(4);
    if (rate_index == ESCAPE_RATE)
        out.sample_rate = take(24);
    else if (rate_index < std::size(RATES))
        out.sample_rate = RATES[rate_index];
    out.channel_config = take(4);
    if (at > config.size() * 8 || out.sample_rate == 0) return {};
    return out;
}

namespace outline {

std::optional<int64_t> ticks_to_ns(uint64_t ticks, uint64_t timescale)
{
    constexpr uint64_t SECOND = 1000000000;
    if (timescale == 0 || ticks / timescale >= INT64_MAX / SECOND) return {};
    const uint64_t rest = ticks % timescale;
    // A time scale has 32 bits, so that this stays below 2^62.
    const uint64_t part = timescale <= UINT32_MAX ? rest * SECOND / timescale : 0;
    return static_cast<int64_t>(ticks / timescale * SECOND + part);
}

}  // namespace outline

namespace {

// Files of QuickTime may begin with another box than "ftyp".
bool is_mp4(Reader &reader)
{
    static const uint32_t FIRST_BOXES[] = {box_type("ftyp"), box_type("moov"), box_type("mdat"),
                                           box_type("wide"), box_type("free"), box_type("skip"),
                                           box_type("styp"), box_type("moof")};
    Stretch head(reader, 0, reader.size());
    const uint64_t size_and_type = head.u64();
    const auto type = static_cast<uint32_t>(size_and_type);
    return !head.is_short() &&
           std::find(std::begin(FIRST_BOXES), std::end(FIRST_BOXES), type) != std::end(FIRST_BOXES);
}

}  // namespace

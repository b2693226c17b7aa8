// The packetiser alone, from frame to sink, against a plain copy of the same frames into pieces of 188 bytes;
// and whole remuxes from memory to a counting sink.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>

#include "bench_host.h"
#include "mp4_builder.h"
#include "rmx_mpeg2ts.h"

namespace {

constexpr size_t PIECE = 188;

// A second of film: 25 pictures of one size and 47 audio frames.
std::vector<Bytes> make_frames(size_t picture_size)
{
    std::vector<Bytes> frames;
    for (uint32_t i = 0; i < 72; ++i)
        frames.push_back(pattern(i % 3 == 0 ? picture_size : 340, i));
    return frames;
}

size_t total_size(const std::vector<Bytes> &frames)
{
    size_t total = 0;
    for (const Bytes &frame : frames)
        total += frame.size();
    return total;
}

void set_bytes(benchmark::State &state, size_t bytes)
{
    state.SetBytesProcessed(static_cast<int64_t>(bytes) * state.iterations());
}

void BM_CopyIntoPieces(benchmark::State &state)
{
    const std::vector<Bytes> frames = make_frames(static_cast<size_t>(state.range(0)));
    CountingSink sink;
    uint8_t piece[PIECE];
    for (auto _ : state) {
        for (const Bytes &frame : frames) {
            for (size_t at = 0; at < frame.size(); at += PIECE) {
                memcpy(piece, frame.data() + at, std::min(PIECE, frame.size() - at));
                CountingSink::write_proc(&sink, piece, PIECE);
            }
        }
    }
    set_bytes(state, total_size(frames));
}
BENCHMARK(BM_CopyIntoPieces)->ArgName("picture")->Arg(4000)->Arg(80000);

void BM_Packetiser(benchmark::State &state)
{
    std::vector<Bytes> frames = make_frames(static_cast<size_t>(state.range(0)));
    CountingSink sink;
    GOLT_streamInfo_t info = {};
    info.videoCodec = GOLT_VCODEC_H264;
    info.audioCodec = GOLT_ACODEC_AAC;
    GOLT_RMX_init(CountingSink::write_proc, &sink, false);
    GOLT_RMX_setStreamInfo(&info);
    const uint64_t allocations = allocation_count();
    for (auto _ : state) {
        uint64_t time_ms = 0;
        for (Bytes &frame : frames) {
            GOLT_frame_t record = {time_ms++, frame.size() == 340 ? GOLT_FT_AUDIO : GOLT_FT_VIDEO,
                                   frame.data(), static_cast<uint32_t>(frame.size())};
            GOLT_RMX_writeFrame(&record);
        }
    }
    state.counters["allocations"] = static_cast<double>(allocation_count() - allocations);
    set_bytes(state, total_size(frames));
}
BENCHMARK(BM_Packetiser)->ArgName("picture")->Arg(4000)->Arg(80000);

Bytes make_mp4(size_t picture_size)
{
    Mp4Track video = Mp4Track::video();
    Mp4Track audio = Mp4Track::audio();
    for (uint32_t i = 0; i < 500; ++i)
        video.sample(nal(pattern(picture_size, i)));
    for (uint32_t i = 0; i < 940; ++i)
        audio.sample(pattern(340, i));
    video.chunks.assign(40, 12);
    audio.chunks.assign(40, 23);
    return Mp4File().add(video).add(audio).build();
}

void BM_Mp4Remux(benchmark::State &state)
{
    bench_remux(state, "mp4", make_mp4(static_cast<size_t>(state.range(0))));
}
BENCHMARK(BM_Mp4Remux)->ArgName("picture")->Arg(4000)->Arg(80000);

void BM_M2tsRemux(benchmark::State &state)
{
    Bytes file;
    for (uint32_t i = 0; i < 50000; ++i)
        file += be32(i) + Bytes{0x47} + pattern(187, i);
    bench_remux(state, "m2ts", file);
}
BENCHMARK(BM_M2tsRemux);

}  // namespace

// MP3: whole remuxes from memory, and seeks to where the tables know the way and to where they have
// to estimate, each with the frame after it.

#include <benchmark/benchmark.h>

#include <random>

#include "bench_host.h"
#include "dmx_mp3.h"
#include "host_double.h"
#include "mp3_builder.h"

namespace {

constexpr int FRAMES = 20000;  // of 26.12 ms: 522 seconds
constexpr uint32_t DURATION_MS = 522000;
constexpr uint32_t KNOWN_MS = 100000;
constexpr size_t KNOWN_FRAMES = 4000;

void BM_Mp3RemuxConstantRate(benchmark::State &state)
{
    bench_remux(state, "mp3", Mp3().frames(FRAMES).file);
}
BENCHMARK(BM_Mp3RemuxConstantRate)->Unit(benchmark::kMillisecond);

void BM_Mp3RemuxVariableRate(benchmark::State &state)
{
    bench_remux(state, "mp3", Mp3().variable_rate(FRAMES, 1).file);
}
BENCHMARK(BM_Mp3RemuxVariableRate)->Unit(benchmark::kMillisecond);

// Seeks at random within a span of time, of which the first part has been read.
void bench_seeks(benchmark::State &state, uint32_t from_ms, uint32_t to_ms)
{
    Source source(Mp3().variable_rate(FRAMES, 1).file);
    GOLT_DMX_MP3Init(Source::read_proc, Source::seek_proc, &source);
    read_frames(GOLT_DMX_MP3ReadFrame, KNOWN_FRAMES);
    std::mt19937 random(1);
    const int reads = source.reads;
    uint64_t frames = 0;
    for (auto _ : state) {
        GOLT_DMX_MP3SeekToTime(from_ms + random() % (to_ms - from_ms));
        GOLT_frame_t frame = {};
        if (GOLT_DMX_MP3ReadFrame(&frame)) ++frames;
        GOLT_freeMem(frame.pb_data);
    }
    GOLT_DMX_MP3Destroy();
    state.SetItemsProcessed(state.iterations());
    const auto seeks = static_cast<double>(state.iterations());
    state.counters["landed"] = static_cast<double>(frames) / seeks;
    state.counters["reads/seek"] = (source.reads - reads) / seeks;
}

void BM_Mp3SeekKnown(benchmark::State &state)
{
    bench_seeks(state, 0, KNOWN_MS);
}
BENCHMARK(BM_Mp3SeekKnown);

void BM_Mp3SeekEstimated(benchmark::State &state)
{
    // Up to a part of the file at which an estimate by the average still hits it.
    bench_seeks(state, KNOWN_MS + 10000, DURATION_MS / 2);
}
BENCHMARK(BM_Mp3SeekEstimated);

}  // namespace

// The host of the benches: a source in memory, a sink that only counts, and a count of the heap's calls.

#ifndef GOLT_BENCH_HOST_H
#define GOLT_BENCH_HOST_H

#include <benchmark/benchmark.h>

#include <cstdint>

#include "host_double.h"

/// As long as it lives, the library's diagnostics go nowhere: the results go to the same output.
class QuietOutput {
public:
    QuietOutput();
    ~QuietOutput();
    QuietOutput(const QuietOutput &) = delete;
    QuietOutput &operator=(const QuietOutput &) = delete;

private:
    int m_kept;
};

/// Calls of malloc, calloc, realloc and operator new so far.
uint64_t allocation_count();

class CountingSink : public PELA::AVMuxer::Listener {
public:
    uint64_t bytes = 0;

    int write(uint8_t *buffer, int size) override
    {
        benchmark::DoNotOptimize(buffer);
        benchmark::ClobberMemory();
        bytes += static_cast<uint64_t>(size);
        return size;
    }

    static uint32_t write_proc(void *sink, uint8_t *buffer, uint32_t size)
    {
        return static_cast<uint32_t>(
            static_cast<CountingSink *>(sink)->write(buffer, static_cast<int>(size)));
    }
};

/// Remuxes file from start to end, once per iteration. Counters: frames, the heap's calls per frame.
void bench_remux(benchmark::State &state, const char *format, const Bytes &file);

#endif

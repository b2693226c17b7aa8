// Sequential reads of one size through the read cache, beside memcpy of the same bytes.
//
// BM_TCache has a host that copies from memory, as a real one does; what the cache adds to that
// shows in BM_TCacheAlone, whose host only says that it has delivered.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>

#include "bytes.h"
#include "tcache.h"

namespace {

constexpr size_t FILE_SIZE = 16u << 20;
constexpr size_t MAX_READ = 65536;

const Bytes &source()
{
    static const Bytes bytes = pattern(FILE_SIZE, 1);
    return bytes;
}

// An endless source, the file over and over, so that neither its end nor a message gets in the way.
class MemoryHost : public PELA::AVDemuxer::Listener {
public:
    explicit MemoryHost(bool f_copy)
        : m_fCopy(f_copy)
    {
    }

    int64_t reads = 0;

    int read(uint8_t *buffer, int size) override
    {
        ++reads;
        const size_t count = std::min(static_cast<size_t>(size), FILE_SIZE - m_at);
        if (m_fCopy) memcpy(buffer, source().data() + m_at, count);
        m_at = (m_at + count) % FILE_SIZE;
        return static_cast<int>(count);
    }

    int64_t seek(int64_t offset, int) override
    {
        m_at = static_cast<size_t>(offset) % FILE_SIZE;
        return 0;
    }

private:
    const bool m_fCopy;
    size_t m_at = 0;
};

void read_through_cache(benchmark::State &state, bool f_copy)
{
    MemoryHost host(f_copy);
    TCache cache(&host, 0);
    const auto size = static_cast<int>(state.range(0));
    uint8_t out[MAX_READ];
    for (auto _ : state) {
        if (cache.read(out, size) != size) state.SkipWithError("a read fell short");
        benchmark::DoNotOptimize(out);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * size);
    state.counters["host_reads"] = static_cast<double>(host.reads);
}

void BM_TCache(benchmark::State &state)
{
    read_through_cache(state, true);
}

void BM_TCacheAlone(benchmark::State &state)
{
    read_through_cache(state, false);
}

void BM_Memcpy(benchmark::State &state)
{
    const auto size = static_cast<size_t>(state.range(0));
    uint8_t out[MAX_READ];
    size_t at = 0;
    for (auto _ : state) {
        if (at + size > FILE_SIZE) at = 0;
        memcpy(out, source().data() + at, size);
        at += size;
        benchmark::DoNotOptimize(out);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

// Bytes in a read: those of the parsers' fields, a transport packet, frames.
#define READ_SIZES Arg(1)->Arg(4)->Arg(8)->Arg(188)->Arg(1024)->Arg(8192)->Arg(65536)

BENCHMARK(BM_TCache)->READ_SIZES;
BENCHMARK(BM_TCacheAlone)->READ_SIZES;
BENCHMARK(BM_Memcpy)->READ_SIZES;

}  // namespace

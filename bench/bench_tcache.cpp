// Sequential reads of one size through the read cache, beside memcpy of the same bytes.
//
// BM_TCache has a host that copies from memory, as a real one does; what the cache adds to that
// shows in BM_TCacheAlone, whose host only says that it has delivered.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>

#include "source.h"
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
class EndlessSource : public Source {
public:
    explicit EndlessSource(bool f_copy)
        : m_fCopy(f_copy)
    {
    }

    int read(uint8_t *buffer, int size) override
    {
        if (position() == this->size()) Source::seek(0, 0);
        return Source::read(buffer, size);
    }

    int64_t size() const override { return FILE_SIZE; }

protected:
    void deliver(uint8_t *buffer, int64_t at, int count) override
    {
        if (m_fCopy) memcpy(buffer, source().data() + at, static_cast<size_t>(count));
    }

private:
    const bool m_fCopy;
};

void read_through_cache(benchmark::State &state, bool f_copy)
{
    EndlessSource host(f_copy);
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

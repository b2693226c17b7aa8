#include "bench_host.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

namespace {

uint64_t heap_calls = 0;

}  // namespace

QuietOutput::QuietOutput()
    : m_kept(dup(STDOUT_FILENO))
{
    fflush(stdout);
    const int nowhere = open("/dev/null", O_WRONLY);
    dup2(nowhere, STDOUT_FILENO);
    close(nowhere);
}

QuietOutput::~QuietOutput()
{
    fflush(stdout);
    dup2(m_kept, STDOUT_FILENO);
    close(m_kept);
}

// The C library's own allocator, counted. operator new comes here too.
extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);

void *malloc(size_t size)
{
    ++heap_calls;
    return __libc_malloc(size);
}

void *calloc(size_t count, size_t size)
{
    ++heap_calls;
    return __libc_calloc(count, size);
}
}

uint64_t allocation_count()
{
    return heap_calls;
}

void bench_remux(benchmark::State &state, const char *format, const Bytes &file)
{
    QuietOutput quiet;
    Driver driver;
    Source source(file);  // once: fresh memory costs more than the library does
    uint64_t frames = 0;
    uint64_t allocations = 0;
    for (auto _ : state) {
        source.seek(0, 0);
        CountingSink sink;
        PELA::IAVDemuxer demux = driver->createDemuxer(format, &source, source.size());
        PELA::IAVMuxer mux = driver->createMuxer(PELA::CONTAINER_TS, demux, &sink, false);
        const uint64_t before = allocation_count();
        for (;;) {
            PELA::IAVFrame frame = driver->createNewFrame();
            const bool ok = demux->readFrame(frame);
            if (ok) mux->writeFrame(frame);
            driver->destroyFrame(frame);
            if (!ok) break;
            ++frames;
        }
        allocations += allocation_count() - before;
        driver->destroyMuxer(mux);
        driver->destroyDemuxer(demux);
    }
    state.SetBytesProcessed(static_cast<int64_t>(file.size()) * state.iterations());
    state.SetItemsProcessed(static_cast<int64_t>(frames));
    state.counters["allocations/frame"] =
        static_cast<double>(allocations) / static_cast<double>(frames);
}

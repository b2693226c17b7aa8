// The library alone on a whole file: from memory to a sink that counts, beside the floor that copying sets.
//
//     golt_bench_file FORMAT FILE [ROUNDS]
//
// prints one line: bytes of the file, frames, and seconds of processor time for a GB of input, of the library
// and of the floor, each the median of ROUNDS that take turns. With ROUNDS below 0 the library runs so many times
// alone, for a profiler.
//
// The floor is what any program does at least that has this library's shape: memcpy of the file into the
// cache's blocks, of its frames from there into a frame's block, and of the frame into pieces of a packet's
// size, each of which the sink gets to see.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>

#include "bench_host.h"

namespace {

constexpr size_t BLOCK_SIZE = 65536;
constexpr size_t BLOCKS = 16;
constexpr size_t PIECE_SIZE = 188;

struct run_t {
    double seconds;                // of processor time
    std::vector<uint32_t> frames;  // sizes, if they were asked for
};

double processor_seconds()
{
    timespec now = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

run_t run_library(Driver &driver, const char *format, Source &source, bool f_sizes)
{
    run_t run = {};
    const double start = processor_seconds();
    source.seek(0, 0);
    CountingSink sink;
    PELA::IAVDemuxer demux = driver->createDemuxer(format, &source, source.size());
    PELA::IAVMuxer mux = driver->createMuxer(PELA::CONTAINER_TS, demux, &sink, false);
    for (bool more = mux != nullptr; more;) {
        PELA::IAVFrame frame = driver->createNewFrame();
        more = demux->readFrame(frame) && mux->writeFrame(frame);
        if (more && f_sizes)
            run.frames.push_back(reinterpret_cast<const GOLT_frame_t *>(frame)->ui4_size);
        driver->destroyFrame(frame);
    }
    driver->destroyMuxer(mux);
    driver->destroyDemuxer(demux);
    run.seconds = processor_seconds() - start;
    return run;
}

// The cache's blocks, filled as far ahead as there are blocks.
class Blocks {
public:
    explicit Blocks(Source &source)
        : m_source(source)
        , m_memory(BLOCKS * BLOCK_SIZE)
    {
    }

    void read(uint8_t *to, size_t size)
    {
        while (size > 0) {
            while (m_filled - m_read <= (BLOCKS - 1) * BLOCK_SIZE && fill() > 0) {
            }
            const size_t at = m_read % m_memory.size();
            const size_t part = std::min(size, BLOCK_SIZE - at % BLOCK_SIZE);
            memcpy(to, m_memory.data() + at, part);
            m_read += part;
            to += part;
            size -= part;
        }
    }

private:
    size_t fill()
    {
        const int count = m_source.read(m_memory.data() + m_filled % m_memory.size(), BLOCK_SIZE);
        m_filled += static_cast<size_t>(count);
        return static_cast<size_t>(count);
    }

    Source &m_source;
    Bytes m_memory;
    size_t m_filled = 0;
    size_t m_read = 0;
};

double run_floor(Source &source, const std::vector<uint32_t> &frames, Bytes &block)
{
    const double start = processor_seconds();
    source.seek(0, 0);
    Blocks blocks(source);
    CountingSink sink;
    uint8_t piece[PIECE_SIZE];
    for (const uint32_t size : frames) {
        blocks.read(block.data(), size);
        size_t at = 0;
        for (; size - at >= PIECE_SIZE; at += PIECE_SIZE) {
            memcpy(piece, block.data() + at, PIECE_SIZE);
            sink.write(piece, PIECE_SIZE);
        }
        memcpy(piece, block.data() + at, size - at);
        sink.write(piece, PIECE_SIZE);
    }
    return processor_seconds() - start;
}

Bytes read_file(const char *path)
{
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    Bytes file(in.good() ? static_cast<size_t>(in.tellg()) : 0);
    in.seekg(0);
    in.read(reinterpret_cast<char *>(file.data()), static_cast<std::streamsize>(file.size()));
    return file;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 3) {
        fprintf(stderr, "usage: golt_bench_file FORMAT FILE [ROUNDS]\n");
        return 2;
    }
    Source source(read_file(argv[2]));
    const int rounds = argc > 3 ? atoi(argv[3]) : 9;
    run_t first = {};
    std::vector<double> library, floor;
    {
        QuietOutput quiet;
        Driver driver;
        for (int round = rounds + 1; round < 0; ++round)
            run_library(driver, argv[1], source, false);
        first = run_library(driver, argv[1], source, rounds > 0);
        Bytes block(rounds > 0 && !first.frames.empty()
                        ? *std::max_element(first.frames.begin(), first.frames.end())
                        : 0);
        for (int round = 0; round < rounds; ++round) {
            library.push_back(run_library(driver, argv[1], source, false).seconds);
            floor.push_back(run_floor(source, first.frames, block));
        }
    }
    if (rounds <= 0) return 0;
    if (first.frames.empty()) {
        fprintf(stderr, "%s: no frames\n", argv[2]);
        return 1;
    }
    const double gb = static_cast<double>(source.size()) / 1e9;
    printf("%lld %zu %.5f %.5f\n", static_cast<long long>(source.size()), first.frames.size(),
           median(library) / gb, median(floor) / gb);
    return 0;
}

// Whole remuxes of Matroska files, from memory to a counting sink: small blocks, of which headers
// and laces are the most of the work, and large ones.

#include <benchmark/benchmark.h>

#include "bench_host.h"
#include "mkv_builder.h"

namespace {

// 40 Clusters of half a second: 12 pictures of one size, with audio in laces of 4 frames of 340
// bytes between them.
Bytes make_mkv(size_t picture_size)
{
    const std::string picture = "(41~" + std::to_string(picture_size) + ") ";
    std::string words = "t1['V_MPEG4/ISO/AVC'] t2['A_AAC']23E383[#21333333] ";
    for (int cluster = 0; cluster < 40; ++cluster) {
        words += "c" + std::to_string(480 * cluster) + " ";
        for (int i = 0; i < 12; ++i) {
            words += "v" + std::to_string(40 * i) + picture;
            if (i % 2 == 0) words += "l06.03.4154BFBF.02~1359 ";
        }
    }
    return MkvFile(words).build();
}

void BM_MkvRemux(benchmark::State &state)
{
    bench_remux(state, "mkv", make_mkv(static_cast<size_t>(state.range(0))));
}
BENCHMARK(BM_MkvRemux)->ArgName("picture")->Arg(400)->Arg(4000)->Arg(80000);

}  // namespace

// Whole remuxes of Matroska files, from memory to a counting sink: small blocks, of which headers
// and laces are the most of the work, and large ones.

#include <benchmark/benchmark.h>

#include "bench_host.h"
#include "mkv_builder.h"

namespace {

// 40 Clusters of half a second: 12 pictures of one size, with sound in laces of 4 frames between.
Bytes make_mkv(size_t picture_size)
{
    MkvFile file;
    file.track(H264_TRACK).track(track_entry(2, 2, "A_AAC", number_element(0x23E383, 21333333)));
    uint32_t seed = 0;
    for (uint32_t i = 0; i < 40; ++i) {
        std::vector<Bytes> blocks;
        for (int picture = 0; picture < 12; ++picture) {
            const Bytes unit = Bytes{0x41} + pattern(picture_size, ++seed);
            blocks.push_back(simple_block(1, 40 * picture, length_unit(unit)));
            if (picture % 2 != 0) continue;
            const std::vector<Bytes> sound(4, pattern(340, ++seed));
            blocks.push_back(element(0xA3, block(2, 40 * picture, sound, Lacing::ebml)));
        }
        file.cluster(480u * i, blocks);
    }
    return file.build();
}

void BM_MkvRemux(benchmark::State &state)
{
    bench_remux(state, "mkv", make_mkv(static_cast<size_t>(state.range(0))));
}
BENCHMARK(BM_MkvRemux)->ArgName("picture")->Arg(400)->Arg(4000)->Arg(80000);

}  // namespace

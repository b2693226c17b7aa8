// What the end-to-end tests need of C++: the checker's verdict on a transport stream, the times in
// it, and a remux without the read cache.

#include <cstdio>
#include <cstdlib>

#include "files.h"
#include "host_double.h"
#include "tcache.h"
#include "ts_collector.h"

namespace {

// Seeks to ten times of a file of a minute, some frames read in between. What a seek lands on is
// found by its bytes in the plain run. Prints how far from the time asked for it lies, in ms.
void seek_around(const char *format, const Bytes &file)
{
    Driver driver;
    Source source(file);
    PELA::IAVDemuxer demux = driver->createDemuxer(format, &source, source.size());
    const auto next = [&](GOLT_frame_t *frame) {
        return demux->readFrame(reinterpret_cast<PELA::IAVFrame>(frame));
    };
    const std::vector<Frame> plain = read_frames(next);
    driver->destroyDemuxer(demux);
    source.seek(0, 0);  // where a new demuxer expects it
    demux = driver->createDemuxer(format, &source, source.size());
    for (const uint32_t time_ms :
         {0u, 30000u, 2000u, 58000u, 57000u, 500u, 45000u, 44900u, 12345u, 33333u}) {
        read_frames(next, 40);
        const bool ok = demux->seekToTime(time_ms);
        const std::vector<Frame> landed = read_frames(next, 1);
        for (const Frame &frame : plain) {
            if (ok && !landed.empty() && frame.data == landed[0].data)
                printf("landed %d\n", static_cast<int>(frame.time_ms - time_ms));
        }
    }
    driver->destroyDemuxer(demux);
}

}  // namespace

int main(int argc, char **argv)
{
    const std::string verb = argc > 3 ? argv[1] : "";
    if (verb == "uncached" || verb == "cached") {  // FORMAT IN: what comes of it, to VERB.ts
        g_TCacheEnabled = verb == "cached";
        write_file(verb + ".ts", remux_file(argv[2], read_file(argv[3])));
        return 0;
    }
    if (verb == "seeks") seek_around(argv[2], read_file(argv[3]));  // FORMAT FILE
    if (verb != "times") return verb == "seeks" ? 0 : 2;
    // PID FILE: the time in ms of each PES packet of that PID
    const TsReport report = check_ts(read_file(argv[3]));
    for (const std::string &problem : report.problems)
        fprintf(stderr, "%s\n", problem.c_str());
    for (const TsPes &pes : report.pes) {
        if (pes.pid == strtoul(argv[2], nullptr, 0))
            printf("%.3f\n", static_cast<double>(pes.pts.value_or(0)) / 90);
    }
    return report.problems.empty() ? 0 : 1;
}

// What the end-to-end tests need of C++: the checker's verdict on a transport stream, the times in
// it, a remux without the read cache, and all that a host sees of files, for comparing builds.

#include <cstdio>
#include <cstdlib>

#include <unistd.h>

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

uint32_t sum_of(const uint8_t *bytes, size_t size)
{
    uint32_t sum = 2166136261u;
    for (size_t i = 0; i < size; ++i)
        sum = (sum ^ bytes[i]) * 16777619u;
    return sum;
}

// Reads and remuxes at most so many frames, and prints what each is and what came of it.
void tell_frames(Driver &driver, PELA::IAVDemuxer demux, PELA::IAVMuxer mux, Sink &sink, int most)
{
    for (bool more = true; more && most > 0; --most) {
        PELA::IAVFrame frame = driver->createNewFrame();
        more = demux->readFrame(frame);
        const auto &t_frame = *reinterpret_cast<const GOLT_frame_t *>(frame);
        sink.stream.clear();
        if (more) {
            printf("frame %llu %u %u %08x", static_cast<unsigned long long>(t_frame.ui8_timestamp),
                   t_frame.ui4_frametype, t_frame.ui4_size,
                   sum_of(t_frame.pb_data, t_frame.ui4_size));
            if (mux != nullptr && !mux->writeFrame(frame)) printf(" not written");
            printf(" stream %zu %08x\n", sink.stream.size(),
                   sum_of(sink.stream.data(), sink.stream.size()));
        }
        driver->destroyFrame(frame);
    }
}

// Everything that a host sees of a file, among the library's own messages: frames, packets, seeks.
void tell(const std::string &path)
{
    constexpr int FRAMES_MOST = 3000, FRAMES_AFTER_SEEK = 20;
    const std::string format = path.substr(path.rfind('.') + 1);
    const Bytes file = read_file(path);
    Driver driver;
    Source source(file);
    Sink sink;
    printf("%s\n", path.c_str());
    PELA::IAVDemuxer demux = driver->createDemuxer(format.c_str(), &source, source.size());
    PELA::IAVMuxer mux = driver->createMuxer(PELA::CONTAINER_TS, demux, &sink, false);
    if (demux != nullptr) {
        tell_frames(driver, demux, mux, sink, FRAMES_MOST);
        for (const uint32_t time_ms : {0u, 200u, 5000u, 100u}) {
            const bool ok = demux->seekToTime(time_ms);
            printf("seek %s\n", ok ? "done" : "refused");
            tell_frames(driver, demux, mux, sink, FRAMES_AFTER_SEEK);
        }
    }
    driver->destroyMuxer(mux);
    driver->destroyDemuxer(demux);
}

}  // namespace

// At the end of a file the cache sleeps for more of it: here no more will come.
extern "C" int usleep(useconds_t)
{
    return 0;
}

int main(int argc, char **argv)
{
    const std::string verb = argc > 2 ? argv[1] : "";
    for (int i = 2; verb == "tell" && i < argc; ++i)  // FILE...
        tell(argv[i]);
    if (verb == "tell") return 0;
    if (argc < 4) return 2;
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

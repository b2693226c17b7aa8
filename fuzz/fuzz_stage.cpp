// The stage after the muxer, given frames of any kind and packets that nobody would write: what comes out is a valid
// stream all the same, and memory stays bounded.

#include <optional>

#include "finished_stream.h"
#include "golt_stage.h"
#include "numbers.h"
#include "rmx_mpeg2ts.h"
#include "target.h"
#include "written.h"

namespace {

constexpr size_t PACKET_SIZE = 188;
constexpr size_t STEPS_MOST = 2000;
constexpr size_t BYTES_MOST = 4 * 1024 * 1024;
// 2 MiB that are held back, the buffer of 130 KB, and what the stage keeps besides.
constexpr size_t HEAP_MOST = 2560 * 1024;

struct Output {
    Bytes stream;
    size_t bytes = 0;
    bool f_fails = false;
    std::optional<golt::Stage> stage;

    static bool write_proc(void *output, const uint8_t *packets, size_t size)
    {
        const LibraryCall host(false);
        auto &self = *static_cast<Output *>(output);
        require(size > 0, "no empty writes");
        require_written(packets, size);
        self.stream.insert(self.stream.end(), packets, packets + size);
        self.bytes += size;
        return !self.f_fails;
    }
    static uint32_t rmx_proc(void *stage, uint8_t *packet, uint32_t size)
    {
        static_cast<golt::Stage *>(stage)->write(packet, size);
        return size;
    }
};

// A frame of a few kinds that the stage looks into, at a time that goes on from the one before, or anywhere.
void write_frame(Numbers &numbers, uint32_t kind, uint64_t &time_ms)
{
    static const Bytes fronts[] = {
        hex("0000000167 4D001FE900A00B761080 0000000168CE3880 0000000165"),
        hex("0000000141"),
        hex("0000000906 0000000165"),
        hex("0000010605 0101 80 00000165"),
        hex("FFFB9000"),
        hex("0B77000014 40"),
        hex("0B77001F0480"),
        hex("000001B3 000001B5 14000001 00000100")};
    if ((kind & 0x40) != 0) time_ms = numbers.take(4);
    time_ms += numbers.take(1) - 40;
    Bytes bytes = fronts[kind >> 3 & 7] + numbers.take_bytes(numbers.take(1));
    if ((kind & 4) != 0)
        bytes.resize(bytes.size() + static_cast<size_t>(numbers.take(3) % 100000), 0x55);
    GOLT_frame_t t_frame = {time_ms & 0xFFFFFFFFFF, (kind & 2) != 0 ? GOLT_FT_AUDIO : GOLT_FT_VIDEO,
                            bytes.data(), static_cast<uint32_t>(bytes.size())};
    const CallWatch watch;
    GOLT_RMX_writeFrame(&t_frame);
}

// Any bytes, mostly as many as a packet has.
void write_packet(Numbers &numbers, uint32_t kind, golt::Stage &stage)
{
    const Bytes packet = numbers.take_bytes((kind & 0x80) != 0 ? numbers.take(1) : PACKET_SIZE);
    const CallWatch watch;
    stage.write(packet.data(), packet.size());
    if (kind == 0x7F) stage.flush();
    if (kind == 0x7D) stage.finish();
}

golt::StageHints hints_from(Numbers &numbers, Bytes &video, Bytes &audio)
{
    golt::StageHints hints;
    const auto kind = static_cast<uint32_t>(numbers.take(1));
    hints.mode = static_cast<golt::StageMode>(kind % 3);
    hints.audio_durations = static_cast<golt::Durations>(kind / 3 % 4);
    hints.video.offset = static_cast<int16_t>(numbers.take(2)) * int64_t{90};
    hints.audio.offset = static_cast<int16_t>(numbers.take(2)) * int64_t{90};
    video = numbers.take_bytes(numbers.take(1));
    audio = numbers.take_bytes(numbers.take(1) % 16);
    hints.video.config = video.data();
    hints.video.config_size = video.size();
    hints.audio.config = audio.data();
    hints.audio.config_size = audio.size();
    return hints;
}

void judge(const FinishedStream &finished)
{
    require(finished.faults.empty(),
            finished.faults.empty() ? "" : finished.faults.front().c_str());
    require(finished.pats.size() == finished.pmts.size(), "a PMT for each PAT");
    for (size_t i = 1; i < finished.clock.size(); ++i) {
        const FinishedClock &now = finished.clock[i], &before = finished.clock[i - 1];
        const int64_t step = (now.pcr - before.pcr) & ((int64_t{1} << 33) - 1);
        require(now.f_jumps || now.pid != before.pid || (step > 0 && step <= 40 * 90),
                "the clock goes on");
    }
    for (const FinishedUnit &unit : finished.units) {
        require(unit.length == (unit.size > 65535 ? 0 : unit.size),
                "the length is kept to, or left open");
        require(unit.pid == 0x100 || unit.length != 0, "only of video it is left open");
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *pb_data, size_t size)
{
    begin_input();
    Numbers numbers = {pb_data, size};
    Bytes video, audio;
    const golt::StageHints hints = hints_from(numbers, video, audio);
    GOLT_streamInfo_t t_info = {};
    static const GOLT_codecs_t audio_codecs[] = {GOLT_ACODEC_AAC, GOLT_ACODEC_MP3, GOLT_ACODEC_AC3,
                                                 GOLT_ACODEC_EAC3, GOLT_CODEC_UNKNOWN};
    static const GOLT_codecs_t video_codecs[] = {GOLT_VCODEC_H264, GOLT_VCODEC_MPEG2,
                                                 GOLT_CODEC_UNKNOWN};
    const auto codecs = static_cast<uint32_t>(numbers.take(1));
    t_info.audioCodec = audio_codecs[codecs % 5];
    t_info.videoCodec = video_codecs[codecs / 5 % 3];
    t_info.aud_sampleRate = 44100;
    t_info.aud_numChannels = 2;
    Output output;
    output.f_fails = codecs == 255;
    const auto granted = static_cast<int>(numbers.take(1));
    if (granted < 8) g_heap.granted = granted;
    {
        const CallWatch watch;
        output.stage.emplace(&Output::write_proc, &output, hints);
    }
    GOLT_RMX_init(&Output::rmx_proc, &*output.stage, false);
    GOLT_RMX_setStreamInfo(&t_info);
    uint64_t time_ms = 1000;
    for (size_t i = 0; i < STEPS_MOST && numbers.left > 0 && output.bytes < BYTES_MOST; ++i) {
        const auto kind = static_cast<uint32_t>(numbers.take(1));
        if ((kind & 1) == 0)
            write_frame(numbers, kind, time_ms);
        else
            write_packet(numbers, kind, *output.stage);
    }
    {
        const CallWatch watch;
        output.stage->finish();
        const bool f_counted = output.stage->counts().bytes_out == output.bytes;
        require(!output.stage->is_valid() || output.f_fails || f_counted, "bytes are counted");
        output.stage.reset();
    }
    require(g_heap.held == 0, "everything is given back");
    require(g_heap.most < HEAP_MOST, "memory is bounded");
    // Without the library's PAT first, packets may have passed as they are.
    if (hints.mode == golt::StageMode::REMUX && !output.f_fails)
        judge(FinishedStream(output.stream));
    return 0;
}

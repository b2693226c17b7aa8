// The muxer, given any frames: what goes in has to come out of the transport stream again.

#include <algorithm>
#include <cstring>
#include <memory>

#include "numbers.h"
#include "rmx_mpeg2ts.h"
#include "target.h"
#include "ts_collector.h"
#include "written.h"

namespace {

constexpr uint32_t PACKET_SIZE = 188;
constexpr size_t FRAMES_MOST = 60;
constexpr size_t BYTES_MOST = 128 * 1024;
constexpr uint64_t TIMES = uint64_t{1} << 33;  // of 90 kHz, until PTS and PCR start again
constexpr size_t ADTS_SIZE = 7;

struct Output {
    Bytes stream;
    uint32_t expected = PACKET_SIZE;

    static uint32_t write_proc(void *output, uint8_t *pb_data, uint32_t ui4_size)
    {
        auto &self = *static_cast<Output *>(output);
        require(ui4_size == self.expected, "whole packets, or a frame as it is");
        require_written(pb_data, ui4_size);
        if (ui4_size == PACKET_SIZE)
            self.stream.insert(self.stream.end(), pb_data, pb_data + ui4_size);
        return static_cast<uint32_t>(self.stream.size());
    }
};

struct Written {
    uint64_t time_ms;
    bool f_video;
    Bytes data;
};

GOLT_streamInfo_t info_from(Numbers &numbers)
{
    static const GOLT_codecs_t codecs[] = {
        GOLT_CODEC_UNKNOWN, GOLT_CODEC_NONE,   GOLT_ACODEC_MP3,   GOLT_ACODEC_AAC,
        GOLT_ACODEC_AC3,    GOLT_ACODEC_EAC3,  GOLT_VCODEC_MPEG2, GOLT_VCODEC_H264,
        GOLT_ACODEC_max,    GOLT_VCODEC_start, GOLT_ACODEC_start, GOLT_VCODEC_max,
        GOLT_CODEC_M2TS,    GOLT_CODEC_max,    GOLT_VCODEC_H264,  GOLT_VCODEC_MPEG2};
    static const uint32_t rates[] = {48000, 44100, 7350, 0, 8000, 96000, UINT32_MAX, 11025};
    GOLT_streamInfo_t t_info = {};
    t_info.audioCodec = codecs[numbers.take(1) % 16];
    t_info.videoCodec = codecs[numbers.take(1) % 16];
    t_info.aud_sampleRate = rates[numbers.take(1) % 8];
    t_info.aud_numChannels = numbers.take32();
    return t_info;
}

// Large frames are seldom, as they take the time of many.
uint32_t size_from(Numbers &numbers, uint32_t kind)
{
    constexpr uint32_t MEDIUM = 2048, LARGE = 0x1FF00;
    const bool f_large = kind >> 6 == 3;
    switch (kind >> 3 & 3) {
    case 2: return static_cast<uint32_t>(numbers.take(2)) % (f_large ? UINT16_MAX + 1u : MEDIUM);
    case 3: return static_cast<uint32_t>(numbers.take(1)) + (f_large ? LARGE : 0);
    default: return static_cast<uint32_t>(numbers.take(1));
    }
}

// Bytes that differ from place to place and from frame to frame, and come again after 256.
void fill(uint8_t *block, uint32_t size, uint32_t kind)
{
    constexpr uint32_t PERIOD = 256;
    for (uint32_t i = 0; i < std::min(size, PERIOD); ++i)
        block[i] = static_cast<uint8_t>(kind + i * (size | 1));
    for (uint32_t done = PERIOD; done < size; done *= 2)
        memcpy(block + done, block, std::min(done, size - done));
}

// The frame that the next numbers describe, in a block of its exact size.
GOLT_frame_t frame_from(Numbers &numbers, std::unique_ptr<uint8_t[]> &block)
{
    const auto kind = static_cast<uint32_t>(numbers.take(1));
    GOLT_frame_t t_frame = {};
    t_frame.ui4_frametype = (kind & 3) < GOLT_FT_MAX ? kind & 3 : numbers.take32();
    t_frame.ui8_timestamp = numbers.take((kind >> 2 & 1) != 0 ? 8 : 3);
    const uint32_t ui4_size = size_from(numbers, kind);
    block.reset(new uint8_t[ui4_size]);
    fill(block.get(), ui4_size, kind);
    t_frame.pb_data = block.get();
    // The muxer takes the size as a signed number.
    const bool f_negative = (kind & 0x20) != 0 && t_frame.ui4_frametype != GOLT_FT_MPEG2TS;
    t_frame.ui4_size = f_negative ? ui4_size | 0x80000000 : ui4_size;
    return t_frame;
}

bool is_known_video(const GOLT_streamInfo_t &t_info)
{
    return t_info.videoCodec == GOLT_VCODEC_H264 || t_info.videoCodec == GOLT_VCODEC_MPEG2;
}

void compare(const TsReport &report, const std::vector<Written> &written, bool f_adts)
{
    require(report.pes.size() == written.size(), "a PES packet for each frame");
    for (size_t i = 0; i < written.size(); ++i) {
        const TsPes &pes = report.pes[i];
        const Written &frame = written[i];
        const uint64_t ticks = frame.time_ms * 90 % TIMES;
        require(pes.pid == (frame.f_video ? 0x100 : 0x101), "the PID of its kind");
        require(pes.pts == ticks && pes.pcr == ticks * 300, "the frame's time");
        const size_t head = f_adts && !frame.f_video ? ADTS_SIZE : 0;
        require(pes.payload.size() == head + frame.data.size() &&
                    std::equal(frame.data.begin(), frame.data.end(),
                               pes.payload.begin() + static_cast<std::ptrdiff_t>(head)),
                "the frame's bytes");
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *pb_data, size_t size)
{
    begin_input();
    Numbers numbers = {pb_data, size};
    GOLT_streamInfo_t t_info = info_from(numbers);
    Output output;
    GOLT_RMX_init(Output::write_proc, &output, true);
    GOLT_RMX_setStreamInfo(&t_info);

    std::vector<Written> written;
    bool f_announced = true;
    size_t bytes = 0;
    for (size_t i = 0; i < FRAMES_MOST && numbers.left > 0 && bytes < BYTES_MOST; ++i) {
        std::unique_ptr<uint8_t[]> block;
        GOLT_frame_t t_frame = frame_from(numbers, block);
        const bool f_packets = t_frame.ui4_frametype == GOLT_FT_MPEG2TS;
        const size_t before = output.stream.size();
        output.expected = f_packets ? t_frame.ui4_size : PACKET_SIZE;
        const bool f_ok = [&] {
            const CallWatch watch;
            return GOLT_RMX_writeFrame(&t_frame);
        }();
        require(f_ok == (t_frame.ui4_frametype < GOLT_FT_MAX), "known kinds are written");
        if (f_packets) output.stream.resize(before);
        const auto size_taken = static_cast<int32_t>(t_frame.ui4_size);
        if (!f_ok || f_packets || size_taken <= 0) {
            require(output.stream.size() == before, "nothing is written");
            continue;
        }
        bytes += t_frame.ui4_size;
        const bool f_video = t_frame.ui4_frametype == GOLT_FT_VIDEO;
        f_announced = f_announced && (!f_video || is_known_video(t_info));
        written.push_back({t_frame.ui8_timestamp, f_video,
                           Bytes(t_frame.pb_data, t_frame.pb_data + t_frame.ui4_size)});
    }
    GOLT_RMX_destroy();
    if (!f_announced || written.empty()) return 0;
    const TsReport report = check_ts(output.stream);
    require(report.problems.empty(),
            report.problems.empty() ? "" : report.problems.front().c_str());
    compare(report, written, t_info.audioCodec == GOLT_ACODEC_AAC);
    return 0;
}

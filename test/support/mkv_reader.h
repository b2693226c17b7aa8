// The Matroska demuxer over a file in memory, driven by short scripts.

#ifndef TEST_SUPPORT_MKV_READER_H
#define TEST_SUPPORT_MKV_READER_H

#include <gtest/gtest.h>

#include "dmx_mkv.h"
#include "host_double.h"
#include "mkv_builder.h"

// "|41=0102|65*9": bytes, a run of them, a start code.
inline std::string spell_out(const Bytes &data)
{
    const std::string all(data.begin(), data.end()), start_code("\0\0\0\1", 4);
    std::string out;
    for (size_t i = 0, used = 0; i < all.size(); i += used) {
        const bool f_start = all.compare(i, 4, start_code) == 0;
        const size_t run = std::min(all.find_first_not_of(all[i], i), all.size()) - i;
        char text[8];
        snprintf(text, sizeof text, "%02X", data[i]);
        out += f_start ? "|" : text;
        if (run > 2 && !f_start) out += '*' + std::to_string(run);
        used = f_start ? 4 : run > 2 ? run : 1;
    }
    return out[0] == '|' ? out : '=' + out;
}

struct MkvDemuxer {
    Source source;

    explicit MkvDemuxer(const Bytes &file)
        : source(file)
    {
        source.seek(1, 0);  // the file is read from its start all the same
        EXPECT_TRUE(GOLT_DMX_MKVInit(Source::read_proc, Source::seek_proc, &source));
    }
    ~MkvDemuxer() { EXPECT_TRUE(GOLT_DMX_MKVDestroy()); }

    // "@500 2": a seek and two frames; "@ v500|65 a512=01": that it was true, and what came.
    // "i": codecs (GOLT_codecs_t), channels, hertz and milliseconds that the stream info has, and the size of
    // the video.
    std::string run(const std::string &steps)
    {
        std::ostringstream out;
        std::istringstream words(steps);
        for (std::string word; words >> word;) {
            GOLT_streamInfo_t info = {};
            info.vid_framesPerKiloSeconds = 9;
            if (word == "i" && GOLT_DMX_MKVGetStreamInfo(&info)) {
                out << ' ' << info.audioCodec << ' ' << info.videoCodec << ' '
                    << info.aud_numChannels << ' ' << info.aud_sampleRate << ' ' << info.duration;
                if (info.vid_width != 0) out << ' ' << info.vid_width << 'x' << info.vid_height;
                EXPECT_TRUE(info.vid_framesPerKiloSeconds == 0 &&
                            info.vid_arInfo == GOLT_AR_ENCODED &&
                            info.vid_dimensionality == GOLT_DIM_2D);
            } else if (word[0] == '@')
                out << (GOLT_DMX_MKVSeekToTime(std::stoull(word.substr(1))) ? " @" : " !");
            else
                for (const Frame &frame : read_frames(GOLT_DMX_MKVReadFrame, std::stoul(word)))
                    out << (frame.type == GOLT_FT_VIDEO ? " v" : " a") << frame.time_ms
                        << spell_out(frame.data);
        }
        return out.str().empty() ? "" : out.str().substr(1);
    }
};

struct MkvCase {
    const char *name;
    std::string file, trace;
    const char *steps = "9999";
};

inline void expect_traces(const std::vector<MkvCase> &cases)
{
    for (const MkvCase &row : cases) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(MkvDemuxer(MkvFile(row.file).build()).run(row.steps), row.trace);
    }
}

#endif

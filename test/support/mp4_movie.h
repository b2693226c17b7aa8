// A film of one or two short tracks, what a case changes in it, and the demuxer over it.

#ifndef GOLT_TEST_MP4_MOVIE_H
#define GOLT_TEST_MP4_MOVIE_H

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <sstream>

#include "dmx_mp4.h"
#include "heap.h"
#include "host_double.h"
#include "mp4_builder.h"

const Bytes START = hex("00000001");

// A file of three video samples and two audio samples, with what a case changes in the video track.
class Movie {
public:
    // Of the tracks; "a": the audio, "t": a text track, "h" and "l": HEVC and ALAC
    std::string order = "v";
    Mp4Track v = track_of(Mp4Track::video(), 3);
    Mp4Track a = track_of(Mp4Track::audio(), 2);
    Mp4File file;

    // "order=va": the tracks; "mdia=hdlr,mdhd": the children of a box; "stco=1,48": a table box, of
    // the count of its entries and their fields; "stco:0000..": the bytes of a whole box;
    // "audio:..": those of the sample entry of the audio; "short=trak": a box that is four bytes
    // longer than it says.
    Movie &change(const std::string &changes)
    {
        std::istringstream words(changes);
        for (std::string word; words >> word;) {
            const size_t end = word.find_first_of("=:");
            const std::string name = word.substr(0, end), value = word.substr(end + 1);
            std::vector<std::string> parts;
            std::vector<uint32_t> numbers;
            std::istringstream list(value);
            for (std::string part; std::getline(list, part, ',');) {
                parts.push_back(part);
                numbers.push_back(static_cast<uint32_t>(strtoul(part.c_str(), nullptr, 0)));
            }
            if (name == "order")
                order = value;
            else if (name == "short")
                shortened = value;
            else if (name == "file")
                file.order = parts;
            else if (word[end] == ':')
                (name == "audio" ? a.put["entry"] : v.put[name]) = hex(value);
            else if (isdigit(value[0]) == 0)
                v.order[name] = parts;
            else
                v.put[name] = table_box(name, numbers[0], {numbers.begin() + 1, numbers.end()});
        }
        return *this;
    }

    Bytes build() const
    {
        Mp4File whole = file;
        for (const char kind : order) {
            Mp4Track track = kind == 'a' || kind == 'l' ? a : v;
            if (kind == 't') track.handler = "text";
            if (kind == 'h') track.entry_type = "hvc1";
            if (kind == 'l') track.entry_type = "alac";
            whole.add(track);
        }
        Bytes built = whole.build();
        const Bytes type = text(shortened);
        const auto at = std::find_end(built.begin(), built.end(), type.begin(), type.end());
        if (!shortened.empty()) *(at - 1) = static_cast<uint8_t>(*(at - 1) - 4);
        return built;
    }

private:
    std::string shortened;

    static Mp4Track track_of(Mp4Track track, uint8_t samples)
    {
        for (uint8_t i = 0; i < samples; ++i)
            track.sample(track.handler == "vide" ? nal({0x41, i}) : Bytes{0xAA, i});
        return track;
    }
};

inline std::string printed_by(const std::function<void()> &call)
{
    testing::internal::CaptureStdout();
    call();
    return testing::internal::GetCapturedStdout();
}

struct Demuxer {
    Source source;
    bool valid = false;
    std::string printed;  // while it opened
    GOLT_streamInfo_t info = {};

    explicit Demuxer(const Bytes &file)
        : source(file)
    {
        GOLT_DMX_MP4Destroy();
        g_heap.held = 0;
        printed = printed_by([this] {
            const LibraryCall watch;
            valid = GOLT_DMX_MP4Init(Source::read_proc, Source::seek_proc, &source);
        });
        info.videoCodec = info.audioCodec = GOLT_CODEC_M2TS;
        EXPECT_TRUE(GOLT_DMX_MP4GetStreamInfo(&info));
    }
    ~Demuxer()
    {
        const LibraryCall watch;
        EXPECT_TRUE(GOLT_DMX_MP4Destroy());
        EXPECT_EQ(g_heap.held, 0u);
    }

    static std::vector<Frame> frames() { return read_frames(GOLT_DMX_MP4ReadFrame); }
    // "v0 a21": kind and time of each frame that is left.
    static std::string times()
    {
        std::string out;
        for (const Frame &frame : frames())
            out += (frame.type == GOLT_FT_VIDEO ? " v" : " a") + std::to_string(frame.time_ms);
        return out.substr(out.empty() ? 0 : 1);
    }
    static std::string seek(uint64_t time_ms)
    {
        return printed_by([=] { EXPECT_TRUE(GOLT_DMX_MP4SeekToTime(time_ms)); });
    }
};

#endif

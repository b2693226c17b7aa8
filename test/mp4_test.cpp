#include "dmx_mp4.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>
#include <sstream>

#include "heap.h"
#include "host_double.h"
#include "mp4_builder.h"

namespace {

using ::testing::ElementsAre;

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

std::string printed_by(const std::function<void()> &call)
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
        printed = printed_by(
            [this] { valid = GOLT_DMX_MP4Init(Source::read_proc, Source::seek_proc, &source); });
        EXPECT_TRUE(GOLT_DMX_MP4GetStreamInfo(&info));
    }
    ~Demuxer() { EXPECT_TRUE(GOLT_DMX_MP4Destroy()); }

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

struct Case {
    const char *name, *changes, *expected;
};

// A file that goes on with zeros, up to 4 GiB or as far as it is said to.
struct SparseSource {
    Bytes file;
    uint64_t size = uint64_t{1} << 32;
    uint64_t at = 0;
    int seeks = 0;
    std::vector<uint32_t> reads;

    static uint32_t read_proc(void *handle, uint8_t *buffer, uint32_t size)
    {
        auto &source = *static_cast<SparseSource *>(handle);
        source.reads.push_back(size);
        const uint64_t left = source.size - std::min(source.at, source.size);
        const auto count = static_cast<uint32_t>(std::min<uint64_t>(size, left));
        const auto held = static_cast<uint32_t>(std::min<uint64_t>(
            count, source.file.size() - std::min<uint64_t>(source.at, source.file.size())));
        if (held != 0) memcpy(buffer, source.file.data() + source.at, held);
        memset(buffer + held, 0, count - held);
        source.at += count;
        return count;
    }

    static int32_t seek_proc(void *handle, int64_t offset)
    {
        auto &source = *static_cast<SparseSource *>(handle);
        source.at = static_cast<uint64_t>(offset);
        ++source.seeks;
        return 0;
    }
};

// "moov" decides whether a file is taken, its tables which frames come: those that all tables agree
// upon, and nothing from outside of a table.
TEST(Mp4, DeliversWhatTheTablesAgreeUpon)
{
    const Case cases[] = {
        {"both tracks", "order=va", "v0 a0 a21 v40 v80"},
        {"audio first in the file", "order=av", "a0 v0 a21 v40 v80"},
        {"movie last", "file=ftyp,mdat,moov", "v0 v40 v80"},
        {"no media data", "file=ftyp,moov", ""},
        {"text ends the walk", "order=vta", "v0 v40 v80"},
        {"text first", "order=tva", ""},
        {"two of a kind", "order=vvat", "v0 a0 a21 v40 v80"},
        {"a second one of another codec", "order=vh ctts=2,1,80,2,0", "v80 v40 v80"},
        {"a second audio track of another codec", "order=alv", "a0 a21"},
        {"clock after the kind", "mdia=hdlr,mdhd,minf", ""},
        {"tables ahead of the kind", "mdia=mdhd,minf,hdlr", ""},
        {"a second mdia without its kind",
         "trak=tkhd,mdia,more more:000000186D646961000000106D696E66000000087374626C", "v0 v40 v80"},
        {"no time scale", "mdhd=0,0,0,0,0,0", ""},
        {"an ID of 0 is no track", "order=va tkhd=0,0,0,0", "a0 a21"},

        {"two runs of durations", "stts=2,2,1000,1,2", "v0 v1000 v2000"},
        {"reordered", "ctts=2,1,80,2,0", "v80 v40 v80"},
        {"negative offsets", "ctts=2,1,80,2,0xFFFFFFD8", "v80 v0 v40"},
        {"no durations", "stts:", "v0 v40 v80"},
        {"runs beyond the samples", "stts=2,2,10,-1,20 ctts=1,-1,1", "v1 v11 v21"},
        {"32 bits of ticks", "stts=2,1,-5,2,5", "v0 v4294967291 v0"},

        {"more samples than sizes", "stsc=1,1,-1,1", "v0 v40 v80"},
        {"more chunks than offsets", "stsc=2,1,2,1,9,1,1", "v0 v40"},
        {"chunk 0", "stsc=1,0,3,1", ""},
        {"a run of no chunks", "stsc=2,1,7,1,1,3,1", "v0 v40 v80"},
        {"chunks that fall", "stsc=3,1,2,1,5,1,1,1,3,1", "v0 v40 v80"},
        {"no samples in a chunk", "stsc=1,1,0,1", ""},
        {"no samples in chunk 0", "stsc=2,0,0,1,1,3,1", "v0 v40 v80"},
        {"count beyond the file", "stco=9,48", ""},
        {"a size too many", "stsz=0,4,6,6,6", "v0 v40 v80"},
        {"a sync sample too many", "order=va stss=2,1", "v0 a0 a21 v40 v80"},
        {"a short trak", "short=trak", "v0 v40 v80"},
        {"a short entry", "short=avc1", "v0 v40 v80"},
        {"no more than 16 that overhang", "order=vvvvvvvvvvvvvvvva stss=2,1", "v0 a0 a21 v40 v80"},
        {"the one after them", "order=vvvvvvvvvvvvvvvvva stss=2,1", "v0 v40 v80"},
        {"samples past 4 GiB", "stsz=0,3,6,-9,6", "v0"},
        {"sync samples beyond the file", "stss=99,1", ""},
        {"sync samples past 4 GiB", "stss=0x40000001,1", ""},
        {"size of 7", "dinf:0000000764696E66", ""},
        {"size of 0", "dinf:0000000064696E66", ""},
        {"box past 4 GiB", "dinf:FFFFFFF864696E66", ""},

        // Each of these would take gigabytes if it were believed.
        {"a table", "stsz:800000007374737A000000000000000010000000", ""},
        {"samples of one size", "stsz=6,3 stsc=1,1,-9,1", "v0 v40 v80"},
        {"two such tracks", "order=vv stsz=6,3 stsc=1,1,600000,1", "v0 v40 v80"},
        {"two that take all", "order=vv stsz=6,3 stsc=1,1,-9,1", ""},
        {"a sample", "stsz=0x7FFFFFFF,3", ""},
        {"parameter sets", "avcC:7FFFFFF061766343000000000000000000000000", ""},
    };
    for (const Case &row : cases) {
        SCOPED_TRACE(row.name);
        Demuxer demuxer(Movie().change(row.changes).build());
        EXPECT_TRUE(demuxer.valid);
        EXPECT_EQ(demuxer.times(), row.expected);
    }
}

// Two runs of chunks between those of another track. The sizes go on after the last sample.
TEST(Mp4, FindsTheSamplesOfEachChunk)
{
    Movie movie;
    movie.order = "va";
    movie.v.samples.clear();
    for (uint32_t i = 0; i < 13; ++i)
        movie.v.sample(nal(pattern(1 + i * 5 % 7, i)));
    movie.v.chunks = {3, 3, 3, 2, 2};
    movie.v.put["stsc"] = table_box("stsc", 2, {1, 3, 1, 4, 2, 1});
    std::vector<size_t> sizes = {15};
    for (const Bytes &sample : movie.v.samples)
        sizes.push_back(sample.size());
    sizes.insert(sizes.end(), {1, 1});
    movie.v.put["stsz"] = table_box("stsz", 0, sizes);
    movie.a.samples = {{1, 2}, {3, 4}, {5, 6}};
    movie.a.chunks = {1, 1, 1};
    Demuxer demuxer(movie.build());
    EXPECT_EQ(demuxer.info.vid_framesPerKiloSeconds, 25000u);
    std::vector<Bytes> got;
    for (const Frame &frame : demuxer.frames()) {
        if (frame.type == GOLT_FT_VIDEO) got.push_back(frame.data);
    }
    ASSERT_EQ(got.size(), 13u);
    for (uint32_t i = 1; i < got.size(); ++i)
        EXPECT_EQ(got[i], START + pattern(1 + i * 5 % 7, i)) << i;
}

// The mean interval and the rate go by all samples, also where not all are laid out.
TEST(Mp4, CountsTheSamplesThatAreLeftOut)
{
    Movie movie;
    movie.v.duration = 3000000 * 40;
    movie.v.chunks = {1, 2};
    movie.change("stsz=6,3 stsc=3,1,1000000,1,2,7,1,2,2000000,1 stts=2,1,40,2999999,40");
    Demuxer demuxer(movie.build());
    EXPECT_EQ(demuxer.info.vid_framesPerKiloSeconds, 25000u);
    EXPECT_EQ(demuxer.seek(80), "GOLT/mp4: seek: v(2), a(0)\n");
    EXPECT_EQ(demuxer.times(), "v80");
}

TEST(Mp4, DeliversAudioFirstFromTheSamePlace)
{
    Movie movie;
    movie.order = "va";
    movie.v.put["stco"] = movie.a.put["stco"] = table_box("stco", 1, {48});
    EXPECT_EQ(Demuxer(movie.build()).times(), "a0 v0 a21 v40 v80");
}

TEST(Mp4, SaysWhatIsMissing)
{
    const std::string stbl = "GOLT/mp4: _dmx_mp4_parse_stbl: ";
    const struct {
        const char *name, *changes;
        std::string expected;
    } cases[] = {
        {"nothing", "stss=1,1 ctts=1,3,0", ""},
        {"no box", "file=", "GOLT/mp4: Header read error\n"},
        {"no file type", "file=moov", "GOLT/mp4: 'ftyp' box not found\n"},
        {"no movie", "file=ftyp,mdat", "GOLT/mp4: _dmx_mp4_parse: expected 0x1 boxes, got 0x0\n"},
        {"text", "order=t",
         "GOLT/mp4: _dmx_mp4_parse_mdia: expected 0x7 boxes, got 0x1\n"
         "GOLT/mp4: _dmx_mp4_parse_track: expected 0x3 boxes, got 0x1\n"},
        {"64-bit chunk offsets", "stco:", stbl + "expected 0xf boxes, got 0xb\n"},
        {"compact sizes", "stsz:", stbl + "expected 0xf boxes, got 0xd\n"},
        {"no optional table", "stts:",
         stbl + "Sync Sample Box 'stss' not found\n" + stbl + "Sync Sample Box 'stts' not found\n" +
             stbl + "Sync Sample Box 'ctts' not found\n"},
        {"other codec", "entry:0000000868766331",
         "GOLT/mp4: Unsupported Video Codec format 'hvc1'\n" + stbl +
             "expected 0xf boxes, got 0x0\n"},
        {"other audio", "order=a audio:000000084F707573",
         "GOLT/mp4: _dmx_mp4_parse_stsd: Audio format: 'Opus' unsupported\n"},
        {"no parameter sets", "avcC:", "GOLT/mp4: 'avcC' box not found\n"},
        {"parameter sets after their entry", "entry=none stbl=stsd,stts,avcC,stsc,stsz,stco",
         "GOLT/mp4: 'avcC' box not found\n"},
        {"short parameter sets", "avcC:000000096176634301",
         "GOLT/mp4: Couldn't alloc -4 bytes for 'avcC' header\n"},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.name);
        const std::string printed = Demuxer(Movie().change(row.changes).build()).printed;
        EXPECT_EQ(printed.substr(0, row.expected.size()), row.expected);
        EXPECT_EQ(printed.empty(), row.expected.empty());
    }
}

// What a cut through a field prints: each walker that misses a box says so, the one with the field
// doesn't.
TEST(Mp4, SaysNothingOfAFieldThatIsCut)
{
    const std::string prefix = "GOLT/mp4: _dmx_mp4_parse_";
    const std::string track = prefix + "track: expected 0x3 boxes, got 0x1\n";
    const std::string media = prefix + "mdia: expected 0x7 boxes, got 0x3\n" + track;
    const std::string tables = prefix + "stbl: expected 0xf boxes, got 0x0\n" + media;
    const struct {
        const char *order, *type;
        std::ptrdiff_t field;  // from the type of its box on
        std::string printed;
    } rows[] = {
        {"v", "tkhd", 16, ""},     {"v", "mdhd", 16, track},  {"v", "mdhd", 20, track},
        {"v", "hdlr", 12, track},  {"v", "stsz", 8, media},   {"v", "stsz", 12, media},
        {"v", "stsz", 16, media},  {"v", "avc1", -4, tables}, {"v", "avc1", 28, tables},
        {"v", "avc1", 30, tables}, {"v", "avc1", 32, tables}, {"v", "avc1", 36, tables},
        {"v", "avcC", 9, tables},  {"a", "mp4a", 20, tables}, {"a", "mp4a", 28, tables},
        {"a", "esds", 8, tables},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.type + std::to_string(row.field));
        Movie movie;
        movie.order = row.order;
        Bytes file = movie.build();
        const Bytes type = text(row.type);
        const auto at = std::find_end(file.begin(), file.end(), type.begin(), type.end());
        file.erase(at + row.field + 1, file.end());
        EXPECT_EQ(Demuxer(file).printed, row.printed);
    }
}

TEST(Mp4, ReadsNoFurtherThanItNeedsAndEndsWhereTheFileIsCut)
{
    Movie movie;
    movie.order = "va";
    const Bytes whole = movie.build();
    Demuxer first(whole);
    EXPECT_EQ(first.source.position(), first.source.size() - (3 * 6 + 2 * 2)) << "header of mdat";
    const std::string plain = first.times();
    for (size_t size = 0; size < whole.size(); ++size) {
        Bytes cut = whole;
        cut.resize(size);
        Demuxer demuxer(cut);
        EXPECT_EQ(demuxer.valid, size >= 24 + 8) << "ftyp and the header of moov";
        const std::string got = demuxer.times();
        EXPECT_EQ(got, plain.substr(0, got.size())) << size;
    }
    EXPECT_EQ(Demuxer(movie.change("file=ftyp,mdat,moov").build()).source.position(), 8 + 16 + 4)
        << "back to mdat";
}

TEST(Mp4, ReportsTheAudioFormat)
{
    const struct {
        const char *format, *entry;
        uint8_t object_type;
        const char *dsi;
        GOLT_codecs_t codec;
        uint32_t rate;
    } rows[] = {
        {"AAC", "mp4a", 0x40, "1210", GOLT_ACODEC_AAC, 44100},
        {"AAC", "mp4a", 0x40, "1010", GOLT_ACODEC_AAC, 96000},
        {"AAC", "mp4a", 0x40, "1690", GOLT_ACODEC_AAC, 0},            // reserved index
        {"AAC", "mp4a", 0x40, "1780BB8000", GOLT_ACODEC_AAC, 96000},  // rate in full
        {"AAC", "mp4a", 0x40, "F90C", GOLT_ACODEC_AAC, 24000},        // escaped type
        {"AAC", "mp4a", 0x40, "F91E017700", GOLT_ACODEC_AAC, 48000},  // escaped type, rate in full
        {"AAC", "mp4a", 0x40, "", GOLT_ACODEC_AAC, 32000},            // the sample entry's
        {"MP3", "mp4a", 0x6B, "", GOLT_ACODEC_MP3, 32000},
        {"", "mp4a", 0xDD, "", GOLT_CODEC_UNKNOWN, 32000},
        {"AC3", "ac-3", 0, "", GOLT_ACODEC_AC3, 32000},
        {"EAC3", "ec-3", 0, "", GOLT_ACODEC_EAC3, 32000},
    };
    const std::string prefix = "GOLT/mp4: _dmx_mp4_parse_stsd: Audio format: ";
    for (const auto &row : rows) {
        for (const bool is_long : {false, true}) {
            Movie movie;
            movie.order = "a";
            movie.a.entry_type = row.entry;
            movie.a.object_type = row.object_type;
            movie.a.dsi = hex(row.dsi);
            movie.a.long_lengths = is_long;
            movie.a.rate = 32000;
            Demuxer demuxer(movie.build());
            SCOPED_TRACE(row.dsi + demuxer.printed);
            EXPECT_EQ(demuxer.info.audioCodec, row.codec);
            EXPECT_EQ(demuxer.info.aud_sampleRate, row.rate);
            EXPECT_EQ(demuxer.info.aud_numChannels, 2u);
            const size_t told = demuxer.printed.find(prefix + row.format + "\n");
            EXPECT_EQ(told, *row.format != '\0' ? 0 : std::string::npos);
        }
    }
}

TEST(Mp4, ReportsTheVideoFormat)
{
    const struct {
        uint32_t x, y, numerator, denominator, duration, rate;
    } rows[] = {
        {0x480000, 0x480000, 1, 1, 1000, 3000},
        {0x480000, 0x240000, 2, 1, 2900, 1500},
        {0, 0, 1, 1, 120, 25000},
        {0, 0x480000, 0, 1, 0, 0},
        {0x80000000, 0xFFFFFFFF, 0, 1, 1, 3000000},
    };
    for (const auto &row : rows) {
        Movie movie;
        movie.v.resolution_x = row.x;
        movie.v.resolution_y = row.y;
        movie.v.duration = row.duration;
        const GOLT_streamInfo_t info = Demuxer(movie.build()).info;
        EXPECT_THAT(
            (std::vector<uint32_t>{info.vid_pixelAspectNumerator, info.vid_pixelAspectDenominator,
                                   info.duration, info.vid_framesPerKiloSeconds, info.vid_width,
                                   info.vid_height}),
            ElementsAre(row.numerator, row.denominator, row.duration, row.rate, 320, 240));
    }
}

TEST(Mp4, PutsParameterSetsBeforeTheFirstFrameOnly)
{
    Movie movie;
    movie.v.samples = {nal({0x65, 1}) + nal({0x65, 2, 3}), nal({0x41})};
    movie.v.sps = {pattern(20, 3), pattern(5, 4)};
    movie.v.pps = {pattern(4, 5)};
    const Bytes header = START + movie.v.sps[0] + START + movie.v.sps[1] + START + movie.v.pps[0];
    Demuxer demuxer(movie.build());
    EXPECT_EQ(demuxer.seek(40), "GOLT/mp4: seek: v(1), a(0)\n");
    EXPECT_EQ(demuxer.frames()[0].data, header + hex("00000001 41"));
    EXPECT_EQ(demuxer.seek(0), "GOLT/mp4: seek: v(0), a(0)\n");
    EXPECT_EQ(demuxer.frames()[0].data, hex("00000001 6501 00000001 650203"));
}

TEST(Mp4, RewritesWrongLengthsInsideTheirBlock)
{
    const struct {
        const char *sample, *expected;
    } rows[] = {
        {"00000063 6501", "00000001 6501"},
        {"FFFFFFFF 6501", "00000001 6501"},
        {"00000002 6501 0000", "00000001 6501 0000"},
        {"00000000 00000000", "00000001 00000001"},
        {"00000003 6501", "00000001 6501"},
        {"00000002 6501 00000001 41 FFFFFF", "00000001 6501 00000001 41 FFFFFF"},
        {"", ""},
    };
    Movie movie;
    // The second set runs over its block: it is left out, and so is all after it.
    movie.v.put["avcC"] = box("avcC", hex("0142001EFF E2 0002 6742 0009 6743 01 0001 68"));
    for (const auto &row : rows) {
        movie.v.samples = {hex(row.sample)};
        EXPECT_EQ(Demuxer(movie.build()).frames()[0].data, START + hex("6742") + hex(row.expected));
    }
}

TEST(Mp4, SeeksToTheNextSyncSample)
{
    Movie movie;
    movie.order = "va";
    movie.v.samples.resize(750);
    movie.v.stss = {1, 251, 501};
    movie.a.samples.resize(1500);
    movie.a.time_scale = 1000;
    movie.a.delta = 20;
    Demuxer demuxer(movie.build());
    const struct {
        uint64_t time_ms;
        const char *printed;
    } rows[] = {
        {0, "v(0), a(0)"},          {40, "v(250), a(500)"},      {12000, "v(500), a(1000)"},
        {24000, "v(600), a(1200)"}, {90000, "v(2250), a(4500)"}, {UINT64_MAX, "v(-1), a(-1)"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(demuxer.seek(row.time_ms), std::string("GOLT/mp4: seek: ") + row.printed + "\n");
    EXPECT_TRUE(demuxer.frames().empty());
    demuxer.seek(24000);
    EXPECT_TRUE(GOLT_DMX_MP4SeekToBytes(0));
    EXPECT_EQ(demuxer.frames().size(), 150u + 300u) << "a seek brings an ended stream back";
}

// A large sample takes one seek, and memory as its bytes come.
TEST(Mp4, ReadsLargeSamples)
{
    constexpr uint32_t MIB = 1 << 20;
    const std::vector<uint32_t> in_steps = {MIB, MIB, 2 * MIB, 4 * MIB, 8 * MIB, MIB + 4};
    const struct {
        const char *name;
        uint32_t size, there;
        bool f_ok;
        std::vector<uint32_t> reads;
        size_t most;
    } rows[] = {
        {"in one read", 16 * MIB, 16 * MIB, true, {16 * MIB}, 16 * MIB},
        {"in steps", 17 * MIB + 4, 17 * MIB + 4, true, in_steps, 33 * MIB + 4},
        {"one byte short", 3 * MIB, 3 * MIB - 1, false, {3 * MIB}, 3 * MIB},
        {"soon at the end", 64 * MIB, MIB + 9, false, {MIB, MIB}, 3 * MIB},
        {"at once at the end", 64 * MIB, 0, false, {MIB}, MIB},
        {"too large", 64 * MIB + 1, 64 * MIB + 1, false, {}, 0},
    };
    Movie movie;
    movie.order = "a";
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        movie.a.put["stsz"] = table_box("stsz", row.size, {1});
        SparseSource source;
        source.file = movie.build();
        const uint64_t start = source.file.size() - 4;
        ASSERT_TRUE(GOLT_DMX_MP4Init(SparseSource::read_proc, SparseSource::seek_proc, &source));
        source.size = start + row.there;
        source.reads.clear();
        source.seeks = 0;
        g_heap = {};
        GOLT_frame_t frame = {};
        {
            const LibraryCall call;
            EXPECT_EQ(GOLT_DMX_MP4ReadFrame(&frame), row.f_ok);
        }
        EXPECT_EQ(source.reads, row.reads);
        EXPECT_EQ(source.seeks, row.reads.empty() ? 0 : 1);
        EXPECT_GE(g_heap.most, row.most);
        EXPECT_LE(g_heap.most, row.most + 65536);
        EXPECT_EQ(frame.pb_data != nullptr, !row.reads.empty());
        EXPECT_EQ(frame.ui4_size == row.size, row.f_ok || row.size <= 16 * MIB);
        GOLT_freeMem(frame.pb_data);
        GOLT_DMX_MP4Destroy();
    }
}

TEST(Mp4, ReachesTheLastByteBelow4GiB)
{
    Movie movie;
    movie.order = "a";
    SparseSource source;
    for (const uint32_t offset : {0xFFFFFFFC, 0xFFFFFFFD}) {
        movie.a.put["stco"] = table_box("stco", 1, {offset});
        source.file = movie.build();
        ASSERT_TRUE(GOLT_DMX_MP4Init(SparseSource::read_proc, SparseSource::seek_proc, &source));
        EXPECT_EQ(Demuxer::times(), offset == 0xFFFFFFFC ? "a0 a21" : "a0");
        GOLT_DMX_MP4Destroy();
    }
}

// A host that delivers little at a time and can't seek. After the cache a seek succeeds all the same,
// and what is read is what merely comes next.
struct StreamSource : Source {
    using Source::Source;
    int read(uint8_t *buffer, int size) override
    {
        return Source::read(buffer, std::min(size, 64));
    }
    int64_t seek(int64_t, int) override { return -1; }
};

TEST(Mp4, TakesNoClaimsOfAHostThatRefusesSeeks)
{
    for (const char *claims : {"stsz=0x10000000,3", "stsz=1,3 stsc=1,1,-9,1 stts=2,1,1,-1,1",
                               "stss=0x20000000,1", "avcC:3000000061766343"}) {
        SCOPED_TRACE(claims);
        Movie movie;
        movie.v.samples = {pattern(100000, 1)};
        StreamSource source(movie.change(claims).build());
        Driver driver;
        g_heap = {};
        {
            const LibraryCall call;
            PELA::IAVDemuxer demux = driver->createDemuxer("mp4", &source, source.size());
            PELA::IAVFrame frame = driver->createNewFrame();
            demux->readFrame(frame);
            driver->destroyFrame(frame);
            driver->destroyDemuxer(demux);
        }
        EXPECT_LT(g_heap.most, 20u << 20);
    }
}

// Of a second track whose description can't be used only those tables count that come before it.
TEST(Mp4, KeepsTheTablesOfAnEarlierTrack)
{
    const struct {
        std::vector<std::string> second;
        const char *seek;
    } rows[] = {
        {{"stsd", "stss"}, "v(50), a(0)"},
        {{"stss", "stsd"}, "v(75), a(0)"},
    };
    for (const auto &row : rows) {
        Mp4Track first = Mp4Track::video(), second = Mp4Track::video();
        first.samples.resize(100);
        first.stss = {1, 51};
        second.entry_type = "hvc1";
        second.stss = {1, 76};
        second.order["stbl"] = row.second;
        Demuxer demuxer(Mp4File().add(first).add(second).build());
        EXPECT_EQ(demuxer.info.videoCodec, GOLT_VCODEC_H264);
        EXPECT_EQ(demuxer.seek(400), std::string("GOLT/mp4: seek: ") + row.seek + "\n");
        EXPECT_EQ(demuxer.frames()[0].time_ms, row.second[0] == "stsd" ? 2000u : 3000u);
    }
}

TEST(Mp4, KeepsTheValueOfAFieldThatIsCut)
{
    Mp4Track first = Mp4Track::video(), second = Mp4Track::video();
    second.resolution_x = 0x12345678;
    Mp4File file;
    file.order = {"ftyp", "mdat", "moov"};
    Bytes cut = file.add(first).add(second).build();
    std::set<uint32_t> seen;
    for (; !cut.empty(); cut.pop_back())
        seen.insert(Demuxer(cut).info.vid_pixelAspectNumerator);
    EXPECT_THAT(seen, ElementsAre(0, 1, 0x12345678 / 72, 0x480000, 0x12345678));
}

// A frame that couldn't be read has its size all the same; what hasn't come of it is cleared.
TEST(Mp4, ClearsWhatHasNotCome)
{
    GOLT_memInit();
    Movie movie;
    movie.v.samples = {nal(Bytes(96, 0x65))};
    Demuxer demuxer(movie.build());
    for (const bool f_seeks : {true, false}) {
        uint8_t *pb_used = GOLT_allocMem(1024);
        memset(pb_used, 0xEE, 1024);
        GOLT_freeMem(pb_used);
        demuxer.source.fail_from = demuxer.source.size() - 90;
        demuxer.source.refuse_seeks = !f_seeks;
        GOLT_frame_t frame = {};
        EXPECT_FALSE(GOLT_DMX_MP4ReadFrame(&frame));
        EXPECT_EQ(Bytes(frame.pb_data, frame.pb_data + frame.ui4_size),
                  f_seeks ? START + movie.v.sps[0] + START + movie.v.pps[0] +
                                hex("00000060 656565656565") + Bytes(90)
                          : Bytes(100));
        GOLT_freeMem(frame.pb_data);
    }
    GOLT_memClose();
}

TEST(Mp4, TriesAFrameAgainThatCouldNotBeRead)
{
    Demuxer demuxer(Movie().build());
    demuxer.source.fail_from = demuxer.source.size() - 6;
    EXPECT_EQ(demuxer.times(), "v0 v40");
    demuxer.source.fail_from = -1;
    demuxer.source.refuse_seeks = true;
    EXPECT_EQ(demuxer.times(), "");
    demuxer.source.refuse_seeks = false;
    EXPECT_EQ(demuxer.times(), "v80");
}

}  // namespace

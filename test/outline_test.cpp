// The outline of a file: what is in it, by the headers alone.

#include <gtest/gtest.h>

#include "memory_source.h"
#include "mkv_builder.h"
#include "mp3_builder.h"
#include "mp4_builder.h"
#include "selection.h"

namespace {

Mp4Track video_of(size_t samples)
{
    Mp4Track track = Mp4Track::video();
    for (uint8_t i = 0; i < samples; ++i)
        track.sample(Bytes(10u + i));
    return track;
}

/// A track with a box of its own among its children.
Mp4Track with(Mp4Track track, const std::string &parent, const std::string &name, const Bytes &box)
{
    track.order[parent].push_back(name);
    track.put[name] = box;
    return track;
}

TEST(Mp4Outline, KnowsTracksAndWhereTheirMediaEnd)
{
    Mp4Track video = video_of(5), audio = Mp4Track::audio();
    video.chunks = {2, 1};
    video.stss = {1, 3};
    for (int i = 0; i < 3; ++i)
        audio.sample(Bytes(7));
    audio.put["stsz"] = table_box("stsz", 7, {3});
    const Bytes file = Mp4File().add(video).add(audio).build();
    const Outline outline = outline_of(file);

    EXPECT_EQ(outline.container, Container::MP4);
    EXPECT_TRUE(outline.mp4.f_ftyp && outline.mp4.f_moov_first && !outline.mp4.f_fragmented);
    EXPECT_EQ(outline.mp4.mdat_end, file.size());
    EXPECT_EQ(outline.chapters, 0u);
    ASSERT_EQ(outline.tracks.size(), 2u);
    const Track &first = outline.tracks[0], &second = outline.tracks[1];
    EXPECT_EQ(first.kind, TrackKind::VIDEO);
    EXPECT_EQ(first.codec, "avc1");
    EXPECT_EQ(first.width, 320u);
    EXPECT_EQ(first.config.size(), 17u);
    EXPECT_EQ(first.mp4.samples, 5u);
    EXPECT_EQ(first.mp4.bytes, 10u + 11 + 12 + 13 + 14);
    EXPECT_EQ(first.mp4.end, file.size());  // its third chunk lies last
    EXPECT_EQ(first.mp4.sync_samples, 2u);
    EXPECT_EQ(first.duration_ns, 200000000);
    EXPECT_EQ(second.kind, TrackKind::AUDIO);
    EXPECT_EQ(second.mp4.object_type, 0x40);
    EXPECT_EQ(second.config, (std::vector<uint8_t>{0x11, 0x90}));
    EXPECT_EQ(second.sample_rate, 48000u);
    EXPECT_EQ(second.channels, 2u);
    EXPECT_EQ(second.mp4.bytes, 21u);
    EXPECT_EQ(second.mp4.end, file.size() - 12 - 13 - 14);
    EXPECT_EQ(second.duration_ns, 64000000);
}

TEST(Mp4Outline, ReadsTheFieldsOfBothVersions)
{
    const Bytes matrix = be32(0) + be32(0x10000) + be32(0) + be32(0xFFFF0000) + Bytes(20);
    const Bytes short_edits = hex("00000000 00000002 00000064 FFFFFFFF 00010000 "
                                  "000003E8 00000050 00010000");
    const Bytes long_edits = hex("01000000 00000001 0000000100000000 0000000200000000 00020000");
    Mp4Track turned = with(video_of(1), "trak", "edts", box("edts", box("elst", short_edits)));
    turned.put["tkhd"] = box("tkhd", be32(3) + Bytes(8) + be32(9) + Bytes(24) + matrix);
    turned.put["mdhd"] = box("mdhd", Bytes(12) + be32(600) + be32(6000) + hex("15C7 0000"));
    Mp4Track plain = with(video_of(1), "trak", "edts", box("edts", box("elst", long_edits)));
    plain.put["tkhd"] = box("tkhd", hex("01000000") + Bytes(16) + be32(7) + Bytes(72));
    plain.put["mdhd"] =
        box("mdhd", hex("01000000") + Bytes(16) + be32(1000) + be(uint64_t{1} << 33, 8) + Bytes(4));
    plain.put["stts"] = Bytes();

    const Outline outline = outline_of(Mp4File().add(turned).add(plain).build());
    const Track *track = outline.track(9);
    ASSERT_NE(track, nullptr);
    EXPECT_TRUE(track->f_enabled);
    EXPECT_EQ(track->mp4.rotation, 90);
    EXPECT_EQ(track->language, "eng");
    EXPECT_EQ(track->mp4.timescale, 600u);
    ASSERT_EQ(track->mp4.edits.size(), 2u);
    EXPECT_EQ(track->mp4.edits[0].media_time, -1);
    EXPECT_EQ(track->mp4.edits[0].duration, 100u);
    EXPECT_EQ(track->mp4.edits[1].media_time, 80);
    track = outline.track(7);
    ASSERT_NE(track, nullptr);
    EXPECT_FALSE(track->f_enabled);
    EXPECT_EQ(track->mp4.rotation, 0);
    EXPECT_EQ(track->mp4.duration, uint64_t{1} << 33);
    EXPECT_EQ(track->duration_ns, (int64_t{1} << 33) * 1000000);
    ASSERT_EQ(track->mp4.edits.size(), 1u);
    EXPECT_EQ(track->mp4.edits[0].media_time, int64_t{1} << 33);
    EXPECT_EQ(track->mp4.edits[0].rate, 0x20000);
}

TEST(Mp4Outline, SeesWhatTheLibraryCannotTake)
{
    const auto outline_with = [](Mp4Track track) {
        return outline_of(Mp4File().add(track).build());
    };

    Mp4Track far = video_of(2);
    far.put["stco"] = box("co64", be32(0) + be32(1) + be(uint64_t{1} << 40, 8));
    Outline outline = outline_with(far);
    EXPECT_TRUE(outline.tracks.at(0).mp4.f_64_bit_offsets);
    EXPECT_EQ(outline.tracks[0].mp4.end, (uint64_t{1} << 40) + 21);

    Mp4Track compact = video_of(3);
    compact.put["stsz"] = box("stz2", be32(0) + be32(4) + be32(3) + hex("1230"));
    outline = outline_with(compact);
    EXPECT_TRUE(outline.tracks.at(0).mp4.f_compact_sizes);
    EXPECT_EQ(outline.tracks[0].mp4.bytes, 6u);

    // A list of chapters, and a track of them.
    Mp4Track titles = video_of(4);
    titles.handler = "text";
    titles.put["tkhd"] = box("tkhd", Bytes(12) + be32(7) + Bytes(68));
    const Mp4Track named = with(video_of(1), "trak", "tref", box("tref", box("chap", be32(7))));
    outline = outline_of(Mp4File().add(named).add(titles).build());
    EXPECT_EQ(outline.chapters, 4u);
    EXPECT_TRUE(outline.tracks.at(1).f_chapters);
    EXPECT_EQ(outline.tracks[1].kind, TrackKind::SUBTITLES);

    const Bytes ftyp = box("ftyp", text("isom"));
    const Bytes large_mdat = be32(1) + text("mdat") + be(20, 8) + Bytes(4);
    outline = outline_of(ftyp + large_mdat);
    EXPECT_TRUE(outline.mp4.f_64_bit_mdat);
    EXPECT_FALSE(outline.mp4.f_moov);
    outline = outline_of(ftyp + box("moov", box("mvex", {})) + box("moof", {}));
    EXPECT_TRUE(outline.mp4.f_fragmented);
    outline = outline_of(ftyp + be32(1000) + text("mdat") + Bytes(50));
    EXPECT_EQ(outline.mp4.mdat_end, ftyp.size() + 1000);
}

// The tables of a file whose chunks don't lie in the order of its samples.
TEST(Mp4Outline, FindsTheLastSampleWhereverItLies)
{
    Mp4Track track = video_of(6);
    track.put["stsc"] = table_box("stsc", 2, {1, 2, 1, 3, 1, 1});
    track.put["stco"] = table_box("stco", 4, {9000, 100, 9500, 200});
    const Outline outline = outline_of(Mp4File().add(track).build());
    EXPECT_EQ(outline.tracks.at(0).mp4.end, 9500u + 14);  // the fifth sample alone
}

TEST(MatroskaOutline, KnowsTracksAndWhatTheSeekHeadLeadsTo)
{
    const Bytes file =
        MkvFile("h0 . =1549A966[2AD7B1[07A120]4489[44FA0000]4D80['mux']] "
                "t1['V_MPEG4/ISO/AVC']73C5[11]23E383[02625A00]E0[B0[0140]BA[F0]]63A2[0102] "
                "t2['A_AAC']73C5[12]22B59C['ger']E1[B5[473B8000]9F[06]]63A2[1190] "
                "t3['A_AC3']6D80[6240[5034[4254[03]4255[0B77]]]]B9[00] "
                "t4['A_DTS']6D80[6240[5034[4254[00]]]]22B59D['de-CH'] "
                ". =1043A770[45B9[B6[]B6[]]] "
                "=1254C367[7373[63C0[63C5[12]]67C8[45A3['DURATION']4487['00:01:02.500000000']]]] "
                "C0 v0(65) C2000 v0(65) k")
            .build();
    const Outline outline = outline_of(file);
    EXPECT_EQ(outline.container, Container::MATROSKA);
    EXPECT_EQ(outline.matroska.timestamp_scale, 500000u);
    EXPECT_EQ(outline.matroska.muxing_app, "mux");
    EXPECT_EQ(outline.matroska.segment_end, file.size());
    EXPECT_EQ(outline.duration_ns, 1000000000);  // 2000 ticks
    EXPECT_TRUE(outline.matroska.f_cues && outline.matroska.f_cues_announced);
    ASSERT_EQ(outline.matroska.cues.size(), 2u);
    EXPECT_EQ(outline.matroska.cues[1].time, 2000u);
    EXPECT_GT(outline.matroska.last_cue_cluster, outline.matroska.first_cluster);
    EXPECT_EQ(outline.chapters, 2u);
    ASSERT_EQ(outline.tracks.size(), 4u);
    EXPECT_EQ(outline.tracks[0].codec, "V_MPEG4/ISO/AVC");
    EXPECT_EQ(outline.tracks[0].width, 320u);
    EXPECT_EQ(outline.tracks[0].matroska.default_duration_ns, 40000000u);
    EXPECT_EQ(outline.tracks[0].language, "eng");
    EXPECT_EQ(outline.tracks[1].sample_rate, 48000u);
    EXPECT_EQ(outline.tracks[1].channels, 6u);
    EXPECT_EQ(outline.tracks[1].duration_ns, 62500000000);
    EXPECT_EQ(outline.tracks[1].language, "ger");
    EXPECT_EQ(outline.tracks[1].config, (std::vector<uint8_t>{0x11, 0x90}));
    EXPECT_EQ(outline.tracks[2].matroska.stripped, (std::vector<uint8_t>{0x0B, 0x77}));
    EXPECT_FALSE(outline.tracks[2].f_enabled);
    EXPECT_TRUE(outline.tracks[3].matroska.f_compression);
    EXPECT_EQ(outline.tracks[3].language, "de-CH");
}

TEST(MpegAudioOutline, KnowsTagsAndWhatTheFirstFrameTells)
{
    const Bytes id3 = hex("49443304000000000104") + Bytes(132);
    const Bytes ape =
        Bytes(32) + text("APETAGEX") + hex("D0070000 20000000 00000000 00000080") + Bytes(8);
    const Bytes id3v1 = text("TAG") + Bytes(125);
    const auto xing = [](const char *name, size_t at, size_t size, uint32_t header) {
        Bytes frame = be32(header) + Bytes(at) + text(name) + be32(3) + be32(40) + be32(9999);
        frame.resize(size);
        return frame;
    };
    const Bytes frames = Mp3().frames(9).file;
    // MPEG-2 Layer III of 64 kbit/s at 22050 Hz, one channel.
    const Bytes slow = Mp3().frames(9, 0xFFF380C0, 208).file;
    const Bytes vbri =
        be32(0xFFFB9000) + Bytes(32) + text("VBRI") + Bytes(6) + be32(9999) + be32(40) + Bytes(363);
    using Header = MpegAudioOutline::Header;
    const struct {
        const char *name;
        Bytes file;
        Header header;
        uint64_t first, end, frames;
        int64_t duration_ms;
        bool f_estimate;
    } rows[] = {
        {"bare", frames, Header::NONE, 0, 9 * 417, 0, 234, true},
        {"all tags", id3 + xing("Info", 32, 417, 0xFFFB9000) + frames + ape + id3v1, Header::INFO,
         142, 142 + 10 * 417, 40, 1044, false},
        {"MPEG-2 mono", xing("Xing", 9, 208, 0xFFF380C0) + slow, Header::XING, 0, 10 * 208, 40,
         1044, false},
        {"VBRI", vbri + frames, Header::VBRI, 0, 10 * 417, 40, 1044, false},
        {"two tags and padding", id3 + id3 + Bytes(99) + frames, Header::NONE, 2 * 142 + 99,
         2 * 142 + 99 + 9 * 417, 0, 234, true},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const Outline outline = outline_of(row.file);
        const MpegAudioOutline &audio = outline.mpeg_audio;
        EXPECT_EQ(outline.container, Container::MPEG_AUDIO);
        EXPECT_EQ(audio.header, row.header);
        EXPECT_EQ(audio.first_frame, row.first);
        EXPECT_EQ(audio.end, row.end);
        EXPECT_EQ(audio.frames.value_or(0), row.frames);
        EXPECT_EQ(outline.duration_ns.value_or(0) / 1000000, row.duration_ms);
        EXPECT_EQ(audio.f_estimate, row.f_estimate);
    }
    EXPECT_EQ(outline_of(slow).tracks.at(0).sample_rate, 22050u);
}

TEST(Outline, TellsTransportStreamsApart)
{
    const auto stream = [](size_t front, size_t behind) {
        Bytes file;
        for (int i = 0; i < 6; ++i)
            file += Bytes(front, 0x11) + Bytes{0x47} + Bytes(187 + behind, 0x22);
        return file;
    };
    const struct {
        const char *name;
        Bytes file;
        uint32_t size;
        uint64_t first;
    } rows[] = {
        {"188", stream(0, 0), 188, 0},     {"192", stream(4, 0), 192, 0},
        {"204", stream(0, 16), 204, 0},    {"in the middle", Bytes(100) + stream(0, 0), 188, 100},
        {"none", Bytes(3000, 0x11), 0, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const Outline outline = outline_of(row.file);
        EXPECT_EQ(outline.container == Container::TRANSPORT_STREAM, row.size != 0);
        EXPECT_EQ(outline.transport.packet_size, row.size);
        EXPECT_EQ(outline.transport.first_packet, row.first);
    }
}

// Wherever a file ends, with its size known or not, it is read to there and no further.
TEST(Outline, HoldsOutOnCutFiles)
{
    const Bytes files[] = {
        Mp4File().add(video_of(3)).add(Mp4Track::audio().sample(Bytes(3))).build(),
        MkvFile("h0 d473B8000 t1['V_VP8']E0[B0[10]] C0 v0(65) k").build(),
        hex("49443304000000000004") + Bytes(4) + Mp3().frames(3).file,
    };
    for (const Bytes &file : files) {
        for (size_t size = 0; size <= file.size(); ++size) {
            for (const bool f_knows_size : {true, false}) {
                Memory memory(Bytes(file.begin(), file.begin() + static_cast<std::ptrdiff_t>(size)),
                              f_knows_size);
                const Outline outline = read_outline(memory);
                EXPECT_LE(outline.tracks.size(), 2u);
                EXPECT_LE(memory.reads, 12);
            }
        }
    }
}

TEST(Outline, ReadsLittleOfALargeFile)
{
    // A table as of an hour, and media that nobody reads.
    Mp4Track track = video_of(1);
    std::vector<size_t> sizes(100000, 10);
    sizes.insert(sizes.begin(), sizes.size());
    track.put["stsz"] = table_box("stsz", 0, sizes);
    Mp4File last;
    last.order = {"ftyp", "free", "mdat", "moov"};
    Memory memory(last.add(track).build());
    EXPECT_EQ(read_outline(memory).tracks.at(0).mp4.bytes, 1000000u);
    EXPECT_LT(memory.reads, 40);

    // Boxes without end: the limit on reads holds.
    class Endless final : public ByteSource {
    public:
        size_t read_at(uint64_t offset, uint8_t *buffer, size_t /*least*/, size_t count) override
        {
            const Bytes header = be32(20000) + text("free");
            for (size_t i = 0; i < count; ++i)
                buffer[i] = header[static_cast<size_t>((offset + i) % header.size())];
            ++reads;
            return count;
        }
        uint64_t size() const override { return uint64_t{1} << 60; }
        uint32_t reads = 0;
    } endless;
    read_outline(endless);
    EXPECT_EQ(endless.reads, Reader::MOST_LOADS);
}

// What is taken of the tracks: T for taken, U for what nobody can play, and - for the rest.
TEST(Selection, FollowsTheLibrarysRules)
{
    Mp4Track video = video_of(2), audio = Mp4Track::audio().sample({1}), subtitles = video_of(1);
    Mp4Track hevc = video, far = audio, short_lengths = video, opus = audio;
    subtitles.handler = "text";
    hevc.entry_type = "hvc1";
    opus.entry_type = "Opus";
    far.put["stco"] = box("co64", be32(0) + be32(1) + be(99, 8));
    short_lengths.put["avcC"] = box("avcC", hex("0142001EFDE10001670100 0168"));
    const auto mp4 = [](std::initializer_list<Mp4Track> tracks) {
        Mp4File file;
        for (const Mp4Track &track : tracks)
            file.add(track);
        return file.build();
    };
    const auto mkv = [](const std::string &tracks) {
        return MkvFile(tracks + " c0 v0(65)").build();
    };
    const struct {
        const char *name;
        Bytes file;
        const char *fates;
        const char *words;  // among refusal, losses and notes
    } rows[] = {
        {"both", mp4({video, audio}), "TT", ""},
        {"a third track", mp4({video, audio, audio}), "TT-", "1 further audio"},
        {"a later one replaces", mp4({audio, audio, video}), "-TT", "a later track"},
        {"subtitles first", mp4({subtitles, video}), "--", "comes after track 1 (subtitles)"},
        {"subtitles between", mp4({video, subtitles, audio}), "T--", "audio: track 2"},
        {"another codec", mp4({hevc, audio}), "--", "HEVC isn't remuxed"},
        {"audio of another codec", mp4({video, opus}), "T-", "Opus isn't remuxed"},
        {"offsets of 64 bits", mp4({video, far}), "T-", "co64"},
        {"short NAL lengths", mp4({short_lengths, audio}), "UT", "less than 4 bytes"},
        {"no movie", Mp4File().build(), "", "neither video nor audio"},
        {"VP9", mkv("t1['V_VP9'] t2['A_AAC']"), "UT", "VP9 isn't remuxed"},
        {"the first that is known", mkv("t1['V_MPEG4/ISO/AVC'] t2['A_DTS'] t3['A_AC3']"), "T-T",
         "DTS isn't remuxed"},
        {"MPEG-4 Visual", mkv("t1['V_MPEG4/ISO/ASP'] t2['A_AC3']"), "UT", "MPEG-4 Visual"},
        {"compressed", mkv("t1['V_MPEG4/ISO/AVC']6D80[6240[5034[]]] t2['A_AC3']"), "UT",
         "compressed"},
        {"MPEG-2", Mp3().frames(9, 0xFFF380C0, 208).file, "-", "(22050 Hz)"},
        {"padding", Bytes(9) + Mp3().frames(9).file, "-", "9 bytes that belong to no frame"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const Outline outline = outline_of(row.file);
        const Selection selection = select_tracks(outline);
        std::string fates, words = selection.refusal;
        for (const Choice &choice : selection.choices)
            fates += choice.fate == Fate::TAKEN ? 'T' : choice.fate == Fate::UNPLAYABLE ? 'U' : '-';
        for (const auto *lines : {&selection.losses, &selection.notes})
            for (const std::string &line : *lines)
                words += line;
        EXPECT_EQ(fates, row.fates);
        EXPECT_NE(words.find(row.words), std::string::npos) << words;
        EXPECT_EQ(selection.refusal.empty(), fates.find('T') != std::string::npos);
    }
}

TEST(AudioConfig, ReadsEveryForm)
{
    const struct {
        const char *name;
        Bytes in;
        bool f_good;
        uint32_t type, rate, channels;
    } rows[] = {
        {"LC stereo", hex("1190"), true, 2, 48000, 2},
        {"5.1", hex("11B0"), true, 2, 48000, 6},
        {"own rate", hex("1780BB8010"), true, 2, 96000, 2},
        {"escaped type", hex("F89060"), true, 36, 16000, 3},
        {"one byte", hex("11"), false, 0, 0, 0},
        {"reserved rate", hex("1690"), false, 0, 0, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const std::optional<AudioConfig> config = parse_audio_config(row.in);
        ASSERT_EQ(config.has_value(), row.f_good);
        if (!config) continue;
        EXPECT_EQ(config->object_type, row.type);
        EXPECT_EQ(config->sample_rate, row.rate);
        EXPECT_EQ(config->channel_config, row.channels);
    }
}

}  // namespace

// Writes the seeds of the fuzz targets, small files of every kind with the recipes of some runs, to
// the folder that is named: DIR/TARGET/NAME. Further arguments are files, of whose contents seeds are
// made too; their extension gives the format. Those in DIR/large are longer than 64 KiB.

#include <cstdio>
#include <filesystem>

#include "files.h"
#include "mkv_builder.h"
#include "mp3_builder.h"
#include "mp4_builder.h"

namespace {

std::string g_dir;

void write_seed(const std::string &target, const std::string &name, const Bytes &bytes)
{
    std::filesystem::create_directories(g_dir + "/" + target);
    write_file(g_dir + "/" + target + "/" + name, bytes);
}

const std::string FORMATS[] = {"m2ts", "mp3", "mp4", "mkv"};

// What comes after the format in a recipe: how the size is stated, the size of reads, the faults, their
// period, the first of them (two bytes), a spare byte, then eight steps.
const struct {
    const char *name, *recipe;
} RECIPES[] = {
    {"plain", ""},
    {"small_reads", "00 10"},
    {"time_seeks", "00 00 00 00 00 00 00 03 60 02 41 1F 68 02 BF"},
    {"unknown_size", "01 C8 00 00 00 00 00 04 50 05 43 20 C5 20 C0"},
    {"half_size", "02 00 00 00 00 00 00 08 7F 03 40 C2 C3 C4 C1"},
    {"zeros", "00 40 01 02 04 00 00 05 48 0A C5 05 44 10 C2"},
    {"silence", "01 00 02 01 08 00 00 05 48 0A C0 05 44 10 C2"},
    {"trickle", "01 01 07 03 02 00 00 05 48 0A C5 05 44 10 C2"},
    {"seeks_not_done", "03 00 80 00 02 00 00 05 48 0A C5 05 44 10 C2"},
    {"all_refused", "00 00 08 00 01 00 00 05 48 0A C5 05 44 10 C2"},
    {"refused_seeks", "03 00 0C 03 02 00 00 05 48 0A C5 05 44 10 C2"},
    {"lies", "04 30 10 05 03 00 00 05 48 0A C5 05 44 10 C2"},
    {"no_memory", "00 00 20 04 00 10 00 05 48 0A C5 05 44 10 C2"},
    {"no_cache", "05 22 44 04 05 00 00 05 48 0A C5 05 44 10 C2"},
};

Bytes with_recipe(size_t format, const std::string &recipe, const Bytes &file)
{
    // The second demuxer is of another format than the first.
    Bytes out = {static_cast<uint8_t>(format | (format + 1) % 4 << 2)};
    out += hex(recipe);
    out.resize(16);
    return out + file;
}

void write_seeds(size_t format, const std::string &name, const Bytes &file, bool f_all)
{
    for (const auto &row : RECIPES) {
        const Bytes seed = with_recipe(format, row.recipe, file);
        const std::string seed_name = name + "-" + row.name;
        write_seed(FORMATS[format], seed_name, seed);
        write_seed("file", FORMATS[format] + "-" + seed_name, seed);
        if (row.recipe[0] == '\0') write_seed("hls", FORMATS[format] + "-" + seed_name, seed);
        if (!f_all && std::string(row.name) == "time_seeks") break;
    }
}

// Pieces of 257 bytes, once and four times.
void write_ts(const std::string &name, const Bytes &file)
{
    write_seed("ts", name, hex("2000") + file);
    Bytes checked = hex("2003");
    for (size_t at = 0; at + 188 <= file.size(); at += 188)
        checked += Bytes(file.data() + at, file.data() + at + 188) + Bytes(16);
    write_seed("ts", name + "-204", checked);
}

void write_m2ts()
{
    Bytes file;
    for (uint8_t i = 0; i < 12; ++i)
        file += be32(i * 1000u) + Bytes{0x47} + Bytes(187, i);
    write_seeds(0, "records", file, true);
    write_seeds(0, "garbage_in_front", pattern(50, 1) + file, false);
    write_seeds(0, "cut", Bytes(file.begin(), file.end() - 100), false);
}

void write_mp3()
{
    write_seeds(1, "constant", Mp3().frames(40).file, true);
    write_seeds(1, "variable", Mp3().variable_rate(60, 5).file, false);
    write_seeds(1, "tag", Mp3().raw(hex("49443303000000000009") + Bytes(9)).frames(9).file, false);
    write_seeds(1, "layers",
                Mp3().frames(3, 0xFFFDE400, 1152).frames(9, 0xFFFF1800, 48).frames(9).file, false);
    write_seeds(1, "damaged", Mp3().frames(9).raw(Bytes(99, 0xFF)).frames(9).file, false);
}

Mp4Track pictures(size_t count)
{
    Mp4Track track = Mp4Track::video();
    for (uint8_t i = 0; i < count; ++i)
        track.sample(nal({0x65, i}) + nal({0x41, i, 7}));
    track.stss = {1, 3};
    track.chunks = {2, 1};
    return track;
}

Mp4Track audio_frames(size_t count)
{
    Mp4Track track = Mp4Track::audio();
    for (uint8_t i = 0; i < count; ++i)
        track.sample({0x21, i, 3});
    track.chunks = {1, 2, 1};
    return track;
}

void write_mp4()
{
    Mp4Track video = pictures(5), audio = audio_frames(6);
    write_seeds(2, "both", Mp4File().add(video).add(audio).build(), true);
    Mp4File last;
    last.order = {"ftyp", "mdat", "moov"};
    write_seeds(2, "movie_last", last.add(audio).add(video).build(), false);
    video.put["ctts"] = table_box("ctts", 2, {1, 80, 4, 0});
    video.put["stts"] = table_box("stts", 2, {2, 40, 3, 41});
    write_seeds(2, "reordered", Mp4File().add(video).build(), false);
    audio.long_lengths = true;
    audio.put["stsz"] = table_box("stsz", 3, {6});
    write_seeds(2, "constant_size", Mp4File().add(audio).add(pictures(2)).build(), false);
    Mp4Track ac3 = audio_frames(3);
    ac3.entry_type = "ac-3";
    write_seeds(2, "ac3", Mp4File().add(ac3).add(audio_frames(4)).add(pictures(2)).build(), false);
    Mp4Track sets = pictures(3);
    sets.sps = {{0x67, 1, 2, 3}, {0x67, 9}};
    sets.pps = {{0x68}, {}, {0x68, 4, 5}};
    write_seeds(2, "parameter_sets", Mp4File().add(sets).build(), false);
}

void write_mkv()
{
    const std::string avc = "t1['V_MPEG4/ISO/AVC']63A2[01640028FF.E1.0002.6711.01.0002.6801] ";
    const std::string aac = "t2['A_AAC']23E383[#32000000]E1[B5[473B8000]9F[02]] ";
    const std::string ac3 =
        "t2['A_AC3']6D80[6240[5031[00]5032[01]5033[00]5034[4254[03]4255[0B77]]]] ";
    const std::string scene = " l02.01.01.0102 v0(6701)(65*9) a0=03 v80(41)";
    const auto seeds = [](const char *name, const std::string &words, bool f_all) {
        write_seeds(3, name, MkvFile(words).build(), f_all);
    };
    seeds("scenes", "h0 d473B8000 " + avc + aac + "C2000" + scene + " C4000" + scene + " q6000 k",
          true);
    seeds("cues_in_front", avc + aac + "k C0" + scene + " C500" + scene + " C900" + scene, false);
    seeds("laces",
          aac +
              "c0 l04.02.010203 l06.06.81.C0.5FFE.300000.17FFFFFE.0C00000000.01020203040405060607 "
              "l02.02.FEFF00.01*254.02*255.03 l00.05*4",
          false);
    seeds("ac3", ac3 + "c0 a0=0B7701 a0=020304 a0=0B", false);
    seeds("groups", avc + "c0 =A0[FB[01]A1[81.%5(65)]9B[28]FB[D8]] v40{41*9}{4199} =A7[05]AB[09]",
          false);
    seeds("other_codecs", "t1['V_VP8']E0[B0[0140]BA[F0]] t2['A_MPEG/L3'] c0 v0(4199) a0=08", false);
    seeds("noise", "nEC[A3*9]4FFE[01] h0 d473B8000 " + avc + aac + " C0" + scene + " k", false);
    seeds("unknown_sizes", avc + "=1F43B675.01FFFFFFFFFFFFFF.E7[00]A3.8A.81000000.00000002.6501",
          false);
}

void write_mux()
{
    // Codecs, rate and channels, then frames: their kind, time and size.
    const char *const heads[] = {"0307 00 00000002", "0406 01 00000006", "0207 00 00000001",
                                 "0501 03 00000000", "0000 07 FFFFFFFF"};
    const char *const frames[] = {
        "00 000000 0001", "01 000001 0200",        "08 000028 FF",
        "09 000029 10",   "00 00FFFF FFFF",        "1C FFFFFFFFFFFFFFFF 40",
        "02 000000 00BC", "0B 12345678 000001 10", "21 000000 0100"};
    int number = 0;
    for (const char *head : heads) {
        Bytes all = hex(head);
        for (const char *frame : frames)
            write_seed("mux", std::to_string(number++), all += hex(frame));
    }
}

void write_tcache()
{
    int number = 0;
    for (uint32_t mode = 0; mode < 8; ++mode) {
        for (uint32_t faults = 0; faults < 0x40; faults = faults * 2 + (faults == 0)) {
            const Bytes head = {static_cast<uint8_t>(mode),
                                static_cast<uint8_t>(faults),
                                0x20,
                                0x11,
                                0x05,
                                0x10,
                                0x02,
                                0x01};
            write_seed("tcache", std::to_string(number++), head + pattern(200, mode * 64 + faults));
        }
    }
}

// Before each file, how its source behaves.
void write_outline(const std::string &name, const Bytes &file)
{
    write_seed("outline", name, Bytes{1, 0} + file);
    write_seed("outline", name + "-unknown_size", Bytes{0, 0} + file);
    write_seed("outline", name + "-cut", Bytes{3, 0} + Bytes(file.begin(), file.end() - 9));
    write_seed("outline", name + "-fails", Bytes{5, 1} + file);
}

void write_outlines()
{
    const Bytes list =
        hex("00000000 00000002 00000064 FFFFFFFF 00010000 000003E8 00000050 00010000");
    Mp4Track video = pictures(5), audio = audio_frames(6), far = pictures(2),
             compact = audio_frames(3);
    video.order["trak"].push_back("edts");
    video.put["edts"] = box("edts", box("elst", list));
    audio.order["trak"].push_back("tref");
    audio.put["tref"] = box("tref", box("chap", be32(1)));
    far.put["stco"] = box("co64", be32(0) + be32(1) + be(uint64_t{1} << 33, 8));
    compact.put["stsz"] = box("stz2", be32(0) + be32(4) + be32(3) + hex("1230"));
    write_outline("mp4", Mp4File().add(video).add(audio).build());
    write_outline("mp4_rare", Mp4File().add(far).add(compact).build());
    Mp4File last;
    last.order = {"ftyp", "mdat", "moov"};
    write_outline("mp4_last", last.add(audio).build());
    Mp4Track varied = pictures(8);
    varied.put["stts"] = table_box("stts", 2, {6, 40, 2, 3000});
    varied.stss = {1, 4, 7};
    varied.duration = 6240;
    write_outline("mp4_varied", Mp4File().add(varied).add(audio_frames(200)).build());
    write_outline("mkv",
                  MkvFile("h0 . =1549A966[2AD7B1[0F4240]4489[44FA0000]4D80['m']] "
                          "t1['V_VP9']73C5[11]23E383[02625A00]E0[B0[10]BA[10]] "
                          "t2['A_AC3']73C5[12]6D80[6240[5034[4254[03]4255[0B77]]]]E1[B5[473B8000]] "
                          ". =1043A770[45B9[B6[]B6[]]] =1254C367[7373[63C0[63C5[12]]"
                          "67C8[45A3['DURATION']4487['00:01:02.5']]]] C0 v0(65) C2000 v0(65) k")
                      .build());
    const Bytes xing =
        be32(0xFFFB9000) + Bytes(32) + text("Xing") + be32(3) + be32(9) + be32(99) + Bytes(365);
    const Bytes vbri =
        be32(0xFFFB9000) + Bytes(32) + text("VBRI") + Bytes(6) + be32(99) + be32(9) + Bytes(363);
    const Bytes tags = text("APETAGEX") + hex("D0070000 20000000 00000000 00000000") + Bytes(8) +
                       text("TAG") + Bytes(125);
    const Bytes id3 = hex("49443304000000000004") + Bytes(4);
    write_outline("mp3", id3 + xing + Mp3().frames(2).file + tags);
    write_outline("mp3_vbri", vbri + Mp3().frames(1).file);
    for (const size_t size : {size_t{188}, size_t{192}, size_t{204}}) {
        Bytes packet(size, 0x11), file;
        packet[size == 192 ? 4 : 0] = 0x47;
        for (int i = 0; i < 6; ++i)
            file += packet;
        write_outline("ts" + std::to_string(size), file);
    }
}

// Films of a few segments, whole and from a source that delivers little or fails.
void write_film(size_t format, const std::string &name, const Bytes &file)
{
    write_seed("hls", name, with_recipe(format, "", file));
    write_seed("hls", name + "-small_reads", with_recipe(format, "00 05", file));
    write_seed("hls", name + "-fails", with_recipe(format, "00 00 01 00 20", file));
}

void write_films()
{
    const std::string tracks =
        "d473B8000 t1['V_MPEG4/ISO/AVC']63A2[01640028FF.E1.0002.6711.01.0002.6801] "
        "t2['A_AC3']23E383[#32000000]E1[B5[473B8000]] ";
    const std::string frames =
        " v0(6701)(65*9) a0=0B7700000840*128 v40(41*5) v80(41*5) a32=0B7700000840*128";
    std::string clusters;
    for (int i = 0; i < 6; ++i)
        clusters += " C" + std::to_string(i * 4000) + frames;
    write_film(3, "clusters", MkvFile("h0 " + tracks + clusters + " k").build());
    write_film(3, "without_cues", MkvFile(tracks + clusters).build());
    write_film(3, "audio",
               MkvFile("h0 " + tracks.substr(tracks.find("t2")) + clusters + " k").build());
    Mp4Track video = Mp4Track::video(), audio = Mp4Track::audio();
    video.delta = 2000;
    audio.delta = 48000;
    for (uint8_t i = 0; i < 12; ++i) {
        video.sample(nal({0x65, i, 1, 2, 3}));
        audio.sample(Bytes(20, i));
        audio.sample(Bytes(20, i));
    }
    video.chunks = audio.chunks = {2, 2, 2, 2, 2};
    write_film(2, "pictures", Mp4File().add(video).add(audio).build());
    write_film(2, "audio", Mp4File().add(audio).build());
    Mp4Track varied = video;
    varied.put["stts"] = table_box("stts", 2, {8, 500, 4, 5000});
    write_film(2, "varied", Mp4File().add(varied).add(audio).build());
    video.stss = {1, 5, 9};
    video.put["ctts"] = table_box("ctts", 3, {1, 2000, 10, 4000, 1, 0});
    write_film(2, "groups", Mp4File().add(video).build());
    write_film(1, "frames", Mp3().frames(560, 0xFFFB1400, 96).file);
}

void write_requests()
{
    const char *const addresses[] = {"",
                                     "a/b/",
                                     "a%2Fb",
                                     "%2e%2e/x",
                                     ".golt/page.css",
                                     "status",
                                     "f/index.m3u8",
                                     "f/details.json",
                                     "f/0123456789abcdef/media.m3u8",
                                     "%E2%80%AE/0123456789abcdef/12.ts"};
    int number = 0;
    const auto write = [&](const Bytes &bytes) {
        write_seed("request", std::to_string(number++), bytes);
    };
    for (const char *address : addresses)
        write(Bytes{0} + text(address));
    const char *const conditions[] = {"*\n\n\n\n\n",
                                      "\n\"0123456789abcdef-7\"\n\n\n\n",
                                      "\n\nWed, 25 Nov 2026 16:00:00 GMT\n\n\n",
                                      "\n\n\nWed, 25 Nov 2026 16:00:00 GMT\n\n",
                                      "\n\n\n\n\"0123456789abcdef-7\"\nbytes=0-9\n",
                                      "\n\n\n\n\nbytes=-9\n",
                                      "\n\n\n\n\nbytes=7000-\n"};
    for (const char *lines : conditions)
        write(hex("01 0A 6A25BF00 1B00") + text(lines));
    for (const char *kind : {"00", "03", "04"})
        write(hex("02 0100000000000000 0700000000000000 02000000 00000000 10000000") + hex(kind) +
              Bytes(3) + text("0123456789abcdefa/b.mkv"));
    for (const char *status : {"C8000000", "F4010000"})
        write(hex("03 0100000000000000 0002000000000000") + hex(status) + Bytes(4) + text("why"));
    for (const char *kind : {"00", "01", "06"})
        write(hex("04") + hex(kind) +
              text("films\n<b>.mkv\n\"'&amp;\n{{title}}\n\xE2\x80\xAE.mp4\n"));
}

// Files of hundreds of KiB: blocks of every size, 255 empty frames to a block, tables of many entries.
void write_large()
{
    std::string words = "h0 d473B8000 t1['V_MPEG4/ISO/AVC'] t2['A_AC3'] ";
    std::string laces;
    for (int i = 0; i < 40000; ++i)
        laces += i % 2 == 0 ? "=A3[81.0000.04.FE] " : "l04.FE ";
    for (int i = 0; i < 60; ++i) {
        words += "C" + std::to_string(i * 1000) + " v80(65*9000) v0(41*500) ";
        for (int j = 0; j < 20; ++j)
            words += "a0=0B77*" + std::to_string(j * 10 + 1) + " ";
    }
    write_seeds(3, "clusters", MkvFile(words + "k").build(), true);
    write_seeds(3, "laces", MkvFile("t1['V_MPEG4/ISO/AVC'] t2['A_AC3'] c0 " + laces).build(), true);

    Mp4Track video = Mp4Track::video(), audio = Mp4Track::audio();
    for (size_t i = 0; i < 2000; ++i) {
        video.sample(nal(Bytes(i % 300 + 1, 0x41)));
        audio.sample(Bytes(i % 40 + 1, 0x21));
    }
    write_seeds(2, "samples", Mp4File().add(video).add(audio).build(), true);
    Mp4File last;
    last.order = {"ftyp", "mdat", "moov"};
    write_seeds(2, "movie_last", last.add(video).add(audio).build(), true);
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: make_seeds DIR [FILE...]\n");
        return 2;
    }
    g_dir = argv[1];
    write_m2ts();
    write_mp3();
    write_mp4();
    write_mkv();
    write_mux();
    write_tcache();
    write_outlines();
    write_films();
    write_requests();
    for (int i = 2; i < argc; ++i) {
        const std::filesystem::path path = argv[i];
        if (path.extension() == ".ts") write_ts(path.stem().string(), read_file(path.string()));
        for (size_t format = 0; format < std::size(FORMATS); ++format) {
            if (path.extension() == "." + FORMATS[format])
                write_seeds(format, path.stem().string(), read_file(path.string()), false);
        }
    }
    g_dir += "/large";
    write_large();
    return 0;
}

#include "dmx_mkv.h"

#include "dmx_mkv_ebml.h"
#include "dmx_mkv_frame.h"
#include "heap.h"
#include "mkv_reader.h"

namespace {

const std::string AVC = "t1['V_MPEG4/ISO/AVC']", VIDEO = AVC + " c0 ";
const std::string AAC = "t2['A_AAC']", AUDIO = AAC + " c0 ";

std::string times(int count, const std::string &text)
{
    return count > 0 ? text + times(count - 1, text) : "";
}

TEST(Mkv, TakesTheFirstTracksOfAKnownKind)
{
    const std::string blocks = " c0 v0(4199) a0=08 =A3[83.0000.00(09)]";
    const std::string ac3 = "t3['A_AC3']E1[B5[40E5888000000000]]";
    const std::string far = "t3['V_" + std::string(19, 'x') + "V_MPEG4/ISO/AVC']";
    const std::string stereo = "E1[B5[46FA0000]9F[02]] ";
    expect_traces({
        {"video", AVC + blocks, "0 112 0 0 0 v0|4199", "i 9"},
        {"no known audio", "t2['A_EAC3']" + stereo + blocks, "0 0 2 32000 0", "i 9"},
        {"the second", "t2['A_EAC3']" + stereo + ac3 + blocks, "103 0 1 44100 0 a0=0B77|09", "i 9"},
        {"the first", AAC + " " + ac3 + blocks, "102 0 1 8000 0 a0=08", "i 9"},
        {"99", times(99, AAC + " ") + blocks, "102 0 1 8000 0 a0=08", "i 9"},
        {"20", times(18, "t2['A_X'] ") + AAC + " " + AVC, "102 112 1 8000 0", "i"},
        {"21", times(18, "t2['A_X'] ") + AAC + " " + AVC + " t2['A_X']", "102 0 1 8000 0", "i"},
        {"number 258", "t2['A_MPEG/L3']D7[0102]" + blocks, "101 0 1 8000 0", "i 9"},
        {"a number of 9 bytes", AVC + "D7[EC[00*7]] c0 v0(41)", "0 112 0 0 0", "i 9"},
        {"other video", "t1['V_VP8'] " + far + blocks, "0 0 0 0 0 v0=00*3024199", "i 9"},
        {"a long codec ID", far + blocks, "0 112 0 0 0 v0|09", "i 9"},
        {"4 bytes", "d473B8000", "0 0 0 0 48000", "i"},
        {"half a millisecond", "d3F000000", "0 0 0 0 0", "i"},
        {"2 to the 31st", "d4F000000", "0 0 0 0 2147483648", "i"},
        {"2 to the 32nd", "d4F800000", "0 0 0 0 0", "i"},
        {"below zero", "dC0000000", "0 0 0 0 0", "i"},
        {"8 bytes", "d40E7700000000000", "0 0 0 0 48000", "i"},
        {"not a number", "d7FF8000000000000", "0 0 0 0 0", "i"},
        {"2 bytes", "d0102 " + AVC, "0 112 0 0 0", "i"},
    });
}

TEST(Mkv, WalksClustersAndBlocks)
{
    expect_traces({
        {"element between clusters", VIDEO + "v0(65) . =EC[00*5] c0 v0(41) c0 v0(41)", "v0|65"},
        {"damaged cluster", AUDIO + "a0=01 =00*4000 a0=02 c0 a0=03", "a0=01 a0=03"},
        {"other tracks", VIDEO + "=A3[87.00*500]A3[412C.00*4] c5 v0(41)", "v5|41"},
        {"times below zero", VIDEO + "v-1(41) c100 v-1(41)", "v4294967295|41 v99|41"},
        {"group", VIDEO + "=A0[FB[01]A1[81.%5(65)]9B[28]FB[D8]] v40(41)", "v5|65 v40|41"},
        {"cluster of unknown size",
         AVC + " . =1F43B675.01FFFFFFFFFFFFFF.E7[07]A3[81%1(65)] c9 v0(41) . =A3[81%2(4199)]",
         "v8|65 v9|4199"},
        {"cut video", VIDEO + "=A3.8A.8100000000000002.41", "v0|4100"},
        {"cut audio", AUDIO + "=A3.87.82000000.0102", "a0=010200"},
        // 99 bytes of a unit that its length of 3 bytes says to have 328965.
        {"3 MB missing", VIDEO + "v0(41) =A3.0800300000.81000000.05*99",
         "v0|41 v0|05*9600*3145625"},
        {"4 GB missing", VIDEO + "v0(41) =A3.08FFFFFFFF.81000000.05*99", "v0|41"},
        {"AC-3", "t2['A_AC3'] c0 a0=0B7701 a0=020304 a0=0B", "a0=0B7701 a0=0B77020304 a0=0B"},
        {"clock", AAC + "23E383[1E847F] c9 l04.02.010203 c99 a0=04", "a9=01 a10=02 a12=03 a14=04"},

        {"Xiph lace", AUDIO + "l02.02.FEFF00.01*254.02*255.03", "a0=01*254 a0=02*255 a0=03"},
        {"255", AUDIO + "l02.FE." + times(254, "01") + "02*257", times(254, "a0=02 ") + "a0=02*3"},
        {"fixed lace", AUDIO + "l04.01.01*9.02*9.00 a0=03 a0=04", "a0=01*9 a0=02*9 a0=03 a0=04"},
        {"EBML lace", AUDIO + "l06.06.81.C0.5FFE.300000.17FFFFFE.0C00000000.01020203040405060607",
         "a0=01 a0=0202 a0=03 a0=0404 a0=05 a0=0606 a0=07"},
        {"one", AUDIO + "l02.00.05*4 l04.00.05*4 l06.00.83.05*4", "a0=05*4 a0=05*4 a0=05*3"},
        {"one, larger than its block", AUDIO + "l06.00.86.01*3 a0=02", "a0=01*3A38582"},
        {"a size without a width", AUDIO + "l06.01.00.05*4", "a0= a0=05*4"},
        // 256 frames; sizes beyond the block and without an end; differences beyond the block,
        // below nothing and without a width; no flags and no count.
        {"damaged laces",
         AUDIO + "l04.FF.01*512 l02.02.40C0.02*255 l02.05.FF*100 l06.02.4100BF.03*300 "
                 "l06.03.8580BF.04*30 l06.02.0000.05*30 =A3[820000] l02 a0=06",
         "a0=06"},
    });
}

TEST(Mkv, RewritesH264)
{
    const std::string sets = AVC + "63A2[AABB] c0 v0", c = "] c0 v0(65)";
    const std::string record = AVC + "63A2[01640028FF.";
    expect_traces({
        {"lengths of 4 bytes", sets + "(41)(41*999) v9(41)", "v0|41|41*999 v9|41"},
        {"of 3", sets + "{41*999}{4199}{41} v9(41)", "v0|41*999|4199|41 v9|41"},
        {"IDR slices", sets + "(65*300)(45)(2507)(67)", "v0=AABB|65*300AABB|45AABB|2507|67"},
        {"empty units", sets + "()(41*70000)() v9{41*999}{}", "v0|41*70000 v9|41*999"},
        {"beyond the payload", sets + "=000000C8.41 v9=000300.4199", "v0|41 v9|4199"},
        {"rest of a length", sets + "(4199)0000 v9(41)", "v0|4199 v9|41"},
        {"nothing", sets + "=", "v0="},
        {"after sizes of a lace, right or not",
         sets + "(41) =A3[81.0005.02.01.FF00(41)].A3[81.0006.06.03.818080(41)]",
         "v0|41 v5|41 v6|41"},
        // A frame has 2048 bytes beyond the payload. 20 copies of the sets leave 48 of them, and
        // six of the 100 units that grow by a byte each find no room.
        {"more than the room",
         AVC + "63A2[AA*100] c0 v0" + times(100, "(6501)") + times(100, "{41*6}") + " v9(41)",
         "v0=" + times(20, "AA*100|6501") + times(80, "|6501") + times(94, "|41*6") + " v9|41"},
        {"just the room", AVC + "63A2[AA*128] c0 v0" + times(17, "(6501)"),
         "v0=" + times(16, "AA*128|6501") + "|6501"},

        {"record", record + "E1.0002.6711.02.0001.68.0002.6801.FC" + c, "v0|6711|68|6801|65"},
        {"one kind of sets", record + "E1.0002.6711" + c, "v0|6711|65"},
        {"128 bytes", record + "E1.0070.67*112.01.0005.68*5" + c, "v0|67*112|68*5|65"},
        {"129 bytes", record + "E1.0070.67*112.01.0006.68*6" + c, "v0|67*112|65"},
        {"a set beyond", record + "E1.00C0.67*192" + c, "v0|65"},
        {"no sets", record + "E0.00" + c, "v0|65"},
    });
}

const std::string SCENE = " l02.01.01.0102 v0(6701)(65*9) a0=03 v80(41)";
const std::string SCENES =
    "h0 " + AVC + " " + AAC + "23E383[#32000000] C2000" + SCENE + " C4000" + SCENE + " q6000 k";

TEST(Mkv, Seeks)
{
    const std::string all = "v0|65 v40|41 v5000|65 v10000|6501", there = all + " @ v5000|65";
    const std::string clusters = "C0 v0(65) v40(41) C5000 v0(65) C10000 v0(6501) ";
    const std::string before = AVC + " k " + clusters, after = AVC + " " + clusters + "k";
    expect_traces({
        {"cues at the end", "h0 " + after, there, "9 @5000 1"},
        {"unknown", after, all + " !", "9 @5000 1"},
        {"at the start", before, there, "9 @5000 1"},
        {"there and in the SeekHead", "h0 " + before, there, "9 @5000 1"},
        {"missed", "h1000 " + after, all + " !", "9 @5000 1"},
        {"far off", "h1099511627776 " + after, all + " !", "9 @5000 1"},
        {"below zero", "h9223372036854775808 " + after, all + " !", "9 @5000 1"},
        {"the last of too many", before + times(4999, "q10001 ") + "q14999", "! @ v10000|6501",
         "@14999 @14998 1"},
        {"one", AVC + " k C2000 v0(65)", "! @ v2000|65", "@2000 @100 1"},
        {"two Cues before", AVC + " k k " + clusters, "@ v5000|65", "@5000 1"},
        {"the second counts", AVC + " k . =1C53BB6B[BB[B3[09]B7[F1[00]]]] " + clusters, "! !",
         "@5000 @5"},
        // A cue point at 6000 with two places: the Segment's start and the Cluster at 5000.
        {"two places", "h0 " + AVC + " C0 v0(65) C5000 v0(65) q6000]B7[F1[00] q9000 k",
         "@ v5000|65", "@7000 1"},

        {"between", before, "@ v5000|65 @ v0|65 @ v5000|65", "@7000 1 @4999 1 @4294972296 1"},
        {"at the last", before, "v0|65 ! v40|41 ! v5000|65", "1 @10000 1 @99999 1"},
        {"no video", AAC + " k C0 a0=01 q9", "!", "@5"},
        // What the first seek left, a key frame, is dropped; the second stops at the time.
        {"twice", AVC + " " + AAC + " k C0 a0=01 v0(41) v40(09)(65) v80(41) v120(65) q1000",
         "@ @ v80|41 v120|65", "@500 @80 9"},
        {"out of a lace", SCENES, "a2000=01 @ v4000|6701|65*9 a4000=03 v4080|41", "1 @4500 9"},
        // The frame of three bytes leaves a block within its own to what comes next.
        {"over a lace", AVC + " " + AAC + " k C0 l06.00.83.010203.A3[81%5(65)] v80(41) q1000",
         "@ v5|65", "@20 1"},
        {"into a cut frame", AVC + " " + AAC + " k C0 q9 =A3.87.82000000.0102", "!", "@5 1"},
        {"destroyed in a lace", SCENES, "a2000=01", "1"},
        {"destroyed after a seek", SCENES, "@", "@2000"},
    });
    EXPECT_EQ(MkvDemuxer(Bytes()).run("@0 1"), "!");
    GOLT_streamInfo_t info = {};
    EXPECT_FALSE(GOLT_DMX_MKVSeekToTime(0) || GOLT_DMX_MKVReadFrame(nullptr) ||
                 GOLT_DMX_MKVGetStreamInfo(&info))
        << "no source";
}

TEST(Mkv, PassesOverUnknownElementsEverywhere)
{
    const std::string noise = "EC[A3*9]4FFE.0100000000000003.010203", only = "[" + noise + "]";
    const std::string group = " =A0[" + noise + "A1[81%0(65)]" + noise + "]";
    testing::internal::CaptureStdout();
    expect_traces({{"",
                    "n" + noise + " h0 d473B8000 " + AVC + "E0" + only + "E1" + only + "6D80[5034" +
                        only + noise + "] . =" + noise + " C0" + group + " C5000" + group + " k",
                    "v0|65 v5000|65 @ v0|65 v5000|65", "9 @0 9"}});
    const std::string printed = testing::internal::GetCapturedStdout();
    for (const std::string kind :
         {"MKV header ID: 0x0000", "SeekHead ID: 0x0000", "SeekHead child ID: 0x0000",
          "SegmentInfo ID: 0x0000", "Tracks  ID: 0x0000", "Track entry ID: 0x0000",
          "video ID: 0x0000", "audio ID: 0x0000", "encoding ID: 0x0000", "compression ID: 0x0000",
          "cluster ID: 0x0000", "Block ID: 0x0000", "cue ID:0x", "cue point ID: 0x0000",
          "cue track ID:0x"})
        EXPECT_NE(printed.find("error " + kind + "4FFE\n"), std::string::npos) << kind;
}

// What a file holds besides what is used has no effect, and no message.
TEST(Mkv, ReadsEveryElementThatItKnows)
{
    const std::string info = "=73A4[01*16]7384['a']3CB923[02*99]3C83AB['b']3EB923[03*9]3E83BB['c']"
                             "2AD7B1[0F4240]7BA9['d'*99]4D80['e']5741['f']4461[#1] ";
    const std::string track = "73C5[0102]B9[00]88[00]55AA[01]9C[01]6DE7[01]6DF8[02]23314F[3F800000]"
                              "536E['g'*99]22B59C['ger']258688['h']7446[01]AA[01]55EE[01]"
                              "6D80[5031[00]5032[01]5033[00]5034[4254[03]4255[0B]]5035[]6240[]]";
    const std::string video = "E0[B0[20]BA[10]54AA[01]54BB[01]54CC[01]54DD[01]54B0[20]54BA[10]54B2"
                              "[00]9A[01]] ";
    const std::string audio = "E1[B5[46FA0000]78B5[473B8000]9F[02]6264[10]]";
    testing::internal::CaptureStdout();
    expect_traces({{"",
                    "d473B8000 " + info + AVC + track + video + AAC + track + audio +
                        " c0 =A7[09]AB[09]9B[09]FB[09]92[09]A2[09] v0(65) "
                        "=A0[FB[01]9B[02]A1[82.0000.00.05]]",
                    "102 112 2 32000 48000 32x16 v0|65 a0=05", "i 9"}});
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

// ATSC A/52, the frame size code table: 1536 samples at each of these rates in kbit/s. At 44100 Hz, where
// that is no whole number of words, the odd codes have one more.
TEST(Mkv, KnowsTheSizesOfAc3Frames)
{
    uint8_t code = 0;
    for (const int rate :
         {32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384, 448, 512, 576, 640}) {
        for (int odd = 0; odd < 2; ++odd, ++code) {
            EXPECT_EQ(CheckFrameSize(code, 48000), 4 * rate) << int{code};
            EXPECT_EQ(CheckFrameSize(code, 44100), 2 * (rate * 96000 / 44100 + odd)) << int{code};
            EXPECT_EQ(CheckFrameSize(code, 32000), 6 * rate) << int{code};
        }
    }
    EXPECT_EQ(CheckFrameSize(code, 48000), -1);
    EXPECT_EQ(CheckFrameSize(37, 22050), 0);
}

TEST(Mkv, ReadsNumbersOfOneToFourBytes)
{
    const MkvDemuxer demuxer(MkvFile(VIDEO).build());
    testing::internal::CaptureStdout();
    EXPECT_EQ(FileGetUint(0) + FileGetUint(5), 0u);
    EXPECT_EQ(FileGetSint(0) + FileGetSint(5), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "error FileGetUint(DataBytes=0):0\nerror FileGetUint(DataBytes=5):0\n"
              "error FileGetSint(DataBytes=0):0\nerror FileGetSint(DataBytes=5):0\n");
    EXPECT_EQ(FileGetUint(4), 0x1F43B675u) << "the ID of the Cluster";
    Bytes text = hex("EEEEEEEEEE");
    EXPECT_EQ(CopyEBML_Buff(hex("0102").data(), text.data(), 2, 4), 1u);
    EXPECT_EQ(text, hex("01020000EE"));
    EXPECT_EQ(FileCopyEBML_Buff(text.data(), 1, 2), 1u);
    EXPECT_EQ(text, hex("8A000000EE")) << "the size of the Cluster";
}

TEST(Mkv, EndsOnWhatIsNoMatroska)
{
    for (const Bytes &file : {Bytes(), Bytes(1 << 20), pattern(1 << 20, 7), MkvFile(AVC).build(),
                              hex("1654AE6B 0FFFFFFFFF AE FE")}) {
        MkvDemuxer demuxer(file);
        EXPECT_EQ(demuxer.run("9"), "");
        EXPECT_LE(demuxer.source.reads, 2000);
    }
}

// How many reads a frame takes, from its Cluster on. Beyond 16 MiB it comes in two parts.
TEST(Mkv, ReadsALargeFrameWithoutSeeking)
{
    const struct {
        const char *name;
        std::string file, trace;
        int reads, seeks = 0;
    } rows[] = {
        {"small", VIDEO + "v0(41*9)", "v0|41*9", 13},
        {"in a group", VIDEO + "=A0[A1[81%0(41*9)]]", "v0|41*9", 15},
        {"3 MB", VIDEO + "v0(41*3000000)", "v0|41*3000000", 15},
        {"16 MB", VIDEO + "v0(41*16000000)", "v0|41*16000000", 15},
        {"20 MB", VIDEO + "v0(41*20000000)", "v0|41*20000000", 16},
        {"in two units", VIDEO + "v0()(41*17000000)(42*999)", "v0|41*17000000|42*999", 19},
        {"another codec", "t1['V_VP8'] c0 v0.41*20000000", "v0=41*20000000", 15},
        {"audio", AUDIO + "a0=41*20000000", "a0=41*20000000", 15},
        {"AC-3", "t2['A_AC3'] c0 a0=41*20000000", "a0=0B7741*20000000", 16},
        {"above the limit", VIDEO + "v0(41*70000000) v9(41)", "v9|41", 19, 1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        MkvDemuxer demuxer(MkvFile(row.file).build());
        Source &source = demuxer.source;
        source.reads = source.seeks = 0;
        EXPECT_EQ(demuxer.run("1"), row.trace);
        EXPECT_EQ(source.reads, row.reads);
        EXPECT_EQ(source.seeks, row.seeks);
    }
}

// As the cache answers for a host that refuses.
int32_t pretend(void *source, int64_t offset)
{
    Source::seek_proc(source, offset);
    return 0;
}

// At the end of the file it claims more than was asked for.
uint32_t lie(void *source, uint8_t *buffer, uint32_t size)
{
    const uint32_t got = Source::read_proc(source, buffer, size);
    return got == size ? size : size + 1;
}

TEST(Mkv, TakesMemoryAsBytesCome)
{
    // 60 MiB that aren't there, of a unit, of AAC, and of the last frame in a lace.
    const std::string huge = "=A3.0803C00000.";
    const std::string rows[] = {VIDEO + huge + "81000000.03000000.41*99",
                                AUDIO + huge + "82000000.05*99",
                                AUDIO + huge + "82000006.01.81.05*99"};
    for (const std::string &words : rows) {
        for (int host = 0; host < 3; ++host) {  // honest, refusing, pretending
            Source source(MkvFile(words).build());
            ASSERT_TRUE(GOLT_DMX_MKVInit(Source::read_proc, host < 2 ? Source::seek_proc : pretend,
                                         &source));
            source.refuse_seeks = host > 0;
            const LibraryCall watch;
            g_heap.held = g_heap.most = 0;
            for (GOLT_frame_t frame = {}; GOLT_DMX_MKVReadFrame(&frame);)
                GOLT_freeMem(frame.pb_data);
            EXPECT_LT(g_heap.most, (16u << 20) + 9999) << words;
            GOLT_DMX_MKVDestroy();
        }
    }
}

TEST(Mkv, LeavesNoByteOfAFrameUnwritten)
{
    GOLT_memInit();
    for (const std::string &words :
         {VIDEO + "v0(65) =A3.8D.81000000.00000005.41", VIDEO + "=A3.A0.81000000.00000005.41",
          AUDIO + "=A3.8C.82000000.01020304",
          std::string("t2['A_AC3'] c0 =A3.8C.82000000.01020304")}) {
        for (const uint32_t size : {1024u, 4096u}) {  // the blocks that audio and video get
            uint8_t *block = GOLT_allocMem(size);
            std::fill_n(block, size, uint8_t{0xA5});
            GOLT_freeMem(block);
        }
        Source source(Bytes(MkvFile(words).build()));
        ASSERT_TRUE(GOLT_DMX_MKVInit(lie, Source::seek_proc, &source));
        for (const Frame &frame : read_frames(GOLT_DMX_MKVReadFrame))
            EXPECT_EQ(std::count(frame.data.begin(), frame.data.end(), 0xA5), 0) << words;
        GOLT_frame_t frame, before;
        memset(&frame, 7, sizeof frame);  // the gaps between its fields, too
        memcpy(&before, &frame, sizeof frame);
        EXPECT_FALSE(GOLT_DMX_MKVReadFrame(&frame));
        EXPECT_EQ(memcmp(&frame, &before, sizeof frame), 0) << "a frame that was refused";
        GOLT_DMX_MKVDestroy();
    }
    GOLT_memClose();
}

// The host is asked for all of it as if it were to be played. But of the 255 frames that a block has, be they empty or
// small, none gets memory.
TEST(Mkv, SeeksReadAudioOnTheWay)
{
    const std::string laces = times(1000, "l04.FE ") + "l04.FE.01*255 ";
    MkvDemuxer demuxer(
        MkvFile(AVC + " " + AAC + " k C0 " + laces + "v0(41) a0=01*999 v40(65) q99").build());
    g_heap.granted = INT_MAX;
    Source &source = demuxer.source;
    const int reads = source.reads, seeks = source.seeks;
    {
        const LibraryCall watch;
        EXPECT_TRUE(GOLT_DMX_MKVSeekToTime(10));
    }
    EXPECT_EQ(INT_MAX - g_heap.granted, 3) << "two of video, one of audio";
    EXPECT_EQ(source.seeks - seeks, 1);
    EXPECT_LE(source.reads - reads, 1000 * 7 + 255 + 50) << "one for each field or frame";
    EXPECT_EQ(demuxer.run("1"), "v40|65");
}

// Each frame claims 14 MiB, of which the host gives eight bytes and the demuxer fills the rest.
TEST(Mkv, EndsASeekWhereFrameAfterFrameIsCut)
{
    const std::string claim = " . c0 =A3.0800F00000.81000000.00E00000.41*9";
    Source source(MkvFile(AVC + " k C0 v0(41)" + times(50, claim) + " . q9").build());
    const tpf_read trickle = [](void *host, uint8_t *buffer, uint32_t size) {
        return Source::read_proc(host, buffer, size > 999 ? 8 : size);
    };
    ASSERT_TRUE(GOLT_DMX_MKVInit(trickle, Source::seek_proc, &source));
    source.refuse_seeks = true;
    {
        const LibraryCall watch;
        g_heap.granted = INT_MAX;
        EXPECT_FALSE(GOLT_DMX_MKVSeekToTime(5));
    }
    EXPECT_EQ(INT_MAX - g_heap.granted, 1 + 8);
    GOLT_DMX_MKVDestroy();
}

// What no entry of the PMT announces goes into the stream all the same.
TEST(Mkv, CodecsWithoutATypeAreWritten)
{
    const Bytes stream = remux_file("mkv", MkvFile("t1['V_VP8'] c0 v0.4199").build());
    ASSERT_EQ(stream.size(), 3 * 188u);
    EXPECT_EQ(Bytes(&stream[188 + 5], &stream[188 + 22]),
              hex("02B012 0001C10000 E101 F000 06E101F000"))
        << "one entry, for audio";
    EXPECT_EQ(stream[2 * 188 + 1] << 8 | stream[2 * 188 + 2], 0x4100) << "a start on PID 0x100";
    EXPECT_EQ(Bytes(stream.end() - 2, stream.end()), hex("4199"));
}

TEST(Mkv, DeliversWhatIsBeforeACut)
{
    const Bytes file = MkvFile(SCENES).build();
    const std::string all = MkvDemuxer(file).run("99");
    testing::internal::CaptureStdout();
    for (auto end = file.begin(); end != file.end(); ++end) {
        // Of the last frame what is after the cut is 0.
        const std::string got = MkvDemuxer(Bytes(file.begin(), end)).run("99");
        const size_t whole = got.find_last_of(" ") + 1;
        EXPECT_EQ(got.substr(0, whole), all.substr(0, whole)) << end - file.begin();
    }
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(printed.find("ID: 0x00000001"), std::string::npos) << "half an ID";
}

}  // namespace

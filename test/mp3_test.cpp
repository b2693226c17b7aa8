#include "dmx_mp3.h"

#include <gtest/gtest.h>

#include <random>
#include <sstream>

#include "dmx_mp3_tt.h"
#include "heap.h"
#include "host_double.h"
#include "mp3_builder.h"

namespace {

// The demuxer over a file, for as long as the object lives.
struct Player {
    const Mp3 &mp3;
    Source source;

    explicit Player(const Mp3 &file)
        : mp3(file)
        , source(file.file)
    {
        GOLT_DMX_MP3Destroy();
        g_heap.held = 0;
        const LibraryCall watch;
        EXPECT_TRUE(GOLT_DMX_MP3Init(Source::read_proc, Source::seek_proc, &source));
    }
    ~Player()
    {
        const LibraryCall watch;
        EXPECT_TRUE(GOLT_DMX_MP3Destroy());
        EXPECT_EQ(g_heap.held, 0u);
    }

    // "i": whether there is stream info, its codecs (GOLT_codecs_t), hertz and channels. "@500": a
    // seek, with the packet "@19" to which it led, or the offset ">417" where none starts, or "!"
    // if it was false. "9": frames to read; "9:500-709" are their number and the times of the first
    // and the last.
    std::string run(const std::string &steps)
    {
        std::ostringstream out;
        std::istringstream words(steps);
        for (std::string word; words >> word;) {
            GOLT_streamInfo_t info = {};
            if (word == "i")
                out << ' ' << GOLT_DMX_MP3GetStreamInfo(&info) << ' ' << info.audioCodec << ' '
                    << info.videoCodec << ' ' << info.aud_sampleRate << ' ' << info.aud_numChannels;
            else if (word[0] == '@')
                out << ' ' << (GOLT_DMX_MP3SeekToTime(std::stoull(word.substr(1))) ? place() : "!");
            else
                out << ' ' << read(std::stoul(word));
        }
        return out.str().substr(1);
    }

    size_t offset() const { return static_cast<size_t>(source.position()); }

    // Whatever is read has to begin at a frame's start and to be what the file has from there on.
    std::string read(size_t most)
    {
        size_t at = offset();
        const std::vector<Frame> frames = read_frames(GOLT_DMX_MP3ReadFrame, most);
        for (const Frame &frame : frames) {
            EXPECT_TRUE(std::binary_search(mp3.starts.begin(), mp3.starts.end(), at)) << at;
            EXPECT_EQ(memcmp(frame.data.data(), mp3.file.data() + at, frame.data.size()), 0) << at;
            at += frame.data.size();
        }
        if (frames.empty()) return "0";
        return std::to_string(frames.size()) + ':' + std::to_string(frames[0].time_ms) + '-' +
               std::to_string(frames.back().time_ms);
    }

    std::string place() const
    {
        const auto packet = std::lower_bound(mp3.starts.begin(), mp3.starts.end(), offset());
        const bool f_start = packet != mp3.starts.end() && *packet == offset();
        return f_start ? '@' + std::to_string(packet - mp3.starts.begin())
                       : '>' + std::to_string(offset());
    }
};

TEST(Mp3, WalksFromHeaderToHeaderAndLooksForOne)
{
    // Ten frames are read, and a seek to packet 20, which starts at 522.5 ms, estimates 8340. The
    // search starts a quarter of a frame before it, at 8236, and takes 208 bytes at a time:
    // the first chunk ends at 8444. A true header, of packet 10, is at 8700.
    const auto with = [](const char *candidate, size_t at) {
        Bytes gap = Bytes(at - 4170) + hex(candidate);
        gap.resize(4530);
        return Mp3().frames(10).raw(gap).frames(1);
    };
    const struct {
        const char *name;
        Mp3 file;
        const char *steps, *trace;
    } rows[] = {
        {"Layer III", Mp3().frames(3), "i 9", "1 101 1 44100 2 3:0-52"},
        {"padded, mono", Mp3().frames(3, 0xFFFB92C0, 418), "i 9", "1 101 1 44100 1 3:0-52"},
        {"CRC, as MPEG-1", Mp3().frames(3, 0xFFF29000, 417), "i 9", "1 101 1 44100 2 3:0-52"},
        {"forbidden rate", Mp3().frames(3, 0xFFFBF400, 2997), "i 9", "1 101 1 48000 2 3:0-48"},
        {"Layer II", Mp3().frames(3, 0xFFFDE400, 1152), "i 9", "1 101 1 48000 2 3:0-48"},
        {"Layer I", Mp3().frames(3, 0xFFFF1800, 48), "i 9", "1 101 1 32000 2 3:0-24"},
        {"padded by a slot", Mp3().frames(3, 0xFFFFE200, 488), "i 9", "1 101 1 44100 2 3:0-17"},
        // 7 * 106997 / 4096 = 182.86; after the eighth frame each takes 36 ms.
        {"another rate", Mp3().frames(8).frames(3, 0xFFFB1800, 144), "8 3", "8:0-183 3:209-281"},
        {"no frame at the start", Mp3().raw(Bytes(4)).frames(3), "i @5000 9 9", "0 0 0 0 0 ! 0 0"},

        {"before the search", with("FFFB90", 8235), "10 @522", "10:0-235 @10"},
        {"with another bit rate", with("FFFBE2", 8236), "10 @522", "10:0-235 >8236"},
        {"just within a chunk", with("FFFB90", 8441), "10 @522", "10:0-235 >8441"},
        {"across two chunks", with("FFFB90", 8442), "10 @522", "10:0-235 @10"},
        {"another protection_bit", with("FFFA90", 8300), "10 @522", "10:0-235 @10"},
        {"another sampling frequency", with("FFFB94", 8300), "10 @522", "10:0-235 @10"},
        {"after a lone byte", with("FFFFFB90", 8300), "10 @522", "10:0-235 >8301"},

        {"no way to estimate", Mp3().frames(6), "@0 @5000 1", "! ! 1:0-0"},
        {"the next", Mp3().frames(600), "400 @10449 1", "400:0-10423 ! 1:10449-10449"},
        // The estimate less a quarter, 765 * 417 - 104; then there is no average, so no search.
        {"the end", Mp3().frames(600), "401 @20000 9 @13000", "401:0-10449 >318901 0 @401"},
    };
    for (const auto &row : rows)
        EXPECT_EQ(Player(row.file).run(row.steps), row.trace) << row.name;

    // A short header, a tag, no sync, no layer, two free rates, no sampling frequency.
    for (const char *tail :
         {"FFFB90", "54414700", "FFEB9000", "FFF99000", "FFFB0000", "FFFF0200", "FFFB9C00"})
        EXPECT_EQ(Player(Mp3().frames(2).raw(hex(tail))).run("9 @0 9"), "2:0-26 @0 2:0-26") << tail;
}

// ISO/IEC 11172-3, 2.4.2.3: the bit rates in kbit/s, with the forbidden one; in Layer I a slot has four bytes. The
// clock counts in 1/4096 ms: after 4096 frames it shows all of a frame's duration.
TEST(Mp3, KnowsTheSizeAndTheDurationOfEveryFrame)
{
    const struct {
        uint32_t header;
        uint64_t samples;
        std::vector<size_t> rates;
    } layers[] = {
        {0xFFFF0000, 384, {32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448, 999}},
        {0xFFFD0000, 1152, {32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384, 999}},
        {0xFFFB0000, 1152, {32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 999}},
    };
    for (const auto &layer : layers) {
        const size_t slot = layer.samples == 384 ? 4 : 1;
        for (const auto &[index, hertz] : {std::pair{0u, 44100u}, {1, 48000}, {2, 32000}}) {
            const auto size_at = [&, samplerate = hertz](size_t rate) {
                return static_cast<size_t>(layer.samples / 8) * rate * 1000 / slot / samplerate *
                       slot;
            };
            Mp3 sizes;
            for (uint32_t i = 0; i < layer.rates.size(); ++i)
                sizes.frames(1, layer.header | (i + 1) << 12 | index << 10,
                             size_at(layer.rates[i]));
            const uint32_t lowest = layer.header | 1 << 12 | index << 10;
            EXPECT_EQ(Player(sizes.frames(1, lowest, size_at(32))).read(99).substr(0, 3), "16:");
            EXPECT_EQ(Player(Mp3().frames(4097, lowest, size_at(32))).read(9999),
                      "4097:0-" + std::to_string(layer.samples * 4096000 / hertz));
        }
    }
}

TEST(Mp3, FillsAFrameThatIsCutWithZeros)
{
    // Of the bytes of a tag's size the top bits don't count: this one has 1 byte.
    Mp3 mp3 = Mp3().raw(hex("49443303000080808081 00")).frames(2);
    std::fill(mp3.file.begin() + 500, mp3.file.end(), uint8_t{0});
    Player player(mp3);
    player.source.fail_from = 500;
    EXPECT_EQ(player.run("9"), "2:0-26");
}

TEST(Mp3, LeavesASourceAloneThatIsGivenUp)
{
    const Mp3 mp3 = Mp3().frames(3);
    Player player(mp3);
    ASSERT_TRUE(GOLT_DMX_MP3Init(Source::read_proc, Source::seek_proc, &player.source));
    EXPECT_FALSE(GOLT_DMX_MP3ReadFrame(nullptr) || GOLT_DMX_MP3SeekToBytes(417));
    EXPECT_EQ(player.run("2"), "2:0-26");
    // Without its callbacks nothing is opened, and what is open stays as it is.
    EXPECT_FALSE(GOLT_DMX_MP3Init(nullptr, Source::seek_proc, &player.source) ||
                 GOLT_DMX_MP3Init(Source::read_proc, nullptr, &player.source));
    EXPECT_EQ(player.run("i 9 @26 1"), "1 101 1 44100 2 1:52-52 @1 1:26-26");
    {
        const LibraryCall watch;
        EXPECT_TRUE(GOLT_DMX_MP3Destroy());
    }
    const int calls = player.source.reads + player.source.seeks;
    EXPECT_EQ(player.run("@0 9"), "! 0");
    EXPECT_EQ(player.source.reads + player.source.seeks, calls);

    // Without memory, as they are now, the tables take nothing.
    POS_update(0, 100);
    EXPECT_FALSE(POS_seek(0, nullptr) || BRT_update(417) != 0);
}

TEST(Mp3, SearchesOnWhereSeeksAreRefused)
{
    // The search meets a header at once, takes 208 bytes and leaves the source inside of a frame.
    const Mp3 mp3 = Mp3().frames(3000);
    Player player(mp3);
    player.run("10");
    player.source.refuse_seeks = true;
    EXPECT_EQ(player.run("@50000 9"), ">4378 0");
    // Zeros up to the end of the file, 208 at a time.
    player.source.refuse_seeks = false;
    const Mp3 damaged = Mp3().frames(10).raw(Bytes(1 << 20));
    Player other(damaged);
    other.run("10");
    other.source.refuse_seeks = true;
    EXPECT_EQ(other.run("@50000 9"), ">1052746 0");
    EXPECT_LE(other.source.reads, (1 << 20) / 208 + 30);
}

TEST(Mp3, LeavesNoByteOfAFrameUnwritten)
{
    GOLT_memInit();
    uint8_t *block = GOLT_allocMem(1024);  // the one that the frame gets
    std::fill_n(block, 1024, uint8_t{0xA5});
    GOLT_freeMem(block);
    const tpf_read lie = [](void *source, uint8_t *buffer, uint32_t size) {
        const uint32_t got = Source::read_proc(source, buffer, size);
        return got == size ? size : size + 1;
    };
    Source source(hex("FFFB9000"));
    ASSERT_TRUE(GOLT_DMX_MP3Init(lie, Source::seek_proc, &source));
    GOLT_frame_t frame = {};
    ASSERT_TRUE(GOLT_DMX_MP3ReadFrame(&frame));
    EXPECT_EQ(std::count(frame.pb_data, frame.pb_data + frame.ui4_size, 0xA5), 0);
    const GOLT_frame_t before = frame;
    EXPECT_FALSE(GOLT_DMX_MP3ReadFrame(&frame));
    EXPECT_EQ(memcmp(&frame, &before, sizeof frame), 0) << "a frame that was refused";
    GOLT_freeMem(frame.pb_data);
    GOLT_DMX_MP3Destroy();
    GOLT_memClose();
}

TEST(Mp3, HasNoMuxerWithoutAFrame)
{
    Driver driver;
    Source source(Bytes(1000));
    Sink sink;
    PELA::IAVDemuxer demux = driver->createDemuxer("mp3", &source, source.size());
    EXPECT_TRUE(demux->isValid());
    EXPECT_EQ(driver->createMuxer(PELA::CONTAINER_TS, demux, &sink, false), nullptr);
    driver->destroyDemuxer(demux);
}

// In each second 13 frames of 144 bytes and 14 of 576, each of 36 ms, 9936 bytes together: the
// straight line of time and offset is wrong by several frames. 57000 frames are more than the fine
// list holds: it begins at packet 1728, its last entry is that of 56997. The coarse list has 0,
// 1666, 3332 and so on. The tracker has 95616 bytes in 256 packets, from 56744 on, 373.5 each.
TEST(Mp3, SeeksByWhatIsKnownAndIsPutRight)
{
    // Packet n starts at n * 36 ms. The frame that turns out to be a known one still has its time
    // by what was asked for, the next one has the true time. What lies after all that was read has
    // its time by the estimate, 45 packets too early.
    const struct {
        const char *name, *before, *steps, *trace;
    } rows[] = {
        {"fine, an entry", "", "@486000 750", "@13500 750:486000-512964"},
        {"to entry 13527", "", "@486468 10 740", "@13518 10:486468-486792 740:487008-513612"},
        {"coarse, an entry", "", "@59976 750", "@1666 750:59976-86940"},
        {"to entry 1666", "", "@36000 669 81", "@998 669:36000-60048 81:60012-62892"},
        {"to the fine list", "", "@61524 19 731", "@1710 19:61524-62172 731:62244-88524"},
        {"tracker since entry 1666", "@36000 750", "@60516 750", "@1681 750:60516-87480"},
        {"its begin", "@36000 750", "@59976 750", "@1666 750:59976-86940"},
        {"second fine list, an entry", "@36000 750", "@36972 750", "@1025 750:36972-63936"},
        {"after all", "", "@2160000 750", "@60045 750:2160000-2186964"},
        {"there, to entry 60099, and on to another", "@2160000 750", "@2161440 10 1100 @2188188 1",
         "@60090 10:2161440-2161764 1100:2161980-2201544 @60828 1:2188188-2188188"},
        {"after the last entry", "@2160000 750", "@2051928 750", "@56998 750:2051928-2078892"},
        {"to the tracker", "", "@2042748 8 742", "@56747 8:2042748-2043000 742:2043180-2069856"},
        // Only the low 32 bits of a time count.
        {"the tracker's oldest", "", "@4297010080 750", "@56744 750:2042784-2069748"},
    };
    Mp3 mp3;
    for (int second = 0; second < 2280; ++second)
        mp3.frames(13, 0xFFFB1800, 144).frames(14, 0xFFFB9800, 576);
    Player player(mp3);
    player.run("57000");
    for (const auto &row : rows) {
        // The second fine list and the tracker start again, and the tracker is sought in.
        player.run(std::string("@3600000 @2041200 200 @2044800 200 ") + row.before);
        EXPECT_EQ(player.run(row.steps), row.trace) << row.name;
    }
}

// The tables by themselves, with frames of such a duration that they fill soon.
TEST(Mp3, EstimatesOffsetsFromTheTables)
{
    const auto offset_of = [](uint32_t packet) {
        MP3Offset_t offset = 0;
        EXPECT_FALSE(POS_seek(packet, &offset)) << "not a known one";
        return offset;
    };
    const auto start = [](uint32_t ms_per_packet) {
        GOLT_DMX_MP3Destroy();
        g_pkttime_fixpt = int_to_fixpt(ms_per_packet);
        POS_init();
        BRT_init();
    };
    // Even the coarse list, of every 60th packet, has turned over twice.
    start(1000);
    for (uint32_t i = 0; i <= 60 * 2049; ++i) {
        BRT_update(100);
        POS_update(i, 1000 + 100 * i);
    }
    EXPECT_EQ(offset_of(50), 1000u + 50 * 100);
    BRT_reset(0, 0);
    BRT_update(200);
    EXPECT_EQ(offset_of(50), 0u) << "before the file by the average";

    // The frame that turns out to be the next known one has been counted by then.
    for (uint32_t i = 0; i <= 60 * 2049; ++i)
        POS_update(i, 1000 + 100 * i);
    EXPECT_EQ(offset_of(150), 1000u + 150 * 100);
    BRT_update(300);
    uint32_t packet = 0;
    EXPECT_TRUE(POS_syncPoint(160, 1000 + 180 * 100, &packet) && packet == 180);
    EXPECT_TRUE(BRT_timeWithin(180) && !BRT_timeWithin(181));
    EXPECT_EQ(BRT_aveBytesPerPkt(), int_to_fixpt(300));
    EXPECT_EQ(BRT_aveBytesPerSec(), int_to_fixpt(300));

    // One that is empty begins there.
    BRT_reset(0, 0);
    EXPECT_EQ(offset_of(150), 1000u + 150 * 100);
    EXPECT_TRUE(POS_syncPoint(160, 1000 + 180 * 100, &packet));
    BRT_update(300);
    EXPECT_TRUE(BRT_timeWithin(180));
    // Neither does the second fine list keep anything of its last span, in which it turned over.
    for (const uint32_t first : {1000000u, 2000000u}) {
        POS_seek(first, nullptr);
        for (uint32_t i = first; i < first + 2100; ++i)
            POS_update(i, i * 2);
    }
    POS_seek(3000000, nullptr);
    for (uint32_t i = 3000000; i < 3000003; ++i)
        POS_update(i, i * 3);
    MP3Offset_t offset = 0;
    EXPECT_TRUE(POS_seek(3000001, &offset) && offset == 3000001 * 3u);

    start(250);  // an entry for every fourth packet; the offsets fall
    for (uint32_t i = 0; i < 4; ++i)
        POS_update(i, 1000 - 10 * i);
    EXPECT_TRUE(POS_seek(0, &offset) && offset == 1000);
    EXPECT_EQ(offset_of(1), 990u);
    EXPECT_EQ(offset_of(3), 970u) << "the last one";
    EXPECT_TRUE(POS_syncPoint(3, 970, &packet) && packet == 3) << "is known when it comes";
    start(250);  // the first one to be seen lies after the second entry
    POS_update(6, 1000);
    EXPECT_EQ(offset_of(5), 1000u);
    start(6000);  // the first packet is the only entry
    for (uint32_t i = 0; i < 13; ++i)
        POS_update(i, 1000 + i * i * 100);
    EXPECT_EQ(offset_of(1), 1000u + 12 * 100);

    // The intervals of the lists, cut to whole packets: 1000 / 7, and 60000 / 29 with the fine list turned over.
    start(7);
    for (uint32_t i = 0; i <= 150; ++i)
        POS_update(i, i);
    EXPECT_TRUE(POS_seek(142, nullptr));
    start(29);
    for (uint32_t i = 0; i <= 34 * 2048 + 2100; ++i)
        POS_update(i, i);
    EXPECT_TRUE(POS_seek(2068, nullptr));
    GOLT_DMX_MP3Destroy();
}

TEST(Mp3, DeliversNothingButFramesWhateverTheTablesBelieve)
{
    const Mp3 mp3 = Mp3().raw(hex("494433030000 00000200") + Bytes(256)).variable_rate(3000, 1);
    std::mt19937 random(2);
    for (int turn = 0; turn < 50; ++turn) {
        std::string steps = "9999";
        for (int seek = 0; seek < 30; ++seek)
            steps += " @" + std::to_string(random() % 90000) + " " + std::to_string(random() % 300);
        Player(mp3).run(steps);
    }
}

}  // namespace

#include "dmx_mp3.h"

#include <gtest/gtest.h>

#include <random>

#include "dmx_mp3_tt.h"
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
        EXPECT_TRUE(GOLT_DMX_MP3Init(Source::read_proc, Source::seek_proc, &source));
    }
    ~Player() { EXPECT_TRUE(GOLT_DMX_MP3Destroy()); }

    size_t offset() const { return static_cast<size_t>(source.position()); }

    // Whatever is read has to begin at a frame's start and to be what the file has from there on.
    std::vector<Frame> read(size_t most = SIZE_MAX)
    {
        size_t at = offset();
        std::vector<Frame> frames = read_frames(GOLT_DMX_MP3ReadFrame, most);
        for (const Frame &frame : frames) {
            EXPECT_TRUE(std::binary_search(mp3.starts.begin(), mp3.starts.end(), at)) << at;
            EXPECT_EQ(memcmp(frame.data.data(), mp3.file.data() + at, frame.data.size()), 0) << at;
            at += frame.data.size();
        }
        return frames;
    }
};

TEST(Mp3Frames, AreMeasuredByTheirHeader)
{
    // Layer III, padded and mono, with CRC and measured as MPEG-1, with the forbidden bit rate;
    // Layer II; Layer I, padded by a slot.
    const struct {
        uint32_t header, size, second_ms, rate, channels;
    } rows[] = {
        {0xFFFB9000, 417, 26, 44100, 2},  {0xFFFB92C0, 418, 26, 44100, 1},
        {0xFFF29000, 417, 26, 44100, 2},  {0xFFFBF400, 2997, 24, 48000, 2},
        {0xFFFDE400, 1152, 24, 48000, 2}, {0xFFFF1800, 48, 12, 32000, 2},
        {0xFFFFE200, 488, 9, 44100, 2},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.header);
        const Mp3 mp3 = Mp3().frames(3, row.header, row.size);
        Player player(mp3);
        GOLT_streamInfo_t info = {};
        ASSERT_TRUE(GOLT_DMX_MP3GetStreamInfo(&info));
        EXPECT_EQ(info.audioCodec + info.videoCodec, GOLT_ACODEC_MP3 + GOLT_CODEC_NONE);
        EXPECT_EQ(info.aud_sampleRate, row.rate);
        EXPECT_EQ(info.aud_numChannels, row.channels);
        EXPECT_EQ(player.read(2).at(1).time_ms, row.second_ms);
        EXPECT_EQ(player.read().size(), 1u);
    }
}

TEST(Mp3Frames, KeepTheirTimesWithoutDrift)
{
    // 7 * 106997 / 4096 = 182.86; behind the eighth frame the rate changes, and each takes 36 ms.
    const Mp3 mp3 = Mp3().frames(8).frames(3, 0xFFFB1800, 144);
    std::vector<uint64_t> times;
    for (const Frame &frame : Player(mp3).read())
        times.push_back(frame.time_ms);
    EXPECT_EQ(times, (std::vector<uint64_t>{0, 26, 52, 78, 104, 131, 157, 183, 209, 245, 281}));
}

TEST(Mp3Frames, EndWhereTheNextHeaderIsMissing)
{
    // A short header, a tag, no sync, no layer, two free rates, no sampling frequency.
    for (const char *tail :
         {"FFFB90", "54414700", "FFEB9000", "FFF99000", "FFFB0000", "FFFF0200", "FFFB9C00"}) {
        SCOPED_TRACE(tail);
        const Mp3 mp3 = Mp3().frames(2).raw(hex(tail));
        Player player(mp3);
        EXPECT_EQ(player.read().size(), 2u);
        EXPECT_TRUE(GOLT_DMX_MP3SeekToTime(0)) << "the tables still know the frames";
        EXPECT_EQ(player.read().size(), 2u);
    }
}

TEST(Mp3Frames, CutShortAreFilledWithZeros)
{
    // Of the bytes of a tag's size the top bits don't count: this one has 1 byte.
    Mp3 mp3 = Mp3().raw(hex("49443303000080808081 00")).frames(2);
    std::fill(mp3.file.begin() + 500, mp3.file.end(), uint8_t{0});
    Player player(mp3);
    player.source.fail_from = 500;
    EXPECT_EQ(player.read().size(), 2u);
}

TEST(Mp3Source, WithoutAFrameInFrontHasNoStream)
{
    const Mp3 mp3 = Mp3().raw(Bytes(4)).frames(3);
    Player player(mp3);
    GOLT_streamInfo_t info = {};
    EXPECT_FALSE(GOLT_DMX_MP3GetStreamInfo(&info));
    EXPECT_FALSE(GOLT_DMX_MP3SeekToTime(5000));
    EXPECT_TRUE(player.read().empty());
    EXPECT_TRUE(player.read().empty()) << "also where a frame begins four bytes on";
}

TEST(Mp3Source, ThatIsGivenUpIsNotTouched)
{
    const Mp3 mp3 = Mp3().frames(3);
    Player player(mp3);
    ASSERT_TRUE(GOLT_DMX_MP3Init(Source::read_proc, Source::seek_proc, &player.source));
    EXPECT_FALSE(GOLT_DMX_MP3ReadFrame(nullptr) || GOLT_DMX_MP3SeekToBytes(417));
    EXPECT_EQ(player.read(2).size(), 2u);
    const int calls = player.source.reads + player.source.seeks;
    EXPECT_FALSE(GOLT_DMX_MP3Init(nullptr, Source::seek_proc, &player.source));
    EXPECT_FALSE(GOLT_DMX_MP3SeekToTime(0));
    EXPECT_TRUE(player.read().empty());
    EXPECT_EQ(player.source.reads + player.source.seeks, calls);

    // Without memory, as they are now, the tables take nothing.
    POS_update(0, 100);
    EXPECT_FALSE(POS_seek(0, nullptr) || BRT_update(417) != 0);
}

// In each second 13 frames of 144 bytes and 14 of 576, each of 36 ms, 9936 bytes together: the
// straight line of time and offset is wrong by several frames. 57000 frames are more than the fine
// list holds: it begins at packet 1728, its last entry is that of 56997. The coarse list has 0,
// 1666, 3332 and so on. The tracker has 95616 bytes in 256 packets, from 56744 on, 373.5 each.
TEST(Mp3Seek, LandsByWhatIsKnownAndIsPutRight)
{
    // via: packet of a seek before, behind which 750 frames are read, or 0. From packet sync + 1
    // on, the time stays behind the truth by as many packets as behind tells. The last three rows
    // read on past 57000, so that more is known after them.
    const struct {
        const char *name;
        int via, target, landed, sync, behind;
    } rows[] = {
        {"fine, on an entry", 0, 13500, 13500, 0, 0},
        {"fine, between entries", 0, 13513, 13518, 13527, 0},
        {"coarse, on an entry", 0, 1666, 1666, 0, 0},
        {"coarse, put right at its next entry", 0, 1000, 998, 1666, 0},
        {"coarse, put right where the fine list begins", 0, 1700, 1698, 1728, 0},
        {"in the window since it was put right", 1000, 1681, 1681, 0, 0},
        {"at the place where it was put right", 1000, 1666, 1666, 0, 0},
        {"in the second fine list, on an entry", 1000, 1027, 1025, 0, -2},
        {"behind all that was read", 0, 60000, 60045, 0, 45},
        {"there, between entries", 60000, 60040, 60090, 60099, 45},
        {"fine, behind the last entry", 60000, 56998, 56998, 0, 0},
        {"just in front of the tracker's window", 0, 56743, 56747, 56754, 0},
        {"the tracker's oldest", 0, 56744, 56744, 0, 0},
    };
    // Only the low 32 bits of a time count.
    const auto seek = [](int packet) {
        return GOLT_DMX_MP3SeekToTime((uint64_t{1} << 32) + static_cast<uint64_t>(packet) * 36);
    };
    Mp3 mp3;
    for (int second = 0; second < 2280; ++second)
        mp3.frames(13, 0xFFFB1800, 144).frames(14, 0xFFFB9800, 576);
    Player player(mp3);
    player.read(57000);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        // The second fine list and the tracker start again, and the tracker is sought in.
        ASSERT_TRUE(seek(100000) && seek(56700));
        player.read(200);
        ASSERT_TRUE(seek(56800));
        player.read(200);
        if (row.via > 0 && seek(row.via)) player.read(750);
        ASSERT_TRUE(seek(row.target));
        EXPECT_EQ(player.offset(), mp3.starts[static_cast<size_t>(row.landed)]);
        int packet = row.landed;
        for (const Frame &frame : player.read(750)) {
            const int late = packet > row.sync ? row.behind : row.landed - row.target;
            ASSERT_EQ(frame.time_ms, static_cast<uint64_t>(packet - late) * 36) << packet;
            ++packet;
        }
        EXPECT_EQ(packet, row.landed + 750);
    }
}

TEST(Mp3Seek, AtRandomDeliversFramesThatEndInTrueTimes)
{
    const Mp3 mp3 = Mp3().raw(hex("494433030000 00000200") + Bytes(256)).variable_rate(3000, 1);
    std::mt19937 random(2);
    for (int turn = 0; turn < 50; ++turn) {
        Player player(mp3);
        player.read();
        const uint64_t time_ms = random() % 70000;
        ASSERT_TRUE(GOLT_DMX_MP3SeekToTime(time_ms));
        const auto landed = std::lower_bound(mp3.starts.begin(), mp3.starts.end(), player.offset());
        const std::vector<Frame> frames = player.read(120);
        EXPECT_LT(time_ms - frames.at(0).time_ms + 1, 28u) << "in the packet that plays then";
        const auto last = static_cast<double>(landed - mp3.starts.begin() + 119);
        EXPECT_NEAR(static_cast<double>(frames.at(119).time_ms), last * 106997 / 4096, 0.5);

        // Whatever the tables have come to believe, no seek delivers anything but frames.
        for (int seek = 0; seek < 30; ++seek) {
            GOLT_DMX_MP3SeekToTime(random() % 90000);
            if (player.read(random() % 300 + 1).empty()) GOLT_DMX_MP3SeekToTime(0);
        }
    }
}

// Ten frames are read, and a seek to packet 20, which starts at 522.5 ms, estimates 8340. The
// search starts a quarter of a frame in front of it, at 8236, and takes 208 bytes at a time: the
// first chunk ends at 8444. A true header stands at 8700.
TEST(Mp3Seek, LooksForAHeaderOfTheStream)
{
    const struct {
        const char *name, *candidate;
        size_t at, landed;
    } rows[] = {
        {"in front of the search", "FFFB90", 8235, 8700},
        {"at its start, with another bit rate", "FFFBE2", 8236, 8236},
        {"just within a chunk", "FFFB90", 8441, 8441},
        {"across two chunks", "FFFB90", 8442, 8700},
        {"another protection_bit", "FFFA90", 8300, 8700},
        {"another sampling frequency", "FFFB94", 8300, 8700},
        {"behind a lone byte", "FFFFFB90", 8300, 8301},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Mp3 mp3 = Mp3().frames(10).raw(Bytes(4530)).frames(1);
        const Bytes candidate = hex(row.candidate);
        std::copy(candidate.begin(), candidate.end(), mp3.file.data() + row.at);
        Player player(mp3);
        player.read(10);
        ASSERT_TRUE(GOLT_DMX_MP3SeekToTime(522));
        EXPECT_EQ(player.offset(), row.landed);
    }
}

TEST(Mp3Seek, GoesNowhereOrBehindTheEnd)
{
    const Mp3 mp3 = Mp3().frames(600);
    Player player(mp3);
    EXPECT_FALSE(GOLT_DMX_MP3SeekToTime(0)) << "there already";
    EXPECT_FALSE(GOLT_DMX_MP3SeekToTime(5000)) << "nothing to estimate by";
    player.read(400);
    EXPECT_FALSE(GOLT_DMX_MP3SeekToTime(10449)) << "the next frame, at 10448.9 ms";
    EXPECT_EQ(player.read(1).at(0).time_ms, 10449u);
    ASSERT_TRUE(GOLT_DMX_MP3SeekToTime(20000));
    EXPECT_EQ(player.offset(), 765u * 417 - 104) << "the estimate less a quarter";
    EXPECT_TRUE(player.read().empty());
    ASSERT_TRUE(GOLT_DMX_MP3SeekToTime(13000));
    EXPECT_EQ(player.offset(), 401u * 417) << "no average, so no search";
}

}  // namespace

#include "ts_checker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bytes.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

typedef std::vector<Bytes> Packets;

// The adaptation field fills what the payload leaves. field: its flags and what they announce.
Bytes packet(uint32_t head, uint8_t counter, const Bytes &payload, Bytes field = {})
{
    const size_t room = 184 - payload.size();
    const bool has_field = room > 0;
    if (has_field && room > 1 && field.empty()) field = {0};
    if (has_field) field.resize(room - 1, 0xFF);
    const int control = (payload.empty() ? 0 : 0x10) + (has_field ? 0x20 : 0) + counter;
    Bytes out = Bytes{0x47} + be16(head) + be(static_cast<uint64_t>(control), 1);
    if (has_field) out += be(field.size(), 1) + field;
    return out + payload;
}

Bytes table(uint32_t head, uint8_t counter, Bytes sections)
{
    sections.resize(184, 0xFF);
    return packet(head, counter, sections);
}

const Bytes pat = hex("00 B00D 0001 C1 00 00 0001 EFFF 3690E23D");
const Bytes pmt =
    hex("02 B01D 0001 C1 00 00 E100 F000 1BE100F000 81E101F006 05 04 41432D33 CE50FCBC");
const Bytes clock_field = hex("10 0000AFC87F2B");  // a PCR of 1 s and the highest extension, 299
const Bytes picture = pattern(162 + 184, 1);
const Bytes sound = pattern(100, 2);

// What may look odd and is sound: a PMT in two packets, a packet sent twice, one without payload.
Packets sound_stream()
{
    const Bytes video = hex("000001 E0 0162 808005 2100 05BF21") + picture;
    const Bytes audio = hex("000001 BD 0071 80C00A 3100 05BF21 1100 05BF21") + sound;
    const Bytes first(video.begin(), video.begin() + 176), rest(video.begin() + 176, video.end());
    return {table(0x4000, 15, Bytes{0} + pat),
            packet(0x4FFF, 0, Bytes{0} + Bytes(pmt.begin(), pmt.begin() + 10)),
            table(0x0FFF, 1, Bytes(pmt.begin() + 10, pmt.end())),
            packet(0x4100, 7, first, clock_field),
            packet(0x0100, 8, rest),
            packet(0x0100, 8, rest),
            packet(0x0100, 8, {}),
            packet(0x4101, 0, audio),
            table(0x4000, 0, Bytes{0} + pat)};
}

TsReport check(const Packets &packets)
{
    Bytes stream;
    for (const Bytes &each : packets)
        stream += each;
    return check_ts(stream.data(), stream.size());
}

TEST(TsChecker, ReadsASoundStream)
{
    const TsReport report = check(sound_stream());
    EXPECT_THAT(report.problems, IsEmpty());
    EXPECT_EQ(report.packets, 9u);
    EXPECT_THAT(report.pat_packets, ElementsAre(0, 8));
    ASSERT_EQ(report.programs.size(), 1u);
    const TsProgram &program = report.programs[0];
    EXPECT_EQ(program.pmt_pid, 0xFFF);
    EXPECT_EQ(program.pcr_pid, 0x100);
    EXPECT_EQ(program.section, pmt);
    ASSERT_EQ(program.streams.size(), 2u);
    EXPECT_EQ(program.streams[1].type, 0x81);
    EXPECT_EQ(program.streams[1].pid, 0x101);
    EXPECT_EQ(program.streams[1].descriptors, hex("0504") + text("AC-3"));
    ASSERT_EQ(report.pes.size(), 2u);
    EXPECT_EQ(report.pes[0].payload, picture);
    EXPECT_EQ(report.pes[0].pts, 90000u);
    EXPECT_EQ(report.pes[0].pcr, 27000299u);
    EXPECT_EQ(report.pes[1].packet, 7u);
    EXPECT_EQ(report.pes[1].stream_id, 0xBD);
    EXPECT_EQ(report.pes[1].dts, 90000u);
    EXPECT_EQ(report.pes[1].payload, sound);
}

TEST(TsChecker, AcceptsLengthsThatDoNotFitTheirField)
{
    Packets packets = sound_stream();
    packets.resize(3);
    for (int i = 0; i < 400; ++i)
        packets.push_back(packet(i == 0 ? 0x4101 : 0x0101, i & 15,
                                 i == 0 ? hex("000001 BD 1F7A 800000") + Bytes(175) : Bytes(184)));
    EXPECT_THAT(check(packets).problems, IsEmpty()) << "400 * 184 - 6 is 0x11F7A";
}

// The first problem that is found, behind the number of its packet.
void expect_problem(const Packets &packets, size_t at, const std::string &problem)
{
    const TsReport report = check(packets);
    ASSERT_FALSE(report.problems.empty()) << problem;
    EXPECT_EQ(report.problems[0], "packet " + std::to_string(at) + ", PID " + problem);
}

TEST(TsChecker, FindsAWrongByte)
{
    struct {
        size_t packet, offset;
        uint8_t byte;
        const char *problem;
    } const rows[] = {
        {6, 0, 0x48, "0x1FFF: no sync byte"},
        {8, 1, 0xC0, "0x0: transport_error_indicator is set"},
        {6, 3, 0x08, "0x100: adaptation_field_control is 0"},
        {8, 3, 0x90, "0x0: a table is scrambled"},
        {8, 3, 0x11, "0x0: continuity_counter is 1, expected 0"},
        {6, 3, 0x29, "0x100: continuity_counter is 9, expected 8"},
        {5, 187, 0, "0x100: continuity_counter is 8, expected 9"},
        {6, 4, 182, "0x100: adaptation_field_length doesn't fit the packet"},
        {7, 4, 183, "0x101: adaptation_field_length doesn't fit the packet"},
        {6, 6, 0, "0x100: stuffing of the adaptation field isn't 0xFF"},
        {6, 5, 0x02, "0x100: the adaptation field is too short for its flags"},
        {3, 11, 0x2C, "0x100: the PCR extension is 300 or more"},
        {8, 4, 184, "0x0: pointer_field points out of the packet"},
        {8, 9, 2, "0x0: wrong CRC_32"},
        {8, 100, 0, "0x0: bytes behind the last section"},
        {3, 14, 2, "0x100: no packet_start_code_prefix where a PES packet starts"},
        {3, 1, 1, "0x100: payload in front of the first PES packet"},
        {3, 17, 0x63, "0x100: PES_packet_length is 355, found 354"},
        {3, 18, 0, "0x100: the PES header doesn't begin with '10'"},
        {3, 19, 0x40, "0x100: PTS_DTS_flags is '01'"},
        {3, 19, 0x90, "0x100: PES_header_data_length is too small"},
        {3, 20, 6, "0x100: stuffing of the PES header isn't 0xFF"},
        {3, 21, 0x31, "0x100: wrong prefix or marker bits of a PTS or DTS"},
        {3, 25, 0x20, "0x100: wrong prefix or marker bits of a PTS or DTS"},
    };
    for (const auto &row : rows) {
        Packets packets = sound_stream();
        packets[row.packet][row.offset] = row.byte;
        expect_problem(packets, row.packet, row.problem);
    }
}

TEST(TsChecker, FindsWrongOrder)
{
    const Packets p = sound_stream();
    const Packets tables = {p[0], p[1], p[2]};
    const auto after_tables = [&](const Packets &more) {
        Packets all = tables;
        all.insert(all.end(), more.begin(), more.end());
        return all;
    };
    expect_problem(after_tables({Bytes(187)}), 3, "0x1FFF: the last packet is cut short");
    expect_problem(after_tables({p[4]}), 3, "0x100: payload in front of the first PES packet");
    expect_problem(after_tables({p[3], p[4], p[5], p[5]}), 6,
                   "0x100: continuity_counter is 8, expected 9");
    expect_problem(after_tables({p[6]}), 4, "0x100: the PCR_PID brings no PCR");
    expect_problem(after_tables({packet(0x4101, 0, hex("000001 BD 0001 80"))}), 3,
                   "0x101: a PES packet is shorter than its header");
    expect_problem(after_tables({packet(0x4101, 0, hex("000001 BD 0000 800000"))}), 3,
                   "0x101: PES_packet_length is 0, found 3");
    expect_problem({p[0], p[1], packet(0x4FFF, 1, {0})}, 2, "0xFFF: a section is cut short");
    expect_problem({p[0], table(0x4FFF, 0, Bytes{0} + pat)}, 1, "0xFFF: wrong table_id");
    expect_problem({p[0], p[3], p[1], p[2]}, 1, "0x100: a PES packet that no PMT has announced");
    expect_problem({p[1], p[2], p[0]}, 2, "0xFFF: the PMT comes before the PAT");
    expect_problem({p[0]}, 1, "0xFFF: there is no PMT");
    expect_problem({p[6]}, 1, "0x0: there is no PAT");
}

TEST(TsChecker, TakesAnyBytes)
{
    for (uint32_t seed = 0; seed < 2000; ++seed) {
        Packets packets = sound_stream();
        const Bytes dice = pattern(24, seed);
        for (size_t i = 0; i < dice.size(); i += 3)
            packets[dice[i] % 9][dice[i + 1] % (i < 12 ? 188u : 24u)] = dice[i + 2];
        EXPECT_LE(check(packets).pes.size(), 9u);
    }
}

}  // namespace

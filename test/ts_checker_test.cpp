#include "ts_collector.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "bytes.h"

namespace {

using ::testing::Contains;
using ::testing::HasSubstr;

Bytes packet(const std::string &front, const Bytes &back = {})
{
    Bytes out = hex(front);
    out.resize(188 - back.size(), 0xFF);
    return out + back;
}

// 0 to 6 are a valid stream: PAT, PMT, three packets of video, the last without payload, audio, and
// the PAT again. The highest PCR extension is 299. After them a PAT on the PMT's PID, an audio packet that
// is too short, and a piece of a packet.
const std::vector<Bytes> PACKETS = {
    packet("4740001F 00 00B00D0001C1000000 01EFFF3690E23D"),
    packet("474FFF10 00 02B01D0001C10000E100F000 1BE100F000 81E101F006050441432D33 CE50FCBC"),
    packet("4741003F 07 100000AFC87F2B", hex("000001E0 0162 808005 210005BF21") + pattern(162, 1)),
    packet("47010010", pattern(184, 2)),
    packet("47010020 B7 00"),
    packet("47410130 40 00", hex("000001BD 0071 80C00A 310005BF21 110005BF21") + pattern(100, 3)),
    packet("47400010 00 00B00D0001C1000000 01EFFF3690E23D"),
    packet("474FFF10 00 00B00D0001C1000000 01EFFF3690E23D"),
    packet("47410130 B0 00", hex("000001BD 0001 80")),
    Bytes(100, 0x47)};

// order: the numbers of the packets. change: of one of them, an offset in it, and the byte that comes
// there.
TsReport check(const std::string &order, const Bytes &change = {0, 0, 0x47})
{
    std::vector<Bytes> packets = PACKETS;
    packets[change[0]][change[1]] = change[2];
    Bytes stream;
    for (const char digit : order)
        stream += packets[static_cast<size_t>(digit - '0')];
    return check_ts(stream);
}

TEST(TsChecker, ReadsAnAudioStream)
{
    const TsReport report = check("01233456");  // a packet may come twice
    EXPECT_THAT(report.problems, ::testing::IsEmpty());
    EXPECT_EQ(report.pat_packets, (std::vector<size_t>{0, 7}));
    EXPECT_EQ(report.pes.at(0).payload, pattern(162, 1) + pattern(184, 2));
    EXPECT_EQ(report.pes.at(0).pcr, 27000299u);
}

TEST(TsChecker, FindsAFault)
{
    struct Row {
        const char *fault, *problem;
    };
    const Row changes[] = {
        {"040048", "no sync byte"},   {"0601C0", "as damaged"},      {"060390", "is scrambled"},
        {"040300", "has no content"}, {"060311", "counter jumps"},   {"040321", "counter jumps"},
        {"0404B6", "fit the packet"}, {"0504B7", "fit the packet"},  {"020B2C", "300 or more"},
        {"040502", "unexpected"},     {"040600", "wrong stuffing"},  {"020406", "for its flags"},
        {"0604B8", "fit its packet"}, {"060100", "fit its packet"},  {"066300", "bytes after"},
        {"060902", "wrong CRC_32"},   {"020E02", "start_code"},      {"021163", "packet_length"},
        {"054A00", "packet_length"},  {"021200", "flags of a PES"},  {"021340", "flags of a PES"},
        {"021404", "is too small"},   {"021406", "fields of a PES"}, {"021531", "wrong prefix"},
        {"021920", "or marker bits"}, {"020500", "without PCR"},
    };
    for (const Row &row : changes)
        EXPECT_THAT(check("0123456", hex(row.fault)).problems, Contains(HasSubstr(row.problem)));
    const Row orders[] = {
        {"01233356", "more than twice"}, {"07", "section's header"},
        {"10", "comes before the PAT"},  {"0", "or PMT is missing"},
        {"021", "no PMT has announced"}, {"013", "payload before"},
        {"018", "shorter than its"},     {"01234569", "packet is cut short"},
    };
    for (const Row &row : orders)
        EXPECT_THAT(check(row.fault).problems, Contains(HasSubstr(row.problem)));
}

TEST(TsChecker, TakesAnyBytes)
{
    for (uint32_t i = 0; i < 7 * 25 * 256; i += 11)
        check("0123459", be(i % 7, 1) + be(i / 7 % 25, 1) + be(i / 7 / 25, 1));
}

}  // namespace

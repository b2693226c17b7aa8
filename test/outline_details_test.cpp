// What `golt info` tells of a file beyond its outline: attachments, layers of MPEG audio, profiles of H.264.

#include <gtest/gtest.h>

#include "memory_source.h"
#include "mkv_builder.h"
#include "mp3_builder.h"
#include "mp4_builder.h"
#include "selection.h"

namespace {

Outline details_of(const Bytes &file)
{
    Memory memory(file);
    Outline outline = read_outline(memory);
    read_details(memory, outline);
    return outline;
}

Bytes id3(uint8_t version, const Bytes &frames, uint8_t flags = 0)
{
    const size_t size = frames.size();  // seven bits in each byte
    return text("ID3") + Bytes{version, 0, flags} + Bytes(2) + be(size >> 7, 1) +
           be(size & 0x7F, 1) + frames;
}

Bytes picture(const Bytes &body)
{
    return text("APIC") + be32(static_cast<uint32_t>(body.size())) + Bytes(2) + body;
}

/// A film with a list of metadata in its movie box, which comes last.
Bytes movie_with(const Bytes &list)
{
    Mp4Track track = Mp4Track::video();
    Mp4File film;
    film.order = {"ftyp", "mdat", "moov"};
    Bytes file = film.add(track.sample(nal({0x65, 1}))).build();
    const Bytes name = text("moov"), user = box("udta", box("meta", Bytes(4) + box("ilst", list)));
    const auto moov = std::search(file.begin(), file.end(), name.begin(), name.end()) - 4;
    const Bytes size = be(static_cast<uint64_t>(file.end() - moov) + user.size(), 4);
    std::copy(size.begin(), size.end(), moov);
    return file + user;
}

/// A film with an attachment after its cluster, to which the SeekHead leads.
Bytes film_with_last(const std::string &attachment)
{
    const auto build = [&](size_t place) {
        return MkvFile("=114D9B74[4DBB[53AB[1941A469]53AC[#" + std::to_string(place) +
                       "]]] t1['A_AAC'] C0 s1(9) . =1941A469[" + attachment + "]")
            .build();
    };
    const Bytes file = build(0), name = hex("1941A469");
    const auto place = std::find_end(file.begin(), file.end(), name.begin(), name.end());
    const uint64_t segment = outline_of(file).matroska.segment_begin;
    return build(static_cast<size_t>(place - file.begin()) - static_cast<size_t>(segment));
}

}  // namespace

TEST(OutlineDetails, ListsWhatIsAttached)
{
    const Bytes frames = Mp3().frames(3).file, words = text("TIT2") + be32(3) + Bytes(2) + Bytes(3);
    const Bytes cover =
        Bytes{0} + text("image/png") + Bytes{0, 3} + text("d") + Bytes(1) + Bytes(99);
    const Bytes wide = Bytes{1} + text("image/jpeg") + Bytes{0, 4} + hex("FFFE64000000") + Bytes(7);
    const std::string file = "61A7[466E['a.png']4660['image/png']465C[00*40]]";
    const auto data = [](uint32_t type, size_t size) {
        return box("data", be32(type) + be32(0) + Bytes(size));
    };
    using Files = std::vector<std::string>;
    const struct {
        const char *name;
        Bytes bytes;
        Files files;
    } rows[] = {
        {"Matroska",
         MkvFile("h0 t1['A_AAC'] . =1941A469[" + file + "61A7[465C[00*9]]] C0 s1(9)").build(),
         {"a.png image/png 40", "  9"}},
        {"Matroska, at the end", film_with_last(file), {"a.png image/png 40"}},
        {"MP4",
         movie_with(box("covr", data(13, 50) + data(14, 60)) + box("\xA9nam", data(1, 5))),
         {"cover image/jpeg 50", "cover image/png 60"}},
        {"ID3v2.3",
         id3(3, words + picture(cover) + picture(wide)) + frames,
         {"cover image/png 99", " image/jpeg 7"}},
        {"ID3v2.4 in a second tag",
         id3(4, words) + id3(4, picture(cover)) + frames,
         {"cover image/png 99"}},
        {"stuffed", id3(3, picture(cover), 0x80) + frames, {}},
        {"a frame beyond its tag", id3(3, text("APIC") + be32(5000) + Bytes(60)) + frames, {}},
        {"a picture that ends in its description",
         id3(3, picture({0, 'a', 0, 3, 'd'})) + frames,
         {}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Files files;
        for (const Attachment &attachment : details_of(row.bytes).attachments)
            files.push_back(attachment.name + " " + attachment.media_type + " " +
                            std::to_string(attachment.size));
        EXPECT_EQ(files, row.files);
    }
}

TEST(OutlineDetails, NamesTheLayerOfMpegAudioInMp4)
{
    const struct {
        uint8_t object_type;
        uint32_t header;
        const char *title;
    } rows[] = {
        {0x6B, 0xFFFB9000, "MP3"},
        {0x6B, 0xFFFD9000, "MPEG audio Layer II"},
        {0x69, 0xFFF79000, "MPEG audio Layer I"},
        {0x69, 0xFFF380C0, "MPEG-2 MP3"},
        {0x6B, 0x00000000, "MP3"},
        {0x40, 0xFFFD9000, "AAC"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.title);
        Mp4Track track = Mp4Track::audio();
        track.object_type = row.object_type;
        const Outline outline =
            outline_of(Mp4File().add(track.sample(be32(row.header) + Bytes(400))).build());
        EXPECT_EQ(codec_title(outline, outline.tracks.at(0)), row.title);
    }
}

TEST(OutlineDetails, NamesProfilesAndLevelsOfH264)
{
    const struct {
        const char *config, *profile, *level;
    } rows[] = {
        {"0164000D", "High", "1.3"},
        {"01640028", "High", "4"},
        {"0142C01E", "Constrained Baseline", "3"},
        {"0142001E", "Baseline", "3"},
        {"014D100B", "Main", "1b"},
        {"0164100B", "High", "1.1"},
        {"01640009", "High", "1b"},
        {"016E0033", "High 10", "5.1"},
        {"01010014", "profile 1", "2"},
        {"016400", "", ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.config);
        const std::string private_data = "63A2[" + std::string(row.config) + "]";
        const Outline outline =
            outline_of(MkvFile("t1['V_MPEG4/ISO/AVC']" + private_data + " C0 s1(9)").build());
        EXPECT_EQ(h264_profile(outline, outline.tracks.at(0)), row.profile);
        EXPECT_EQ(h264_level(outline, outline.tracks.at(0)), row.level);
    }
}

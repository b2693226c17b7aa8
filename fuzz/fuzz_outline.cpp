// The outline of any file and what follows from it, from a source that may not know its size, may end early, and may fail.

#include <algorithm>
#include <cstring>

#include "cluster_walk.h"
#include "counted_new.h"
#include "even_index.h"
#include "outline.h"
#include "selection.h"
#include "sync_point.h"
#include "watch.h"

namespace {

/// The first byte of an input says how the source behaves, the second when it fails; the file follows.
class FuzzedBytes final : public ByteSource {
public:
    FuzzedBytes(const uint8_t *pb_data, size_t size)
        : m_f_knows_size((pb_data[0] & 1) != 0)
        , m_f_claims_more((pb_data[0] & 2) != 0)
        , m_fails_from((pb_data[0] & 4) != 0 ? pb_data[1] : UINT32_MAX)
        , m_file(pb_data + 2, pb_data + size)
    {
    }

    size_t read_at(uint64_t offset, uint8_t *buffer, size_t /*least*/, size_t size) override
    {
        require(++m_reads <= m_most, "a file is read a limited number of times");
        if (m_reads > m_fails_from || offset >= m_file.size()) return 0;
        const size_t at = static_cast<size_t>(offset);
        const size_t count = std::min(size, m_file.size() - at);
        memcpy(buffer, m_file.data() + at, count);
        return count;
    }
    uint64_t size() const override
    {
        return m_f_knows_size ? m_file.size() + (m_f_claims_more ? uint64_t{1} << 40 : 0) : 0;
    }

    void allow(uint32_t more) { m_most = m_reads + more; }

private:
    const bool m_f_knows_size, m_f_claims_more;
    const uint32_t m_fails_from;
    const std::vector<uint8_t> m_file;
    uint32_t m_reads = 0;
    uint32_t m_most = Reader::MOST_LOADS;
};

bool is_printable(const std::string &text)
{
    return std::all_of(text.begin(), text.end(),
                       [](char letter) { return letter >= 0x20 && letter < 0x7F; });
}

// It has what the file has, and not more than it may.
void check_index(const EvenIndex &index, const Outline &outline, const Selection &selection)
{
    constexpr size_t MOST = 16 * 1024 * 1024 + 256 * 1024, MOST_LOOKED_AT = 1024 * 1024;
    require(index.head.size() <= MOST, "an index has a limited size");
    require(std::is_sorted(index.keys.begin(), index.keys.end()), "key samples in their order");
    if (index.head.size() > MOST_LOOKED_AT) return;
    std::vector<uint8_t> head = {1, 0};
    head.insert(head.end(), index.head.begin(), index.head.end());
    FuzzedBytes bytes(head.data(), head.size());
    const Outline other = read_outline(bytes);
    require(other.tracks.size() == 2, "an index has two tracks");
    for (const TrackKind kind : {TrackKind::VIDEO, TrackKind::AUDIO}) {
        const Mp4Details &from = outline.tracks[*selection.taken(outline, kind)].mp4;
        const Mp4Details &to = other.tracks[kind == TrackKind::VIDEO ? 0 : 1].mp4;
        require(to.bytes == from.bytes && to.samples >= from.samples, "with all samples");
        require(to.ticks && from.ticks && *to.ticks <= *from.ticks, "and no time beside theirs");
    }
}

void follow(FuzzedBytes &source, const Outline &outline, uint32_t time_ms)
{
    const CallWatch watch;
    const Selection selection = select_tracks(outline);
    require(selection.choices.size() == outline.tracks.size(), "a choice for each track");
    for (const std::vector<std::string> *lines : {&selection.losses, &selection.notes}) {
        for (const std::string &line : *lines)
            require(is_printable(line), "lines can be printed");
    }
    source.allow(Reader::MOST_LOADS);
    const std::optional<EvenIndex> even_index = make_even_index(source, outline, selection);
    if (even_index) check_index(*even_index, outline, selection);
    source.allow(3 * 3 * 8192 + 4096);
    find_sync_point(source, outline, selection, time_ms, false,
                    even_index ? &*even_index : nullptr);
    source.allow(1u << 17);
    list_key_pictures(source, outline, selection, [](int64_t) {});
    WalkOptions options;
    options.most_loads = 4096;
    source.allow(options.most_loads);
    const ClusterWalk walk = walk_clusters(source, outline, options);
    require(!walk.f_whole || !walk.damaged_at, "what is whole isn't damaged");
    source.allow(Reader::MOST_LOADS);
    find_next_file(source, outline);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *pb_data, size_t size)
{
    if (size < 2) return 0;
    begin_input();
    FuzzedBytes source(pb_data, size);
    Outline outline;
    {
        const CallWatch watch;
        outline = read_outline(source);
    }
    source.allow(Reader::MOST_LOADS);
    {
        const CallWatch watch;
        read_details(source, outline);
    }
    require(outline.tracks.size() <= Outline::MOST_TRACKS, "tracks are limited");
    require(outline.attachments.size() <= Outline::MOST_ATTACHMENTS, "attachments are limited");
    require(outline.matroska.cues.size() <= Outline::MOST_CUES, "cues are limited");
    require(outline.duration_ns.value_or(0) >= 0, "a duration isn't negative");
    for (const Track &track : outline.tracks) {
        require(track.mp4.edits.size() <= Outline::MOST_EDITS, "edits are limited");
        require(track.config.size() <= Outline::MOST_CONFIG, "the decoder's setup is limited");
        require(track.duration_ns.value_or(0) >= 0, "a track's duration isn't negative");
        require(is_printable(track.codec) && is_printable(track.language) &&
                    is_printable(track.handler),
                "texts can be printed");
        parse_audio_config(track.config);
    }
    follow(source, outline, static_cast<uint32_t>(pb_data[1]) * 40);
    return 0;
}

#include "cluster_walk.h"

#include <algorithm>

#include "ebml.h"

using namespace outline;

namespace {

constexpr size_t MOST_TRACKS = 256;  // that are distinguished

/// The walk over one file.
class Walker {
public:
    Walker(const WalkOptions &options, ClusterWalk &walk)
        : m_options(options)
        , m_walk(walk)
    {
    }

    /// Takes an element of the segment. False where the walk ends.
    bool take(const Element &element, Stretch &segment);

private:
    bool take_cluster(const Element &cluster);
    bool take_child(const Element &child);
    bool take_block(Stretch body, bool f_key, bool f_simple);
    bool take_group(const Element &group);
    bool end_damaged(uint64_t offset);

    const WalkOptions &m_options;
    ClusterWalk &m_walk;
    uint64_t m_cluster = 0;  // offset of the present one
    int64_t m_time = 0;      // of it
    bool m_f_open = false;   // it states no size: its children come as those of the segment
    std::optional<uint64_t> m_other;  // offset of an element after a cluster that is none
};

}  // namespace

ClusterWalk walk_clusters(ByteSource &source, const Outline &outline, const WalkOptions &options)
{
    ClusterWalk walk;
    if (!outline.matroska.first_cluster) return walk;
    Reader reader(source, options.most_loads);
    const uint64_t segment_end = outline.matroska.segment_end.value_or(UINT64_MAX);
    const uint64_t from = options.from != 0 ? options.from : *outline.matroska.first_cluster;
    Stretch segment(reader, from, std::min(reader.size(), segment_end));
    Walker walker(options, walk);
    for (;;) {
        const uint64_t at = segment.at();
        const std::optional<Element> element = next_element(segment);
        if (reader.is_exhausted()) return walk;
        if (!element) {
            // A few bytes at the end of a file are the rest of an element's header.
            constexpr uint64_t LONGEST_HEADER = 12;
            const bool f_end = at >= std::min(reader.size(), segment_end);
            if (f_end) break;
            if (reader.knows_size() && reader.size() - at <= LONGEST_HEADER)
                walk.cut_in = at;
            else if (reader.knows_size())
                walk.damaged_at = at;
            return walk;
        }
        if (!walker.take(*element, segment)) return walk;
    }
    walk.f_whole = !walk.parted_at;
    return walk;
}

namespace {

bool is_top_level(uint32_t name)
{
    static const uint32_t NAMES[] = {id::SEEK_HEAD,    id::INFO,  id::TRACKS,      id::CUES,
                                     id::CHAPTERS,     id::TAGS,  id::ATTACHMENTS, id::CLUSTER,
                                     id::VOID_ELEMENT, id::CRC_32};
    return std::find(std::begin(NAMES), std::end(NAMES), name) != std::end(NAMES);
}

bool Walker::take(const Element &element, Stretch &segment)
{
    if (element.id == id::CLUSTER) {
        if (m_other && !m_walk.parted_at) m_walk.parted_at = m_other;
        m_cluster = element.begin;
        m_f_open = element.f_open;
        if (m_f_open) {
            segment = Stretch(segment.reader(), element.body.at(), segment.end());
            return true;
        }
        return take_cluster(element);
    }
    if (!is_top_level(element.id) || (m_f_open && element.id == id::VOID_ELEMENT))
        return m_f_open ? take_child(element) : end_damaged(element.begin);
    m_f_open = false;
    if (!m_other) m_other = element.begin;
    // What is cut after the clusters is no media.
    return element.is_whole();
}

bool Walker::take_cluster(const Element &cluster)
{
    Stretch body = cluster.body;
    while (body.left() > 0) {
        const uint64_t at = body.at();
        const std::optional<Element> child = next_element(body);
        if (body.reader().is_exhausted()) return false;
        if (!child && !cluster.is_whole()) break;
        if (!child) return end_damaged(at);
        if (!child->is_whole() && cluster.is_whole()) return end_damaged(at);
        if (!take_child(*child)) return false;
    }
    if (!cluster.is_whole()) m_walk.cut_in = cluster.begin;
    const bool f_wanted = m_options.key_until == INT64_MIN || m_time <= m_options.key_until;
    return cluster.is_whole() && f_wanted;
}

bool Walker::take_child(const Element &child)
{
    switch (child.id) {
    case id::TIMESTAMP:
        m_time = static_cast<int64_t>(unsigned_of(child) & INT64_MAX >> 1);
        return true;
    case id::SIMPLE_BLOCK:
        if (child.is_whole() && !take_block(child.body, false, true)) return false;
        break;
    case id::BLOCK_GROUP:
        if (child.is_whole() && !take_group(child)) return false;
        break;
    case id::VOID_ELEMENT:
    case id::CRC_32:
    case id::POSITION:
    case id::PREV_SIZE:
    case id::SILENT_TRACKS:
    case id::ENCRYPTED_BLOCK: break;
    default: return end_damaged(child.begin);
    }
    // Of a cluster without a size this is how a file ends that was cut.
    if (!child.is_whole() && m_f_open) m_walk.cut_in = m_cluster;
    return child.is_whole() || !m_f_open;
}

// A picture that refers to none is a key picture.
bool Walker::take_group(const Element &group)
{
    constexpr uint32_t REFERENCE = 0xFB;
    Stretch body = group.body;
    std::optional<Element> block;
    bool f_refers = false;
    while (const std::optional<Element> child = next_element(body)) {
        if (child->id == id::BLOCK) block.emplace(*child);
        if (child->id == REFERENCE) f_refers = true;
    }
    return !block || take_block(block->body, !f_refers, false);
}

// False where the walk is to end.
bool Walker::take_block(Stretch body, bool f_key, bool f_simple)
{
    constexpr uint8_t KEY = 0x80, LACING = 0x06;
    // TrackNumber is a variable-length integer; more than two bytes of it are of no use here.
    uint64_t track = body.u8();
    if ((track & 0x80) != 0)
        track &= 0x7F;
    else
        track = (track & 0x3F) << 8 | body.u8();
    const int64_t time = m_time + static_cast<int16_t>(body.u16());
    const uint8_t flags = body.u8();
    if (body.is_short()) return true;
    const uint64_t laced = (flags & LACING) != 0 ? body.u8() + uint64_t{1} : 1;
    const uint64_t frames = std::min(laced, std::max<uint64_t>(body.left(), 1));
    if (m_walk.tracks.size() >= MOST_TRACKS && m_walk.tracks.count(track) == 0) return true;
    BlockSpan &span = m_walk.tracks[track];
    ++span.blocks;
    span.first = std::min(span.first, time);
    span.last = std::max(span.last, time);
    const bool f_is_key = f_simple ? (flags & KEY) != 0 : f_key;
    if (f_is_key && track == m_options.key_track && time <= m_options.key_until)
        m_walk.key = std::max(m_walk.key.value_or(time), time);
    return !m_options.on_block || m_options.on_block({track, time, f_is_key, m_cluster, frames});
}

bool Walker::end_damaged(uint64_t offset)
{
    m_walk.damaged_at = offset;
    return false;
}

}  // namespace

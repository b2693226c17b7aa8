// Builds Matroska files (RFC 8794, RFC 9559) for tests: a case names what matters in it, the rest
// is a sound file's.
//
//     MkvFile file;
//     file.track(H264_TRACK).track(track_entry(2, 2, "A_AC3"));
//     file.cluster(1000, {simple_block(1, 0, picture), simple_block(2, 0, sound)}).cue(1000, 0);
//     Bytes bytes = file.build();

#ifndef GOLT_TEST_MKV_BUILDER_H
#define GOLT_TEST_MKV_BUILDER_H

#include "bytes.h"

/// A number without its leading zero bytes, at least one byte.
inline Bytes plain_number(uint64_t value)
{
    int width = 1;
    while (width < 8 && value >> (8 * width) != 0)
        ++width;
    return be(value, width);
}

/// A variable-length integer; width 0: the smallest that holds it.
inline Bytes vint(uint64_t value, int width = 0)
{
    while (width == 0 || value >= (uint64_t{1} << (7 * width)) - 1)
        ++width;
    return be(value | uint64_t{1} << (7 * width), width);
}

/// An element of any ID. size_width 0: the smallest that holds the payload's size.
inline Bytes element(uint32_t id, const Bytes &payload, int size_width = 0)
{
    return plain_number(id) + vint(payload.size(), size_width) + payload;
}

inline Bytes number_element(uint32_t id, uint64_t value)
{
    return element(id, plain_number(value));
}

enum class Lacing { none = 0, xiph = 1, fixed = 2, ebml = 3 };

/// What stands between a block's flags and its frames.
inline Bytes lace(Lacing kind, const std::vector<Bytes> &frames)
{
    constexpr size_t BIAS = 0x1FFF;  // of signed differences of two bytes
    Bytes out = be(frames.size() - 1, 1);
    if (kind == Lacing::ebml) out += vint(frames[0].size());
    for (size_t i = 0; i + 1 < frames.size(); ++i) {
        const size_t size = frames[i].size();
        if (kind == Lacing::xiph) out += Bytes(size / 255, 255) + be(size % 255, 1);
        if (kind == Lacing::ebml && i > 0) out += vint(size + BIAS - frames[i - 1].size(), 2);
    }
    return out;
}

/// The payload of a Block or SimpleBlock.
inline Bytes block(uint64_t track, int time, const std::vector<Bytes> &frames,
                   Lacing kind = Lacing::none)
{
    const auto flags = static_cast<uint8_t>(static_cast<int>(kind) << 1);
    Bytes out = vint(track) + be16(static_cast<uint16_t>(time)) + Bytes{flags};
    if (kind != Lacing::none) out += lace(kind, frames);
    for (const Bytes &frame : frames)
        out += frame;
    return out;
}

inline Bytes simple_block(uint64_t track, int time, const Bytes &frame)
{
    return element(0xA3, block(track, time, {frame}));
}

/// A NAL unit as blocks hold it, with its length in front.
inline Bytes length_unit(const Bytes &unit, int length_size = 4)
{
    return be(unit.size(), length_size) + unit;
}

/// A TrackEntry. rest: its further children.
inline Bytes track_entry(uint64_t number, uint64_t type, const std::string &codec,
                         const Bytes &rest = {})
{
    return element(0xAE, number_element(0xD7, number) + number_element(0x83, type) +
                             element(0x86, text(codec)) + rest);
}

/// The same of an H.264 track, number 1, and of an AAC track, number 2.
inline const Bytes H264_TRACK = track_entry(1, 1, "V_MPEG4/ISO/AVC");
inline const Bytes AAC_TRACK = track_entry(2, 2, "A_AAC");

class MkvFile {
public:
    enum Place { nowhere, in_front, behind };
    Place cues_at = behind;
    bool has_seek_head = true;
    int64_t cues_shift = 0;  ///< added to the position that the SeekHead gives for the Cues
    Bytes noise;             ///< elements that stand in every master
    Bytes between_clusters;
    Bytes duration = be32(0x461C4000);  ///< a number in floating point; 10000 ms

    MkvFile &track(const Bytes &track)
    {
        m_tracks += track;
        return *this;
    }
    MkvFile &cluster(uint64_t time, const std::vector<Bytes> &children)
    {
        Bytes out = noise + number_element(0xE7, time);
        for (const Bytes &child : children)
            out += child;
        m_clusters.push_back(element(0x1F43B675, out + noise));
        return *this;
    }
    /// A cue point that leads to the cluster of that index.
    MkvFile &cue(uint64_t time, size_t cluster)
    {
        m_cues.push_back({time, cluster});
        return *this;
    }

    Bytes build() const
    {
        const Bytes head = element(0x1549A966, noise + element(0x4489, duration)) +
                           element(0x1654AE6B, noise + m_tracks) + noise;
        const size_t front = seek_head(0).size() + head.size();
        Bytes clusters;
        for (const Bytes &cluster : m_clusters)
            clusters += (clusters.empty() ? Bytes() : between_clusters) + cluster;
        Bytes children;
        if (cues_at == in_front)
            children = seek_head(front) + head + cues(front + cues(0).size()) + clusters;
        else
            children = seek_head(front + clusters.size()) + head + clusters;
        if (cues_at == behind) children += cues(front);
        return element(0x1A45DFA3, noise) + element(0x18538067, children, 8);
    }

private:
    Bytes seek_head(uint64_t cues_pos) const
    {
        if (!has_seek_head) return {};
        const uint64_t shifted = cues_pos + static_cast<uint64_t>(cues_shift);
        const Bytes seek = element(0x53AB, be32(0x1C53BB6B)) + element(0x53AC, be(shifted, 8));
        return element(0x114D9B74, noise + element(0x4DBB, noise + seek));
    }
    // Positions have a fixed width, so that the size doesn't hang on them.
    Bytes cues(uint64_t cluster_pos) const
    {
        std::vector<Bytes> places;
        for (const Bytes &cluster : m_clusters) {
            places.push_back(element(0xB7, noise + element(0xF1, be(cluster_pos, 8))));
            cluster_pos += cluster.size() + between_clusters.size();
        }
        Bytes out = noise;
        for (const auto &[time, cluster] : m_cues)
            out += element(0xBB, noise + number_element(0xB3, time) + places[cluster]);
        return element(0x1C53BB6B, out);
    }

    Bytes m_tracks;
    std::vector<Bytes> m_clusters;
    std::vector<std::pair<uint64_t, size_t>> m_cues;
};

#endif

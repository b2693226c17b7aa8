// Builds MP4 files (ISO/IEC 14496-12, -14 and -15) for tests: a case names what matters in it, the
// rest is valid.
//
//     Mp4Track video = Mp4Track::video();
//     video.sample(nal({0x65, 1, 2})).sample(nal({0x41, 3}));
//     video.put["ctts"] = table_box("ctts", 2, {1, 80, 1, 0});
//     Bytes file = Mp4File().add(video).build();
//
// Any box can be left out, moved or replaced: order names the children of each container in the
// file's order, put holds whole boxes that replace the builder's own of that name. A name of
// order may be a new one, if put has its box.

#ifndef GOLT_TEST_MP4_BUILDER_H
#define GOLT_TEST_MP4_BUILDER_H

#include <map>

#include "bytes.h"

inline Bytes box(const std::string &type, const Bytes &payload)
{
    return be(payload.size() + 8, 4) + text(type) + payload;
}

/// A box of a table: the count of its entries and their fields, all of 32 bits.
inline Bytes table_box(const std::string &type, size_t entries, const std::vector<size_t> &fields)
{
    Bytes payload = be32(0) + be(entries, 4);
    for (const size_t field : fields)
        payload += be(field, 4);
    return box(type, payload);
}

/// A NAL unit as samples hold it, with its length ahead of it.
inline Bytes nal(const Bytes &unit, int length_size = 4)
{
    return be(unit.size(), length_size) + unit;
}

/// A track of H.264, 25 frames a second, unless made by audio().
class Mp4Track {
public:
    static Mp4Track video() { return {}; }

    /// AAC; with another entry_type, such as "ac-3", the entry has no child box.
    static Mp4Track audio()
    {
        Mp4Track track;
        track.handler = "soun";
        track.entry_type = "mp4a";
        track.time_scale = 48000;
        track.delta = 1024;
        track.order["entry"] = {"esds"};
        return track;
    }

    Mp4Track &sample(const Bytes &data)
    {
        samples.push_back(data);
        return *this;
    }

    std::vector<Bytes> samples;
    std::vector<size_t> chunks;  ///< samples of each chunk; the rest of the samples is one more

    std::string handler = "vide";
    uint32_t time_scale = 1000;  ///< ticks per second, of all times here
    int64_t duration = -1;       ///< -1: the sum of the samples' durations
    uint32_t delta = 40;         ///< duration of every sample
    std::vector<size_t> stss;    ///< sample numbers from 1; no box if empty

    std::string entry_type = "avc1";
    uint32_t resolution_x = 0x480000;
    uint32_t resolution_y = 0x480000;
    std::vector<Bytes> sps = {{0x67, 0x42, 0x00, 0x1E}};
    std::vector<Bytes> pps = {{0x68, 0xCE}};

    uint16_t rate = 48000;  ///< of the sample entry, in Hz
    uint8_t object_type = 0x40;
    Bytes dsi = {0x11, 0x90};   ///< AAC LC, 48000 Hz, two channels; no descriptor if empty
    bool long_lengths = false;  ///< of descriptors: four bytes, not one

    std::map<std::string, std::vector<std::string>> order = {
        {"trak", {"tkhd", "mdia"}},
        {"mdia", {"mdhd", "hdlr", "minf"}},
        {"minf", {"dinf", "stbl"}},
        {"stbl", {"stsd", "stts", "stss", "ctts", "stsc", "stsz", "stco"}},
        {"stsd", {"entry"}},
        {"entry", {"avcC"}},
    };
    std::map<std::string, Bytes> put;

    /// A box with all that it holds.
    Bytes make(const std::string &name) const
    {
        const auto own = put.find(name);
        if (own != put.end()) return own->second;
        const auto children = order.find(name);
        if (children == order.end()) return leaf(name);
        Bytes payload;
        if (name == "stsd") payload = be32(0) + be32(1);
        if (name == "entry") payload = entry_fields();
        for (const std::string &child : children->second)
            payload += make(child);
        return box(name == "entry" ? entry_type : name, payload);
    }

    /// Adds the next chunk to the media, which begin at media_at in the file. False: there is none.
    bool lay_chunk(Bytes &media, size_t media_at)
    {
        if (m_laid == samples.size()) return false;
        const size_t number = m_stco.size(), rest = samples.size() - m_laid;
        const size_t size = number < chunks.size() ? chunks[number] : rest;
        m_stco.push_back(media_at + media.size());
        m_stsc.insert(m_stsc.end(), {number + 1, size, 1});
        for (size_t i = 0; i < size; ++i)
            media += samples.at(m_laid++);
        return true;
    }

private:
    size_t m_laid = 0;  // samples that are in chunks
    std::vector<size_t> m_stco, m_stsc;

    Bytes leaf(const std::string &name) const
    {
        const size_t ticks = duration < 0 ? samples.size() * delta : static_cast<size_t>(duration);
        if (name == "tkhd")
            return box(name, Bytes(12) + be32(handler == "soun" ? 2 : 1) + Bytes(68));
        if (name == "mdhd")
            return box(name, Bytes(12) + be32(time_scale) + be(ticks, 4) + Bytes(4));
        if (name == "hdlr") return box(name, Bytes(8) + text(handler) + Bytes(13));
        if (name == "dinf") return box(name, table_box("dref", 1, {12, 0x75726C20, 1}));
        if (name == "avcC") return avcc();
        if (name == "esds" && entry_type == "mp4a") return esds();
        if (name == "stts") return table_box(name, 1, {samples.size(), delta});
        if (name == "stss" && !stss.empty()) return table_box(name, stss.size(), stss);
        if (name == "stsc") return table_box(name, m_stco.size(), m_stsc);
        if (name == "stsz") return stsz();
        if (name == "stco") return table_box(name, m_stco.size(), m_stco);
        return {};
    }

    Bytes entry_fields() const
    {
        const Bytes reference = hex("00000000 00000001");  // data_reference_index
        if (handler == "soun")
            return reference + Bytes(8) + hex("0002 0010 00000000") + be16(rate) + Bytes(2);
        return reference + Bytes(16) + be16(320) + be16(240) + be32(resolution_x) +
               be32(resolution_y) + hex("00000000 0001") + Bytes(32) + hex("0018 FFFF");
    }

    Bytes avcc() const
    {
        Bytes out = hex("0142001EFF") + be(0xE0 + sps.size(), 1);
        for (const Bytes &unit : sps)
            out += nal(unit, 2);
        out += be(pps.size(), 1);
        for (const Bytes &unit : pps)
            out += nal(unit, 2);
        return box("avcC", out);
    }

    Bytes esds() const
    {
        const Bytes info = dsi.empty() ? dsi : descriptor(5, dsi);
        // An audio stream; without size of the buffer and rates
        const Bytes config = descriptor(4, Bytes{object_type, 0x15} + Bytes(11) + info);
        return box("esds", be32(0) + descriptor(3, Bytes{0, 1, 0} + config + descriptor(6, {2})));
    }

    /// A descriptor of ISO/IEC 14496-1.
    Bytes descriptor(uint8_t tag, const Bytes &payload) const
    {
        return Bytes{tag} + Bytes(long_lengths ? 3 : 0, 0x80) + be(payload.size(), 1) + payload;
    }

    Bytes stsz() const
    {
        std::vector<size_t> fields = {samples.size()};
        for (const Bytes &sample : samples)
            fields.push_back(sample.size());
        return table_box("stsz", 0, fields);
    }
};

/// The file: chunks of the tracks take turns in "mdat", in the order of add().
class Mp4File {
public:
    std::vector<std::string> order = {"ftyp", "moov", "mdat"};

    Mp4File &add(const Mp4Track &track)
    {
        m_tracks.push_back(track);
        return *this;
    }

    Bytes build() const
    {
        // The place of "mdat" depends on the size of "moov", not on the offsets in it. Without "mdat" they
        // lead past the end.
        size_t media_at = INT32_MAX;
        write(media_at);
        return write(media_at);
    }

private:
    std::vector<Mp4Track> m_tracks;

    // media_at: where the payload of "mdat" begins in the file; set to where it really does.
    Bytes write(size_t &media_at) const
    {
        std::vector<Mp4Track> tracks = m_tracks;
        Bytes file, media, movie = box("mvhd", Bytes(12) + be32(1000) + Bytes(84));
        for (bool more = true; more;) {
            more = false;
            for (Mp4Track &track : tracks)
                more = track.lay_chunk(media, media_at) || more;
        }
        for (const Mp4Track &track : tracks)
            movie += track.make("trak");
        for (const std::string &name : order) {
            if (name == "ftyp") file += box(name, text("isom") + be32(0x200) + text("isomavc1"));
            if (name == "moov") file += box(name, movie);
            if (name == "mdat") media_at = file.size() + 8;
            if (name == "mdat") file += box(name, media);
        }
        return file;
    }
};

#endif

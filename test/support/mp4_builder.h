// Builds MP4 files (ISO/IEC 14496-12, -14 and -15) for tests: a case names what matters in it, the
// rest is a sound file's.
//
//     Mp4Track video = Mp4Track::video();
//     video.sample(nal({0x65, 1, 2})).sample(nal({0x41, 3}));
//     video.ctts = {{1, 80}, {1, 0}};
//     Bytes file = Mp4File().add(video).build();
//
// Any box can be left out, moved or replaced: order names the children of each container in the
// file's order, put holds whole boxes that stand for the builder's own of that name. A name of
// order may be a new one, if put has its box.

#ifndef GOLT_TEST_MP4_BUILDER_H
#define GOLT_TEST_MP4_BUILDER_H

#include <algorithm>
#include <map>
#include <utility>

#include "bytes.h"

inline Bytes box(const std::string &type, const Bytes &payload)
{
    return be32(static_cast<uint32_t>(payload.size() + 8)) + text(type) + payload;
}

inline Bytes full_box(const std::string &type, const Bytes &payload, uint8_t version = 0)
{
    return box(type, be32(uint32_t{version} << 24) + payload);
}

/// A box of a table: the count of its entries and their fields, all of 32 bits.
inline Bytes table_box(const std::string &type, size_t entries, const std::vector<uint32_t> &fields)
{
    Bytes payload = be32(static_cast<uint32_t>(entries));
    for (uint32_t field : fields)
        payload += be32(field);
    return full_box(type, payload);
}

/// A NAL unit as samples hold it, with its length in front.
inline Bytes nal(const Bytes &unit, int length_size = 4)
{
    return be(unit.size(), length_size) + unit;
}

/// A descriptor of ISO/IEC 14496-1. Lengths have one byte or, long, four.
inline Bytes descriptor(uint8_t tag, const Bytes &payload, bool is_long)
{
    const Bytes prefix = is_long ? Bytes{tag, 0x80, 0x80, 0x80} : Bytes{tag};
    return prefix + be(payload.size(), 1) + payload;
}

/// The box of an elementary stream descriptor. dsi: the decoder-specific info, none if empty.
inline Bytes esds(uint8_t object_type, const Bytes &dsi, bool is_long = false)
{
    const Bytes audio_stream = {0x15};
    const Bytes buffer_and_rates(11);
    Bytes config = Bytes{object_type} + audio_stream + buffer_and_rates;
    if (!dsi.empty()) config += descriptor(5, dsi, is_long);
    const Bytes id_and_flags = {0, 1, 0};
    const Bytes children = descriptor(4, config, is_long) + descriptor(6, {2}, is_long);
    return full_box("esds", descriptor(3, id_and_flags + children, is_long));
}

/// The parameter sets of an AVC stream.
inline Bytes avcc(const std::vector<Bytes> &sps, const std::vector<Bytes> &pps, int length_size = 4)
{
    Bytes out = {1, 0x42, 0, 30, static_cast<uint8_t>(0xFC + length_size - 1)};
    for (const auto *units : {&sps, &pps}) {
        out.push_back(static_cast<uint8_t>((units == &sps ? 0xE0 : 0) + units->size()));
        for (const Bytes &unit : *units)
            out += nal(unit, 2);
    }
    return box("avcC", out);
}

/// count samples of the value: a duration or a composition offset.
struct Mp4Run {
    uint32_t count;
    uint32_t value;
};

/// A track of H.264, 25 frames a second, unless made by audio().
class Mp4Track {
public:
    static Mp4Track video() { return {}; }

    /// AAC; with another entry_type, such as "ac-3", the entry has no child box.
    static Mp4Track audio()
    {
        Mp4Track track;
        track.id = 2;
        track.handler = "soun";
        track.entry_type = "mp4a";
        track.time_scale = 48000;
        track.delta = 1024;
        track.order["entry"] = {"esds"};
        return track;
    }

    Mp4Track &sample(Bytes data)
    {
        samples.push_back(std::move(data));
        return *this;
    }

    std::vector<Bytes> samples;
    std::vector<size_t> chunks;  ///< samples of each chunk; the rest of the samples is one more

    uint32_t id = 1;
    std::string handler = "vide";
    uint32_t time_scale = 1000;  ///< ticks per second, of all times here
    int64_t duration = -1;       ///< -1: the sum of the samples' durations
    uint32_t delta = 40;         ///< duration of every sample, unless stts says it
    std::vector<Mp4Run> stts;
    std::vector<Mp4Run> ctts;    ///< no box if empty
    std::vector<uint32_t> stss;  ///< sample numbers from 1; no box if empty
    uint32_t constant_size = 0;  ///< 0: stsz has a table

    std::string entry_type = "avc1";
    uint16_t width = 320;
    uint16_t height = 240;
    uint32_t resolution_x = 0x480000;
    uint32_t resolution_y = 0x480000;
    std::vector<Bytes> sps = {{0x67, 0x42, 0x00, 0x1E}};
    std::vector<Bytes> pps = {{0x68, 0xCE}};

    uint16_t channels = 2;
    uint16_t rate = 48000;  ///< of the sample entry, in Hz
    uint8_t object_type = 0x40;
    Bytes dsi = {0x11, 0x90};  ///< AAC LC, 48000 Hz, two channels
    bool long_lengths = false;

    std::map<std::string, std::vector<std::string>> order = {
        {"trak", {"tkhd", "mdia"}},
        {"mdia", {"mdhd", "hdlr", "minf"}},
        {"minf", {"dinf", "stbl"}},
        {"stbl", {"stsd", "stts", "stss", "ctts", "stsc", "stsz", "stco"}},
        {"stsd", {"entry"}},
        {"entry", {"avcC"}},
    };
    std::map<std::string, Bytes> put;

    /// The samples of each chunk, all of them in the end.
    std::vector<std::vector<Bytes>> chunked() const
    {
        std::vector<std::vector<Bytes>> out;
        auto next = samples.begin();
        for (size_t count : chunks) {
            out.emplace_back(next, next + static_cast<std::ptrdiff_t>(count));
            next += static_cast<std::ptrdiff_t>(count);
        }
        if (next != samples.end()) out.emplace_back(next, samples.end());
        return out;
    }

    /// The whole "trak" box. offsets: where in the file each chunk stands.
    Bytes trak(const std::vector<uint32_t> &offsets) const { return make("trak", offsets); }

private:
    Bytes make(const std::string &name, const std::vector<uint32_t> &offsets) const
    {
        const auto replaced = put.find(name);
        if (replaced != put.end()) return replaced->second;
        Bytes children;
        const auto names = order.find(name);
        if (names != order.end()) {
            for (const std::string &child : names->second)
                children += make(child, offsets);
        }
        if (name == "stsd") return full_box("stsd", be32(1) + children);
        if (name == "entry") return box(entry_type, entry_fields() + children);
        if (names != order.end()) return box(name, children);
        return leaf(name, offsets);
    }

    Bytes leaf(const std::string &name, const std::vector<uint32_t> &offsets) const
    {
        if (name == "tkhd") return full_box("tkhd", be32(0) + be32(0) + be32(id) + Bytes(68));
        if (name == "mdhd")
            return full_box("mdhd", Bytes(8) + be32(time_scale) + be32(ticks()) + be32(0x55C40000));
        if (name == "hdlr") return full_box("hdlr", Bytes(4) + text(handler) + Bytes(13));
        if (name == "dinf") return box("dinf", table_box("dref", 1, {12, 0x75726C20, 1}));
        if (name == "avcC") return avcc(sps, pps);
        if (name == "esds" && entry_type == "mp4a") return esds(object_type, dsi, long_lengths);
        if (name == "stts") return run_box("stts", time_runs());
        if (name == "ctts") return ctts.empty() ? Bytes() : run_box("ctts", ctts);
        if (name == "stss") return stss.empty() ? Bytes() : table_box("stss", stss.size(), stss);
        if (name == "stsc") return stsc();
        if (name == "stsz") return stsz();
        if (name == "stco") return table_box("stco", offsets.size(), offsets);
        return {};
    }

    Bytes entry_fields() const
    {
        const Bytes reserved_and_reference = {0, 0, 0, 0, 0, 0, 0, 1};
        if (handler == "vide")
            return reserved_and_reference + Bytes(16) + be16(width) + be16(height) +
                   be32(resolution_x) + be32(resolution_y) + Bytes(4) + be16(1) + Bytes(32) +
                   be16(24) + be16(0xFFFF);
        return reserved_and_reference + Bytes(8) + be16(channels) + be16(16) + Bytes(4) +
               be32(uint32_t{rate} << 16);
    }

    std::vector<Mp4Run> time_runs() const
    {
        if (!stts.empty() || samples.empty()) return stts;
        return {{static_cast<uint32_t>(samples.size()), delta}};
    }

    uint32_t ticks() const
    {
        if (duration >= 0) return static_cast<uint32_t>(duration);
        uint32_t sum = 0;
        for (const Mp4Run &run : time_runs())
            sum += run.count * run.value;
        return sum;
    }

    static Bytes run_box(const std::string &type, const std::vector<Mp4Run> &runs)
    {
        std::vector<uint32_t> fields;
        for (const Mp4Run &run : runs)
            fields.insert(fields.end(), {run.count, run.value});
        return table_box(type, runs.size(), fields);
    }

    // One entry for each run of chunks with the same number of samples.
    Bytes stsc() const
    {
        std::vector<uint32_t> fields;
        uint32_t number = 0;
        size_t last = 0;
        for (const auto &chunk : chunked()) {
            ++number;
            if (chunk.size() != last)
                fields.insert(fields.end(), {number, static_cast<uint32_t>(chunk.size()), 1});
            last = chunk.size();
        }
        return table_box("stsc", fields.size() / 3, fields);
    }

    Bytes stsz() const
    {
        Bytes payload = be32(constant_size) + be32(static_cast<uint32_t>(samples.size()));
        for (size_t i = 0; i < samples.size() && constant_size == 0; ++i)
            payload += be32(static_cast<uint32_t>(samples[i].size()));
        return full_box("stsz", payload);
    }
};

/// The file: chunks of the tracks take turns in "mdat", in the order of add().
class Mp4File {
public:
    std::vector<std::string> order = {"ftyp", "moov", "mdat"};
    std::map<std::string, Bytes> put;

    Mp4File &add(Mp4Track track)
    {
        m_tracks.push_back(std::move(track));
        return *this;
    }
    Mp4File &moov_last()
    {
        order = {"ftyp", "mdat", "moov"};
        return *this;
    }
    Mp4File &cut_at(size_t size)
    {
        m_size = size;
        return *this;
    }
    /// Overwrites bytes of the finished file.
    Mp4File &patch(size_t offset, const Bytes &bytes)
    {
        m_patches.emplace_back(offset, bytes);
        return *this;
    }
    Mp4File &patch(size_t offset, uint8_t byte) { return patch(offset, Bytes{byte}); }

    Bytes build() const
    {
        // The place of "mdat" depends on the size of "moov", not on the offsets in it.
        Bytes mdat;
        Offsets offsets = lay_out(0, &mdat);
        size_t start = 8;
        for (auto name = order.begin(); name != order.end() && *name != "mdat"; ++name)
            start += make(*name, mdat, offsets).size();
        offsets = lay_out(static_cast<uint32_t>(start), &mdat);

        Bytes file;
        for (const std::string &name : order)
            file += make(name, mdat, offsets);
        for (const auto &[offset, bytes] : m_patches) {
            file.resize(std::max(file.size(), offset + bytes.size()));
            std::copy(bytes.begin(), bytes.end(),
                      file.begin() + static_cast<std::ptrdiff_t>(offset));
        }
        file.resize(std::min(file.size(), m_size));
        return file;
    }

private:
    typedef std::vector<std::vector<uint32_t>> Offsets;  // of the chunks of each track

    std::vector<Mp4Track> m_tracks;
    std::vector<std::pair<size_t, Bytes>> m_patches;
    size_t m_size = SIZE_MAX;

    Offsets lay_out(uint32_t start, Bytes *mdat) const
    {
        mdat->clear();
        std::vector<std::vector<std::vector<Bytes>>> tracks;
        size_t turns = 0;
        for (const Mp4Track &track : m_tracks) {
            tracks.push_back(track.chunked());
            turns = std::max(turns, tracks.back().size());
        }
        Offsets offsets(tracks.size());
        for (size_t turn = 0; turn < turns; ++turn) {
            for (size_t i = 0; i < tracks.size(); ++i) {
                if (turn >= tracks[i].size()) continue;
                offsets[i].push_back(start + static_cast<uint32_t>(mdat->size()));
                for (const Bytes &sample : tracks[i][turn])
                    *mdat += sample;
            }
        }
        return offsets;
    }

    Bytes make(const std::string &name, const Bytes &mdat, const Offsets &offsets) const
    {
        const auto replaced = put.find(name);
        if (replaced != put.end()) return replaced->second;
        if (name == "ftyp") return box("ftyp", text("isom") + be32(0x200) + text("isomavc1"));
        if (name == "mdat") return box("mdat", mdat);
        if (name != "moov") return {};
        Bytes children = full_box("mvhd", Bytes(8) + be32(1000) + Bytes(84));
        for (size_t i = 0; i < m_tracks.size(); ++i)
            children += m_tracks[i].trak(offsets[i]);
        return box("moov", children);
    }
};

/// Where the nth box of the type begins in the file: the place of its letters, less the size field.
inline size_t find_box(const Bytes &file, const std::string &type, int nth = 0)
{
    auto at = file.begin();
    for (;; ++at, --nth) {
        at = std::search(at, file.end(), type.begin(), type.end());
        if (at == file.end() || nth == 0) break;
    }
    return static_cast<size_t>(at - file.begin()) - 4;
}

#endif

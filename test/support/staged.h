// The library's muxer with a stage after it, and pictures to send through both.

#ifndef GOLT_TEST_STAGED_H
#define GOLT_TEST_STAGED_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "finished_stream.h"
#include "golt_stage.h"
#include "rmx_mpeg2ts.h"

constexpr uint16_t VIDEO = 0x100, AUDIO = 0x101;

// Puts bits together, for parameter sets.
class Bits {
public:
    Bits &u(int count, uint32_t value)
    {
        for (; count > 0; --count)
            m_bits.push_back(value >> (count - 1) & 1);
        return *this;
    }
    Bits &ue(uint32_t value)
    {
        int length = 0;
        while ((value + 1) >> (length + 1) != 0)
            ++length;
        return u(length, 0).u(length + 1, value + 1);
    }
    Bytes bytes() const
    {
        Bytes out((m_bits.size() + 8) / 8);
        for (size_t i = 0; i < m_bits.size(); ++i)
            out[i / 8] = static_cast<uint8_t>(out[i / 8] | m_bits[i] << (7 - i % 8));
        out[m_bits.size() / 8] =
            static_cast<uint8_t>(out[m_bits.size() / 8] | 0x80 >> m_bits.size() % 8);
        return out;
    }

private:
    std::vector<uint32_t> m_bits;
};

// A SPS of 1280x720, or with fields of that size. depth: max_num_reorder_frames; below 0: no VUI.
inline Bytes sps_of(int depth, uint32_t profile = 77, uint32_t level = 31, uint32_t order_type = 0,
                    bool f_fields = false)
{
    Bits sps;
    sps.u(8, profile).u(8, 0).u(8, level).ue(0);
    if (profile == 100) sps.ue(1).ue(0).ue(0).u(1, 0).u(1, 0);
    sps.ue(0).ue(order_type);
    if (order_type == 0) sps.ue(2);
    sps.ue(4).u(1, 0).ue(79).ue(44).u(1, !f_fields);
    if (f_fields) sps.u(1, 0);
    sps.u(1, 1).u(1, 0).u(1, depth >= 0);
    // Of the VUI, flags only until bitstream_restriction.
    if (depth >= 0)
        sps.u(8, 0)
            .u(1, 1)
            .u(1, 1)
            .ue(0)
            .ue(0)
            .ue(10)
            .ue(10)
            .ue(static_cast<uint32_t>(depth))
            .ue(4);
    return hex("67") + sps.bytes();
}

inline const Bytes CODE = hex("00000001"), AUD = hex("0000000109F0"), PPS = hex("68CE3880");

inline Bytes unit(const Bytes &bytes)
{
    return CODE + bytes;
}

// A slice without start codes in it, but with zeros, also two and three in a row.
inline Bytes slice(uint8_t type, size_t size, uint32_t seed)
{
    Bytes out = pattern(size, seed);
    for (size_t i = 0; i < size; ++i) {
        const bool f_zero = i + 5 < size && (i % 61 == 7 || i % 977 < 2 || i % 3001 < 3);
        out[i] = f_zero ? 0 : out[i] | 2;
    }
    if (!out.empty()) out[0] = type;
    return unit(out);
}

/// The library's muxer, a stage after it, and what comes out of that.
class Staged {
public:
    explicit Staged(GOLT_codecs_t video, GOLT_codecs_t audio, const golt::StageHints &hints = {},
                    uint32_t rate = 48000, uint32_t channels = 2)
        : stage(&Staged::write_proc, this, hints)
    {
        GOLT_streamInfo_t info = {};
        info.videoCodec = video;
        info.audioCodec = audio;
        info.aud_sampleRate = rate;
        info.aud_numChannels = channels;
        GOLT_RMX_init(&Staged::rmx_proc, &stage, false);
        GOLT_RMX_setStreamInfo(&info);
    }

    Staged &video(uint64_t time_ms, const Bytes &bytes)
    {
        return write(GOLT_FT_VIDEO, time_ms, bytes);
    }
    Staged &audio(uint64_t time_ms, const Bytes &bytes)
    {
        return write(GOLT_FT_AUDIO, time_ms, bytes);
    }
    FinishedStream finish()
    {
        EXPECT_TRUE(stage.finish());
        FinishedStream finished(stream);
        EXPECT_THAT(finished.faults, ::testing::IsEmpty());
        return finished;
    }

    golt::Stage stage;
    Bytes stream;
    size_t writes = 0;
    bool f_flushed = false;  ///< after each frame

private:
    Staged &write(uint32_t type, uint64_t time_ms, Bytes bytes)
    {
        GOLT_frame_t frame = {time_ms, type, bytes.data(), static_cast<uint32_t>(bytes.size())};
        GOLT_RMX_writeFrame(&frame);
        if (f_flushed) stage.flush();
        return *this;
    }
    static bool write_proc(void *self, const uint8_t *packets, size_t size)
    {
        ++static_cast<Staged *>(self)->writes;
        static_cast<Staged *>(self)->stream += Bytes(packets, packets + size);
        return true;
    }
    static uint32_t rmx_proc(void *stage, uint8_t *packet, uint32_t size)
    {
        return static_cast<golt::Stage *>(stage)->write(packet, size) ? size : 0;
    }
};

#endif

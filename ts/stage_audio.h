// What the stage has to know of audio: how long the frames of a PES packet last, by their headers, and what an ADTS
// header should state. AAC is ISO/IEC 14496-3, MPEG audio 11172-3 and 13818-3, AC-3 and E-AC-3 ATSC A/52.

#ifndef GOLT_STAGE_AUDIO_H
#define GOLT_STAGE_AUDIO_H

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace golt {

enum class AudioCodec : uint8_t { NONE, MPEG, AAC, AC3 };

/// What a frame's header states. size: bytes; 0 where it isn't known. samples: 0 for a frame that belongs to the
/// one before.
struct FrameHead {
    uint32_t size = 0;
    uint32_t samples = 0;
    uint32_t rate = 0;
};

constexpr size_t FRAME_HEAD_SIZE = 8;

/// bytes: FRAME_HEAD_SIZE. False: that is no header.
bool read_frame_head(AudioCodec codec, const uint8_t *bytes, FrameHead &head);

/// What an AudioSpecificConfig states about the frames that it describes.
struct AacConfig {
    // With all elements, and the longest comment.
    static constexpr size_t MOST_PCE = 320;

    bool is_known = false;
    uint8_t profile = 0;          ///< of ADTS: audio object type - 1
    uint8_t frequency_index = 0;  ///< sampling_frequency_index, without any extension
    uint8_t channels = 0;         ///< channelConfiguration; 0: by an element of the frames
    uint32_t samples = 1024;      ///< of a frame
    /// Where channels is 0: that element (program_config_element), with its id_syn_ele, as it begins a frame.
    uint8_t pce[MOST_PCE];
    size_t pce_size = 0;  ///< 0: none, or the configuration is cut off
};

/// What ADTS can't express isn't known.
AacConfig read_aac_config(const uint8_t *config, size_t size);

constexpr size_t ADTS_SIZE = 7;
/// Corrects an ADTS header in place.
void correct_adts(uint8_t *header, const AacConfig &config);
/// Whether the frame, which begins with an ADTS header and has size bytes of at least one more, lacks the element that
/// states its channels, and has room for it.
bool lacks_pce(const uint8_t *frame, const AacConfig &config);
/// Makes the frame that an ADTS header describes longer by the element.
void add_pce_to_adts(uint8_t *header, const AacConfig &config);

/// Walks from header to header over the frames of a PES packet that comes in pieces.
class FrameWalk {
public:
    /// With the first bytes.
    void begin(AudioCodec codec, const uint8_t *bytes, size_t size)
    {
        m_codec = codec;
        m_head_size = m_skip = 0;
        m_samples = m_rate = 0;
        if (size >= FRAME_HEAD_SIZE && codec != AudioCodec::NONE) take_head(bytes);
        add(bytes, size);
    }
    void add(const uint8_t *bytes, size_t size)
    {
        if (size <= m_skip)
            m_skip -= size;
        else
            add_more(bytes, size);
    }

    /// Bytes that add takes without looking at them.
    uint64_t unread() const { return m_codec != AudioCodec::NONE ? m_skip : UINT64_MAX; }
    /// The same as add for as many bytes at most.
    void pass(uint64_t size) { m_skip -= static_cast<size_t>(std::min<uint64_t>(m_skip, size)); }

    /// Samples of all frames that have begun, and their rate; 0 where no header was found.
    uint64_t samples() const { return m_samples; }
    uint32_t rate() const { return m_rate; }

private:
    [[gnu::noinline]] void add_more(const uint8_t *bytes, size_t size);
    void take_head(const uint8_t *bytes);
    bool read_head(const uint8_t *bytes);

    AudioCodec m_codec = AudioCodec::NONE;
    uint32_t m_mpeg_key =
        0;              // of MPEG audio: the bytes of the last header that state what is in it
    FrameHead m_frame;  // that one
    uint8_t m_head[FRAME_HEAD_SIZE];
    size_t m_head_size = 0;
    size_t m_skip = 0;  // bytes of the present frame that are still to come
    uint64_t m_samples = 0;
    uint32_t m_rate = 0;
};

}  // namespace golt

#endif

// The frames in an elementary stream of audio: found one after the other by their headers, wherever PES packets
// begin, with what contradicts itself in them.

#ifndef TS_TS_AUDIO_H
#define TS_TS_AUDIO_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

struct AudioHeader {
    uint32_t sample_rate = 0;  ///< hertz
    uint32_t channels = 0;     ///< 0 where the header leaves it to the data
    uint32_t bit_rate = 0;     ///< bits in a second; 0 where the header doesn't state it
    uint32_t samples = 0;      ///< of the frame, in each channel
    uint32_t size = 0;         ///< bytes of the frame, with its header
    bool f_dependent = false;  ///< it adds to another frame of the same time
};

/// Bytes of a frame that its header is read from.
constexpr size_t SOUND_HEAD_SIZE = 8;
/// None: no frame begins so.
using ReadAudioHeader = std::optional<AudioHeader> (*)(const uint8_t *head);
std::optional<AudioHeader> read_mpeg_audio(const uint8_t *head);
std::optional<AudioHeader> read_adts(const uint8_t *head);
std::optional<AudioHeader> read_ac3(const uint8_t *head);
std::optional<AudioHeader> read_eac3(const uint8_t *head);

/// What is in a PES packet of audio.
struct AudioContent {
    std::optional<AudioHeader> first;  ///< of the first header in it
    uint64_t frames = 0;               ///< whose headers are in it
    uint64_t samples = 0;              ///< of the frames that begin in it
    uint64_t earlier_samples = 0;      ///< of one whose first bytes are in the PES packet before
    uint64_t stray = 0;                ///< bytes that belong to no frame
    uint64_t cut = 0;                  ///< bytes that the last frame of the PES packet before lacks
    uint64_t missing = 0;  ///< bytes of its last frame that may come in the next PES packet
    const char *contradiction = nullptr;  ///< of an ADTS header and its frame; a text that stays
};

class AudioFrames {
public:
    /// read: null for other streams than audio; nothing is then found.
    explicit AudioFrames(ReadAudioHeader read)
        : m_read(read)
    {
    }

    /// A PES packet begins.
    void begin();
    void feed(const uint8_t *bytes, size_t size);
    AudioContent finish();

private:
    void decide();
    void walk(const uint8_t *bytes, size_t size);
    bool take_header();
    void examine_adts();
    uint64_t missing() const;

    static constexpr size_t MOST_HEAD = 24;  // for the first elements of AAC

    ReadAudioHeader m_read;
    AudioContent m_content;
    std::array<uint8_t, MOST_HEAD> m_head = {};  // of the frame that begins
    size_t m_head_size = 0, m_wanted = SOUND_HEAD_SIZE;
    std::optional<AudioHeader> m_header;                // of it, once it has come
    uint64_t m_left = 0;                                // bytes of the frame after its head
    uint32_t m_sample_rate = 0;                         // of the last frame
    std::array<uint8_t, SOUND_HEAD_SIZE> m_front = {};  // of a PES packet after an unfinished frame
    size_t m_front_size = 0;
    bool m_f_front = false;      // it is still to be decided what that is
    bool m_f_straddles = false;  // frames go on in the next PES packet
    bool m_f_earlier = false;    // the head began in the PES packet before
    bool m_f_synced = false;
    bool m_f_layout = false;  // a program_config_element has come
};

#endif

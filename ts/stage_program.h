// The tables of the program: what the library's PMT lists, and PAT and PMT as the stage writes them.

#ifndef GOLT_STAGE_PROGRAM_H
#define GOLT_STAGE_PROGRAM_H

#include "stage_audio.h"
#include "stage_packets.h"
#include "stage_video.h"

namespace golt {

// PIDs of the library's stream, which the stage keeps.
constexpr uint16_t PAT_PID = 0, PMT_PID = 0xFFF, VIDEO_PID = 0x100, AUDIO_PID = 0x101;

/// Whether a packet is the library's PAT.
bool is_library_pat(const uint8_t *packet);

class Program {
public:
    /// Takes a packet of the library's PMT. What isn't valid is passed over. Returns whether it is another one.
    bool take_pmt(const uint8_t *packet);
    /// Notes that there are packets of audio: the library's PMT lists it always.
    void note_audio()
    {
        if (m_f_audio_seen) return;
        m_f_audio_seen = m_f_changed = true;
    }

    bool has_video() const { return video_codec() != VideoCodec::NONE; }
    bool has_audio() const
    {
        return m_audio.type != 0 && (m_audio.type != PRIVATE || m_f_audio_seen);
    }
    bool knows_audio() const { return m_audio.type != 0; }
    VideoCodec video_codec() const { return m_video_codec; }
    AudioCodec audio_codec() const { return m_audio_codec; }
    uint16_t pcr_pid() const { return has_video() ? VIDEO_PID : AUDIO_PID; }

    /// Writes PAT and PMT. The PMT's version goes up where it isn't the one before.
    void put_tables(PacketWriter &writer);

private:
    static constexpr uint8_t PRIVATE = 0x06;  // stream_type of PES packets of any data
    static constexpr size_t MOST_DESCRIPTORS = 48;

    struct Entry {
        uint8_t type = 0;  // stream_type; 0: none
        uint8_t descriptors[MOST_DESCRIPTORS];
        size_t size = 0;
    };

    void read_entries(const uint8_t *section, size_t end);
    static size_t put_entry(uint8_t *to, uint16_t pid, const Entry &entry);
    void make_tables();
    size_t make_pmt(uint8_t *to) const;

    uint8_t m_taken[TS_SIZE] = {};  // the packet that was taken last
    Entry m_video;
    Entry m_audio;
    VideoCodec m_video_codec = VideoCodec::NONE;  // by them
    AudioCodec m_audio_codec = AudioCodec::NONE;
    bool m_f_audio_seen = false;

    OutPid m_pat{PAT_PID};
    OutPid m_pmt{PMT_PID};
    uint8_t m_pat_packet[TS_SIZE];  // as they are written
    uint8_t m_pmt_packet[TS_SIZE];
    bool m_f_changed = true;  // what they list
    bool m_f_written = false;
    uint8_t m_version = 0;
};

}  // namespace golt

#endif

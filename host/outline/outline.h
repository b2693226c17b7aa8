// What is in a media file, read from its headers and tables by a reader of its own: all tracks, also
// those that the library leaves out, how long each is, and where the file has to end. Made for files
// that are cut, damaged or hostile: memory, reads and time are bounded.

#ifndef HOST_OUTLINE_OUTLINE_H
#define HOST_OUTLINE_OUTLINE_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "reader.h"

enum class Container { UNKNOWN, MP4, MATROSKA, MPEG_AUDIO, TRANSPORT_STREAM };

enum class TrackKind { OTHER, VIDEO, AUDIO, SUBTITLES };

/// An entry of an edit list (ISO/IEC 14496-12, "elst").
struct Edit {
    uint64_t duration;  ///< of the entry, in ticks of Outline::mp4.timescale
    int64_t
        media_time;  ///< where it begins in the track, in ticks of Mp4Details::timescale; -1: nothing is shown
    int32_t rate;  ///< speed as 16.16 fixed point; 0x10000 is the usual one, 0 dwells
};

/// Where a table is in the file: its version and flags come first. None where begin is 0.
struct TablePlace {
    uint64_t begin = 0;
    uint64_t end = 0;
};

/// What MP4 has of a track beside what all containers have.
struct Mp4Details {
    uint32_t timescale = 0;         ///< ticks in a second of the track's own times; 0: not stated
    uint64_t duration = 0;          ///< in ticks of timescale, by "mdhd"
    std::vector<Edit> edits;        ///< of "elst", MOST_EDITS at most
    uint64_t more_edits = 0;        ///< that it has beyond those
    uint16_t rotation = 0;          ///< clockwise, for presentation: 0, 90, 180 or 270 degrees
    uint8_t object_type = 0;        ///< of "esds" (ISO/IEC 14496-1); 0x40 is AAC, 0x6B MPEG-1 audio
    uint32_t layer = 0;             ///< of MPEG audio, 1 to 3, by the first sample; 0: not known
    uint16_t entry_version = 0;     ///< of the audio sample entry; above 0 in QuickTime files
    uint64_t samples = 0;           ///< by "stsz" or "stz2"
    std::optional<uint64_t> ticks;  ///< sum of the samples' durations, by "stts"
    std::optional<uint64_t> bytes;  ///< sum of the samples' sizes
    std::optional<uint64_t> end;    ///< offset in the file after the last sample in the file
    bool f_offsets = false;         ///< "stco" or "co64" is there
    bool f_64_bit_offsets = false;  ///< by "co64"
    bool f_compact_sizes = false;   ///< by "stz2"
    std::optional<uint32_t> sync_samples;  ///< entries of "stss"; none: every sample is one
    std::vector<uint32_t> chapter_tracks;  ///< "tref" of "chap": numbers of tracks
    TablePlace stts, ctts, stss, stsz;  ///< durations, offsets of presentation, sync samples, sizes
    TablePlace stsc, stco;              ///< samples of chunks; offsets of chunks, of 32 bits
    TablePlace tkhd, mdhd, hdlr, stsd;  ///< headers and sample descriptions
    uint32_t last_length = 0;           ///< ticks, by "stts": of the last sample
    /// What the library takes for a sample's time, its number times the mean interval, less the time by "stts": the
    /// least and the most of all samples, ms.
    double least_off = 0, most_off = 0;
};

/// A file that lies in the media file beside the tracks: an attachment, a cover.
struct Attachment {
    std::string name;        ///< as it is in the file; empty: none is stated
    std::string media_type;  ///< likewise
    uint64_t size = 0;       ///< bytes
};

/// What Matroska has of a track beside what all containers have.
struct MatroskaDetails {
    uint64_t uid = 0;
    std::optional<uint64_t> default_duration_ns;  ///< of a frame
    bool f_compression = false;     ///< by ContentEncodings, other than header stripping
    bool f_encryption = false;      ///< likewise
    std::vector<uint8_t> stripped;  ///< bytes taken off the front of each frame (header stripping)
};

struct Track {
    uint32_t number = 0;  ///< track_ID or TrackNumber
    TrackKind kind = TrackKind::OTHER;
    std::string handler;  ///< of MP4, such as "vide"
    std::string
        codec;  ///< four letters of the sample entry ("avc1"), or CodecID ("A_AAC"); printable
    std::string language;  ///< ISO 639-2 or BCP 47; empty or "und": not stated
    bool f_enabled = true;
    bool f_default = true;                   ///< of Matroska; true elsewhere
    bool f_chapters = false;                 ///< its samples are the chapters of another track
    std::optional<int64_t> duration_ns;      ///< of all that is in it, as far as the file states it
    uint32_t width = 0, height = 0;          ///< of coded pictures, in pixels
    uint32_t channels = 0, sample_rate = 0;  ///< by the container's own fields; hertz
    uint32_t output_sample_rate = 0;         ///< OutputSamplingFrequency; 0: not stated
    /// How the decoder is set up, MOST_CONFIG bytes at most: AudioSpecificConfig of AAC (ISO/IEC 14496-3),
    /// AVCDecoderConfigurationRecord of H.264 (ISO/IEC 14496-15), or CodecPrivate as it is.
    std::vector<uint8_t> config;
    Mp4Details mp4;
    MatroskaDetails matroska;
};

struct Mp4Outline {
    bool f_ftyp = false;
    bool f_moov = false;
    bool f_moov_first = false;  ///< before the media data
    bool f_moov_cut = false;    ///< it goes on after the end of the file
    bool f_mdat = false;
    bool f_64_bit_mdat = false;  ///< an "mdat" before "moov" whose size has 64 bits
    bool f_open_box = false;     ///< a box that goes on to the end of the file, before "moov"
    bool f_moof = false;         ///< a fragment was seen
    bool f_fragmented = false;   ///< "mvex" or "moof" is there
    uint32_t timescale = 0;      ///< ticks in a second of the durations of edits
    std::optional<uint64_t>
        mdat_end;  ///< by the size of the last "mdat" seen; may be after the file's end
};

/// A point that the file can be sought to.
struct Cue {
    uint64_t time;   ///< in ticks
    uint64_t track;  ///< TrackNumber, of the first one that has it
};

struct MatroskaOutline {
    std::string doc_type;
    std::string muxing_app, writing_app;
    uint64_t timestamp_scale = 1000000;   ///< nanoseconds in a tick
    uint64_t segment_begin = 0;           ///< offset of its first byte; positions count from there
    std::optional<uint64_t> segment_end;  ///< by its size; may be after the file's end
    std::optional<uint64_t> first_cluster;  ///< offset
    bool f_cues = false;
    TablePlace cues_place;  ///< of the children of the last Cues that were read
    bool f_cues_announced =
        false;              ///< the SeekHead leads to them, or they come before the clusters
    std::vector<Cue> cues;  ///< in the file's order, MOST_CUES at most
    uint64_t more_cues = 0;
    std::optional<uint64_t>
        last_cue_cluster;  ///< offset of the cluster of the last cue, of all tracks
};

struct MpegAudioOutline {
    enum class Header { NONE, XING, INFO, VBRI };

    uint64_t id3v2_size =
        0;  ///< bytes of the tag at the begin, with its header; several count together
    uint64_t id3v2_tags = 0;
    bool f_id3v1 = false;
    uint64_t ape_size = 0;  ///< bytes of an APEv2 tag at the end, with header and footer
    std::optional<uint64_t> first_frame;  ///< offset; none: no frame was found near the begin
    uint64_t end = 0;                     ///< offset where the tags at the end begin; 0: not known
    uint32_t version = 0;                 ///< 10 for MPEG-1, 20 for MPEG-2, 25 for MPEG-2.5
    uint32_t layer = 0;                   ///< 1 to 3
    uint32_t bit_rate = 0;                ///< of the first frame, bits in a second
    uint32_t samples = 0;                 ///< of a frame
    Header header = Header::NONE;         ///< the first frame, which describes the others
    std::optional<uint64_t> frames;       ///< that it states, without itself
    std::optional<uint64_t> bytes;        ///< likewise
    bool f_estimate = false;              ///< duration_ns follows from the first frame's bit rate
};

struct TransportOutline {
    uint32_t packet_size = 0;   ///< 188, 192 with a stamp before it, 204 with check bytes
    uint64_t first_packet = 0;  ///< offset
};

struct Outline {
    static constexpr size_t MOST_TRACKS = 64;
    static constexpr size_t MOST_EDITS = 64;
    static constexpr size_t MOST_CONFIG = 4096;
    static constexpr size_t MOST_CUES = 16384;
    static constexpr size_t MOST_ATTACHMENTS = 64;

    Container container = Container::UNKNOWN;
    uint64_t size = 0;          ///< of the file, in bytes; 0: not known
    bool f_partial = false;     ///< not all that was looked for could be read
    std::vector<Track> tracks;  ///< in the order of the file, MOST_TRACKS at most
    uint64_t more_tracks = 0;
    std::optional<int64_t> duration_ns;  ///< of the longest track, as the file's header states it
    std::optional<uint64_t> chapters;    ///< their number; none: not looked at or not stated
    uint64_t attachments_at =
        0;  ///< offset of Matroska's Attachments or MP4's "meta"; 0: there is none
    std::vector<Attachment> attachments;  ///< by read_details, MOST_ATTACHMENTS at most
    uint64_t more_attachments = 0;
    uint64_t looked_at_to = 0;  ///< offset after the media that the headers lead to; 0: not known
    Mp4Outline mp4;
    MatroskaOutline matroska;
    MpegAudioOutline mpeg_audio;
    TransportOutline transport;

    const Track *track(uint32_t number) const;
};

/// Reads the outline of a file. What can't be read, or goes beyond the reader's limits, is left out.
Outline read_outline(ByteSource &source);

/// Adds what only people ask about: attachments.
void read_details(ByteSource &source, Outline &outline);

/// Where another file of its kind was appended, of MP4 and Matroska: an offset; none was found.
std::optional<uint64_t> find_next_file(ByteSource &source, const Outline &outline);

/// By which the library counts the samples of a track of MP4 whose times are in a table, ms; 0 without samples.
double mean_interval(const Mp4Details &track);

/// By how much the edit list of a track of MP4 moves its times, ticks of 90 kHz: empty entries, then the first one of
/// the media (ISO/IEC 14496-12). Files by most muxers have no others. movie_timescale: of Outline::mp4.
int64_t edited_offset(const Mp4Details &track, uint32_t movie_timescale);

/// Mean frames in 1000 seconds of a video track, by the file's tables or its DefaultDuration.
std::optional<uint64_t> mean_frame_rate(const Track &track);

/// ISO/IEC 14496-3, the first fields of AudioSpecificConfig.
struct AudioConfig {
    uint32_t object_type;     ///< 2 is LC
    uint32_t sample_rate;     ///< hertz
    uint32_t channel_config;  ///< channelConfiguration
};
/// None where the bytes are too few or name no rate.
std::optional<AudioConfig> parse_audio_config(const std::vector<uint8_t> &config);

#endif

#include "dmx_mkv_tracks.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "dmx_mkv_ebml.h"
#include "dmx_mkv_ids.h"
#include "golt_avcc.h"

using namespace mkv;

namespace {

constexpr uint32_t TRACKS_MAX = 20;

constexpr uint32_t TRACK_TYPE_VIDEO = 1;
constexpr uint32_t TRACK_TYPE_AUDIO = 2;

constexpr TRACK_ENTRY default_entry()
{
    TRACK_ENTRY t_entry = {};
    t_entry.FlagEnabled = 1;
    t_entry.FlagDefault = 1;
    t_entry.TrackName[0] = ' ';
    t_entry.TrackLanguage[0] = 'e';
    t_entry.TrackLanguage[1] = 'n';
    t_entry.TrackLanguage[2] = 'g';
    t_entry.TrackCodecID[0] = ' ';
    t_entry.TrackCodecName[0] = ' ';
    t_entry.audio.SamplingFrequency = 8000;
    t_entry.audio.Channels = 1;
    t_entry.encoding.ContentEncodingScope = 1;
    return t_entry;
}

constexpr TRACK_ENTRY DefaultEntry = default_entry();

void read_track_entry(const element_t &t_element, TRACK_ENTRY &t_entry);
void read_compression(const element_t &t_element, CONTENT_COMPRESSION &t_compression);
void choose_audio(const TRACK_ENTRY *pt_entries, uint32_t count);
void choose_video(const TRACK_ENTRY *pt_entries, uint32_t count);
PARAMETER_SETS parameter_sets_of(const CODEC_PRIVATE &t_private);

}  // namespace

int32_t FileEMBL_Check_TRACK(uint32_t *Len, uint32_t used)
{
    TRACK_ENTRY at_entries[TRACKS_MAX];
    uint32_t count = 0;
    child_walk_t t_walk = children_of(Len, used);
    element_t t_child;
    while (t_walk.next(t_child)) {
        if (t_child.ID != ID_TRACK_ENTRY) {
            printf("error Tracks  ID: 0x%08X\n", hex_id(t_child));
            skip(t_child);
            continue;
        }
        // A full table goes on in its last slot.
        const uint32_t slot = std::min(count, TRACKS_MAX - 1);
        at_entries[slot] = DefaultEntry;
        read_track_entry(t_child, at_entries[slot]);
        count = slot + 1;
    }
    choose_audio(at_entries, count);
    choose_video(at_entries, count);
    return 1;
}

int32_t FileEMBL_Check_Video(uint32_t *Len, uint32_t used, TRACK_VIDEO *video)
{
    child_walk_t t_walk = children_of(Len, used);
    element_t t_child;
    while (t_walk.next(t_child)) {
        switch (t_child.ID) {
        case ID_PIXEL_WIDTH: video->PixelWidth = value32(t_child); break;
        case ID_PIXEL_HEIGHT: video->PixelHeight = value32(t_child); break;
        case ID_PIXEL_CROP_BOTTOM: video->PixelCropBottom = value32(t_child); break;
        case ID_PIXEL_CROP_TOP: video->PixelCropTop = value32(t_child); break;
        case ID_PIXEL_CROP_LEFT: video->PixelCropLeft = value32(t_child); break;
        case ID_PIXEL_CROP_RIGHT: video->PixelCropRight = value32(t_child); break;
        case ID_DISPLAY_WIDTH: video->DisplayWidth = value32(t_child); break;
        case ID_DISPLAY_HEIGHT: video->DisplayHeight = value32(t_child); break;
        case ID_DISPLAY_UNIT: video->DisplayUnit = value32(t_child); break;
        case ID_FLAG_INTERLACED: video->interlace_flag = value32(t_child); break;
        default: printf("error video ID: 0x%08X\n", hex_id(t_child)); skip(t_child);
        }
    }
    return 1;
}

int32_t FileEMBL_Check_Audio(uint32_t *Len, uint32_t used, TRACK_AUDIO *audio)
{
    child_walk_t t_walk = children_of(Len, used);
    element_t t_child;
    while (t_walk.next(t_child)) {
        switch (t_child.ID) {
        case ID_SAMPLING_FREQUENCY: audio->SamplingFrequency = float_value32(t_child); break;
        case ID_OUTPUT_SAMPLING_FREQUENCY:
            audio->OutputSamplingFrequency = float_value32(t_child);
            break;
        case ID_CHANNELS: audio->Channels = value32(t_child); break;
        case ID_BIT_DEPTH: audio->BitDepth = value32(t_child); break;
        default: printf("error audio ID: 0x%08X\n", hex_id(t_child)); skip(t_child);
        }
    }
    return 1;
}

int32_t FileEMBL_Check_Encoding(uint32_t *Len, uint32_t used, TRACK_ENCODING *encoding)
{
    child_walk_t t_walk = children_of(Len, used);
    element_t t_child;
    while (t_walk.next(t_child)) {
        switch (t_child.ID) {
        case ID_CONTENT_ENCODING_ORDER: encoding->ContentEncodingOrder = value32(t_child); break;
        case ID_CONTENT_ENCODING_SCOPE: encoding->ContentEncodingScope = value32(t_child); break;
        case ID_CONTENT_ENCODING_TYPE: encoding->ContentEncodingType = value32(t_child); break;
        case ID_CONTENT_COMPRESSION: read_compression(t_child, encoding->Compression); break;
        case ID_CONTENT_ENCRYPTION:
        case ID_CONTENT_ENCODING: skip(t_child); break;
        default: printf("error encoding ID: 0x%08X\n", hex_id(t_child)); skip(t_child);
        }
    }
    return 1;
}

namespace {

void read_codec_private(const element_t &t_element, CODEC_PRIVATE &t_private)
{
    t_private.len = std::min(t_element.Len[1], MKV_CODEC_PRIVATE_MAX);
    copy_to(t_private.data, t_element);
}

void read_track_entry(const element_t &t_element, TRACK_ENTRY &t_entry)
{
    // Two bytes or less after the last child are left to the walk over Tracks.
    constexpr uint32_t LEFT_OVER = 2;
    child_walk_t t_walk(t_element.cur_used,
                        uint64_t{t_element.cur_used} + t_element.Len[1] - LEFT_OVER);
    element_t t_child;
    while (t_walk.next(t_child)) {
        uint32_t *const Len = t_child.Len;
        const uint32_t used = t_child.cur_used;
        switch (t_child.ID) {
        case ID_TRACK_NUMBER: t_entry.TrackNumber = value32(t_child); break;
        case ID_TRACK_UID: t_entry.TrackUID = value32(t_child); break;
        case ID_TRACK_TYPE: t_entry.TrackType = value32(t_child); break;
        case ID_FLAG_ENABLED: t_entry.FlagEnabled = value8(t_child); break;
        case ID_FLAG_DEFAULT: t_entry.FlagDefault = value8(t_child); break;
        case ID_FLAG_FORCED: t_entry.FlagFoeced = value8(t_child); break;
        case ID_FLAG_LACING: t_entry.FlagLacing = value8(t_child); break;
        case ID_MIN_CACHE: t_entry.MinCache = value32(t_child); break;
        case ID_MAX_CACHE: t_entry.MaxCache = value32(t_child); break;
        case ID_DEFAULT_DURATION: t_entry.DefaultDuration = value32(t_child); break;
        case ID_TRACK_TIMECODE_SCALE: t_entry.TrackTimeCodeScale = FileGetFloat(Len[1]); break;
        case ID_NAME: copy_to(t_entry.TrackName, t_child); break;
        case ID_LANGUAGE: copy_to(t_entry.TrackLanguage, t_child); break;
        case ID_CODEC_ID: copy_to(t_entry.TrackCodecID, t_child); break;
        case ID_CODEC_NAME: copy_to(t_entry.TrackCodecName, t_child); break;
        case ID_ATTACHMENT_LINK: t_entry.AtachmentLink = value32(t_child); break;
        case ID_VIDEO: FileEMBL_Check_Video(Len, used, &t_entry.video); break;
        case ID_AUDIO: FileEMBL_Check_Audio(Len, used, &t_entry.audio); break;
        case ID_CONTENT_ENCODINGS: FileEMBL_Check_Encoding(Len, used, &t_entry.encoding); break;
        case ID_CODEC_PRIVATE: read_codec_private(t_child, t_entry.codecPrivate); break;
        case ID_CODEC_DECODE_ALL:
        case ID_MAX_BLOCK_ADDITION_ID: skip(t_child); break;
        default: printf("error Track entry ID: 0x%08X\n", hex_id(t_child)); skip(t_child);
        }
    }
}

void read_compression(const element_t &t_element, CONTENT_COMPRESSION &t_compression)
{
    child_walk_t t_walk = children_of(t_element.Len, t_element.cur_used);
    element_t t_child;
    while (t_walk.next(t_child)) {
        switch (t_child.ID) {
        case ID_CONTENT_COMP_ALGO: t_compression.ContentCompAlgo = value32(t_child); break;
        case ID_CONTENT_COMP_SETTINGS: t_compression.ContentCompSetting = value8(t_child); break;
        default: printf("error compression ID: 0x%08X\n", hex_id(t_child)); skip(t_child);
        }
    }
}

bool has_text(const TRACK_ENTRY &t_entry, const char *pc_text)
{
    const std::string_view codec_id(t_entry.TrackCodecID,
                                    strnlen(t_entry.TrackCodecID, sizeof t_entry.TrackCodecID));
    return codec_id.find(pc_text) != std::string_view::npos;
}

// A number above 255 doesn't fit its field; cut, it would match the blocks of another track.
uint8_t block_track_number(const TRACK_ENTRY &t_entry)
{
    return t_entry.TrackNumber <= 0xFF ? static_cast<uint8_t>(t_entry.TrackNumber) : 0;
}

GOLT_codecs_t audio_codec_of(const TRACK_ENTRY &t_entry)
{
    // Part of the codec ID, codec.
    static const struct {
        const char *pc_text;
        GOLT_codecs_t codec;
    } rows[] = {
        {"A_AC3", GOLT_ACODEC_AC3},
        {"A_AAC", GOLT_ACODEC_AAC},
        {"A_MPEG/L3", GOLT_ACODEC_MP3},
    };
    for (const auto &row : rows) {
        if (has_text(t_entry, row.pc_text)) return row.codec;
    }
    return GOLT_CODEC_UNKNOWN;
}

// The first audio track of a known codec. Without one, the description of the last audio track is
// kept, but no number that a block could match.
void choose_audio(const TRACK_ENTRY *pt_entries, uint32_t count)
{
    AUDIO_FRAME_INFO &t_audio = *mkvctx.AudioFrameInfo;
    for (uint32_t i = 0; i < count; ++i) {
        const TRACK_ENTRY &t_entry = pt_entries[i];
        if (t_entry.TrackType != TRACK_TYPE_AUDIO) continue;
        const GOLT_codecs_t codec = audio_codec_of(t_entry);
        const bool f_known = codec != GOLT_CODEC_UNKNOWN;
        t_audio.initialed = 1;
        t_audio.TrackNumber = f_known ? block_track_number(t_entry) : 0;
        t_audio.TimeDelta = t_entry.DefaultDuration;
        if (f_known) t_audio.codec = static_cast<uint8_t>(codec);
        memcpy(t_audio.language, t_entry.TrackLanguage, sizeof t_audio.language);
        t_audio.AudioCodecPrivate = t_entry.codecPrivate;
        t_audio.Channels = static_cast<uint8_t>(t_entry.audio.Channels);
        t_audio.sampleRate = t_entry.audio.SamplingFrequency;
        if (f_known) return;
    }
}

// The first video track, whatever its codec.
void choose_video(const TRACK_ENTRY *pt_entries, uint32_t count)
{
    VIDEO_FRAME_INFO &t_video = *mkvctx.VideoFrameInfo;
    for (uint32_t i = 0; i < count; ++i) {
        const TRACK_ENTRY &t_entry = pt_entries[i];
        if (t_entry.TrackType != TRACK_TYPE_VIDEO) continue;
        t_video.initialed = 1;
        t_video.TrackNumber = block_track_number(t_entry);
        t_video.TimeDelta = t_entry.DefaultDuration;
        if (has_text(t_entry, "V_MPEG4/ISO")) t_video.codec = GOLT_VCODEC_H264;
        memcpy(t_video.language, t_entry.TrackLanguage, sizeof t_video.language);
        t_video.height = t_entry.video.PixelHeight;
        t_video.width = t_entry.video.PixelWidth;
        t_video.VideoCodecPrivate = t_entry.codecPrivate;
        t_video.ParameterSets = parameter_sets_of(t_entry.codecPrivate);
        return;
    }
}

// The parameter sets of an AVC configuration record, each after a start code. An empty set is left
// out. Data that isn't such a record is taken unchanged.
PARAMETER_SETS parameter_sets_of(const CODEC_PRIVATE &t_private)
{
    constexpr uint32_t COUNTS = 2;  // bytes: a record without any set has both counts
    // A set of one byte, with its length, grows from 3 bytes to 5.
    static_assert(MKV_CODEC_PRIVATE_MAX * 5 / 3 <= MKV_PARAMETER_SETS_MAX);

    PARAMETER_SETS t_sets = {};
    golt_reader_t t_record(t_private.data, t_private.len);
    const uint8_t configurationVersion = t_record.get_u8();
    t_record.skip(AVCC_HEAD_SIZE - sizeof configurationVersion);
    if (configurationVersion != 1 || t_record.left() < COUNTS) {
        t_sets.len = t_private.len;
        memcpy(t_sets.data, t_private.data, t_private.len);
        return t_sets;
    }
    avc_parameter_sets_t t_walk(t_record);
    avc_parameter_set_t t_set = {};
    while (t_walk.next(&t_set)) {
        if (t_set.ui4_size == 0) continue;
        memcpy(t_sets.data + t_sets.len, MKV_START_CODE, MKV_START_CODE_SIZE);
        t_sets.len += MKV_START_CODE_SIZE;
        memcpy(t_sets.data + t_sets.len, t_set.pb_unit, t_set.ui4_size);
        t_sets.len += t_set.ui4_size;
    }
    return t_sets;
}

}  // namespace

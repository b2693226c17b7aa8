// Names of codecs for people.

#include <algorithm>

#include "selection.h"

namespace {

struct Name {
    const char *code;  // an entry that ends in '*' stands for all that begin so
    const char *title;
};

// Sample entries of MP4 and QuickTime files.
const Name MP4_NAMES[] = {
    {"avc1", "H.264"},
    {"avc3", "H.264 with parameter sets among the pictures (avc3)"},
    {"hvc1", "HEVC"},
    {"hev1", "HEVC"},
    {"dvh1", "HEVC (dvh1)"},
    {"dvhe", "HEVC (dvhe)"},
    {"vvc1", "VVC"},
    {"av01", "AV1"},
    {"vp08", "VP8"},
    {"vp09", "VP9"},
    {"mp4v", "MPEG-4 Visual"},
    {"jpeg", "JPEG"},
    {"mjp*", "JPEG"},
    {"ap4*", "ProRes"},
    {"apc*", "ProRes"},
    {"s263", "H.263"},
    {"h263", "H.263"},
    {"encv", "encrypted video"},
    {"ac-3", "AC-3"},
    {"ec-3", "E-AC-3"},
    {"ac-4", "AC-4"},
    {"Opus", "Opus"},
    {"fLaC", "FLAC"},
    {"alac", "ALAC"},
    {"dts*", "DTS"},
    {"mlpa", "TrueHD"},
    {".mp3", "MP3"},
    {"samr", "AMR"},
    {"sawb", "AMR"},
    {"sowt", "PCM"},
    {"twos", "PCM"},
    {"lpcm", "PCM"},
    {"ipcm", "PCM"},
    {"fpcm", "PCM"},
    {"in24", "PCM"},
    {"raw ", "PCM"},
    {"ulaw", "G.711"},
    {"alaw", "G.711"},
    {"enca", "encrypted audio"},
    {"tx3g", "timed text"},
    {"text", "timed text"},
    {"wvtt", "WebVTT"},
    {"stpp", "TTML"},
    {"c608", "CEA-608"},
    {"c708", "CEA-708"},
    {"tmcd", "time code"},
};

// objectTypeIndication of ISO/IEC 14496-1, of an entry "mp4a".
const struct {
    uint8_t type;
    const char *title;
} OBJECT_TYPES[] = {
    {0x40, "AAC"},        {0x66, "MPEG-2 AAC"}, {0x67, "MPEG-2 AAC"}, {0x68, "MPEG-2 AAC"},
    {0x69, "MPEG-2 MP3"}, {0x6B, "MP3"},        {0xA5, "AC-3"},       {0xA6, "E-AC-3"},
    {0xA9, "DTS"},        {0xAD, "Opus"},       {0xDD, "Vorbis"},     {0xE1, "QCELP"},
};

// CodecID of Matroska.
const Name MATROSKA_NAMES[] = {
    {"V_MPEG4/ISO/AVC", "H.264"},
    {"V_MPEG4/ISO/*", "MPEG-4 Visual"},
    {"V_MPEG4/MS*", "MPEG-4 Visual"},
    {"V_MPEGH/ISO/HEVC", "HEVC"},
    {"V_MPEGI/ISO/VVC", "VVC"},
    {"V_MPEG1", "MPEG-1 video"},
    {"V_MPEG2", "MPEG-2 video"},
    {"V_AV1", "AV1"},
    {"V_VP8", "VP8"},
    {"V_VP9", "VP9"},
    {"V_THEORA", "Theora"},
    {"V_MJPEG", "JPEG"},
    {"V_PRORES", "ProRes"},
    {"V_FFV1", "FFV1"},
    {"V_UNCOMPRESSED", "uncompressed video"},
    {"A_AAC*", "AAC"},
    {"A_AC3*", "AC-3"},
    {"A_EAC3", "E-AC-3"},
    {"A_MPEG/L3", "MP3"},
    {"A_MPEG/L2", "MPEG audio Layer II"},
    {"A_MPEG/L1", "MPEG audio Layer I"},
    {"A_DTS*", "DTS"},
    {"A_TRUEHD", "TrueHD"},
    {"A_MLP", "MLP"},
    {"A_OPUS", "Opus"},
    {"A_VORBIS", "Vorbis"},
    {"A_FLAC", "FLAC"},
    {"A_ALAC", "ALAC"},
    {"A_PCM*", "PCM"},
    {"A_WAVPACK4", "WavPack"},
    {"S_TEXT/UTF8", "SubRip"},
    {"S_TEXT/ASS", "ASS"},
    {"S_TEXT/SSA", "SSA"},
    {"S_TEXT/WEBVTT", "WebVTT"},
    {"S_VOBSUB", "VobSub"},
    {"S_HDMV/PGS", "PGS"},
    {"S_DVBSUB", "DVB subtitles"},
};

// profile_idc of ISO/IEC 14496-10.
constexpr uint8_t BASELINE = 66, MAIN = 77, EXTENDED = 88;
const struct {
    uint8_t profile_idc;
    const char *title;
} PROFILES[] = {
    {BASELINE, "Baseline"},
    {MAIN, "Main"},
    {EXTENDED, "Extended"},
    {100, "High"},
    {110, "High 10"},
    {122, "High 4:2:2"},
    {244, "High 4:4:4 Predictive"},
    {44, "CAVLC 4:4:4 Intra"},
};

bool has_h264_config(const Outline &outline, const Track &track)
{
    constexpr size_t LEAST = 4;
    return track.config.size() >= LEAST && codec_title(outline, track) == "H.264";
}

bool is_code(const Name &name, const std::string &code)
{
    const std::string wanted = name.code;
    if (wanted.back() != '*') return code == wanted;
    return code.compare(0, wanted.size() - 1, wanted, 0, wanted.size() - 1) == 0;
}

}  // namespace

std::string codec_title(const Outline &outline, const Track &track)
{
    if (outline.container == Container::MPEG_AUDIO) {
        static const char *const LAYERS[] = {"I", "II", "III"};
        const MpegAudioOutline &audio = outline.mpeg_audio;
        const std::string version = audio.version == 25 ? "2.5" : audio.version == 20 ? "2" : "1";
        return "MPEG-" + version + " Layer " + LAYERS[(audio.layer - 1) % 3];
    }
    if (track.mp4.layer == 1) return "MPEG audio Layer I";
    if (track.mp4.layer == 2) return "MPEG audio Layer II";
    if (track.codec == "mp4a") {
        for (const auto &row : OBJECT_TYPES)
            if (row.type == track.mp4.object_type) return row.title;
        return "mp4a";
    }
    const bool f_mp4 = outline.container == Container::MP4;
    const Name *const begin = f_mp4 ? std::begin(MP4_NAMES) : std::begin(MATROSKA_NAMES);
    const Name *const end = f_mp4 ? std::end(MP4_NAMES) : std::end(MATROSKA_NAMES);
    const Name *const found =
        std::find_if(begin, end, [&](const Name &name) { return is_code(name, track.codec); });
    if (found != end) return found->title;
    return track.codec.empty() ? "an unknown codec" : track.codec;
}

// The decoder's own setup is right where the container's fields differ.
AudioFigures audio_figures(const Outline &outline, const Track &track)
{
    AudioConfig config = {0, track.sample_rate, 0};
    if (codec_title(outline, track) == "AAC")
        config = parse_audio_config(track.config).value_or(config);
    constexpr uint32_t SEVEN_ONE = 7;  // channelConfiguration 7 has 8 channels
    const uint32_t own = config.channel_config == SEVEN_ONE ? 8 : config.channel_config;
    return {own == 0 ? track.channels : own, config.sample_rate};
}

std::string h264_profile(const Outline &outline, const Track &track)
{
    constexpr size_t PROFILE_AT = 1, CONSTRAINTS_AT = 2;  // AVCDecoderConfigurationRecord
    constexpr uint8_t SET_1 = 0x40;
    if (!has_h264_config(outline, track)) return "";
    const uint8_t profile = track.config[PROFILE_AT];
    const bool f_constrained = (track.config[CONSTRAINTS_AT] & SET_1) != 0;
    if (profile == BASELINE && f_constrained) return "Constrained Baseline";
    for (const auto &row : PROFILES)
        if (row.profile_idc == profile) return row.title;
    return "profile " + std::to_string(profile);
}

std::string h264_level(const Outline &outline, const Track &track)
{
    constexpr size_t PROFILE_AT = 1, CONSTRAINTS_AT = 2, LEVEL_AT = 3;
    constexpr uint8_t SET_3 = 0x10, LEVEL_1_1 = 11, LEVEL_1B = 9;
    if (!has_h264_config(outline, track)) return "";
    const uint8_t profile = track.config[PROFILE_AT], level = track.config[LEVEL_AT];
    // Level 1b, which has no number of its own in the profiles that came first.
    const bool f_first = profile == BASELINE || profile == MAIN || profile == EXTENDED;
    const bool f_set_3 = (track.config[CONSTRAINTS_AT] & SET_3) != 0;
    if (level == LEVEL_1B || (f_first && f_set_3 && level == LEVEL_1_1)) return "1b";
    const std::string tenths = level % 10 == 0 ? "" : "." + std::to_string(level % 10);
    return std::to_string(level / 10) + tenths;
}

std::string kind_name(const Track &track)
{
    if (track.f_chapters) return "chapters";
    switch (track.kind) {
    case TrackKind::VIDEO: return "video";
    case TrackKind::AUDIO: return "audio";
    case TrackKind::SUBTITLES: return "subtitles";
    case TrackKind::OTHER: break;
    }
    return "data";
}

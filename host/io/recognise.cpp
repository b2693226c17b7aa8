#include "recognise.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace {

bool is_mp4(const uint8_t *head, size_t size);
bool is_matroska(const uint8_t *head, size_t size);
bool is_m2ts(const uint8_t *head, size_t size);
bool is_mpeg_audio(const uint8_t *head, size_t size);
bool is_none(const uint8_t *head, size_t size);

// The stamps of M2TS may look like a frame of MPEG audio, so M2TS is tried first.
const struct {
    Format format;
    bool (*is_it)(const uint8_t *head, size_t size);
    const char *names;  // with a blank around each
} rows[] = {
    {{"mp4", 0, true, "MP4", Container::MP4}, is_mp4, " mp4 m4a m4v mov 3gp video/mp4 audio/mp4 "},
    {{"mkv", 0, true, "Matroska", Container::MATROSKA},
     is_matroska,
     " mkv mka mk3d webm audio/x-matroska video/x-matroska video/x-matroska-3d "},
    {{"m2ts", 192, false, "M2TS", Container::TRANSPORT_STREAM}, is_m2ts, " m2ts mts video/ts "},
    {{"ts", 188, false, "transport stream", Container::TRANSPORT_STREAM},
     is_none,
     " ts mpegts video/mp2t "},
    {{"mp3", 0, true, "MPEG audio", Container::MPEG_AUDIO}, is_mpeg_audio, " mp3 audio/mpeg "},
};

// Of formats that the library doesn't read: bytes at the begin, and others at a later place.
struct Mark {
    const char *bytes;
    size_t size;
};
const struct {
    const char *title;
    Mark first;
    size_t at;
    Mark then;
} other_rows[] = {
    {"AVI", {"RIFF", 4}, 8, {"AVI ", 4}},
    {"WAVE", {"RIFF", 4}, 8, {"WAVE", 4}},
    {"Ogg", {"OggS", 4}, 0, {}},
    {"FLAC", {"fLaC", 4}, 0, {}},
    {"Flash Video", {"FLV\x01", 4}, 0, {}},
    {"ASF (WMV, WMA)", {"\x30\x26\xB2\x75\x8E\x66\xCF\x11", 8}, 0, {}},
    {"an MPEG program stream", {"\0\0\x01\xBA", 4}, 0, {}},
    {"an AC-3 stream without a container", {"\x0B\x77", 2}, 0, {}},
    {"an AAC stream without a container", {"\xFF\xF1", 2}, 0, {}},
    {"an AAC stream without a container", {"\xFF\xF9", 2}, 0, {}},
    {"a video stream without a container", {"\0\0\0\x01", 4}, 0, {}},
    {"JPEG", {"\xFF\xD8\xFF", 3}, 0, {}},
    {"PNG", {"\x89PNG", 4}, 0, {}},
};

}  // namespace

const Format *format_of_bytes(const uint8_t *head, size_t size)
{
    for (const auto &row : rows) {
        if (row.is_it(head, size)) return &row.format;
    }
    return nullptr;
}

std::string why_other_format(const uint8_t *head, size_t size)
{
    const auto has = [&](size_t at, const Mark &mark) {
        return mark.size == 0 ||
               (size >= at + mark.size && memcmp(head + at, mark.bytes, mark.size) == 0);
    };
    for (const auto &row : other_rows) {
        if (has(0, row.first) && has(row.at, row.then))
            return std::string(row.title) + " isn't remuxed, only MP4, Matroska, MP3 and M2TS are";
    }
    return "";
}

const Format *format_of_name(const std::string &name)
{
    if (name.empty() || name.find(' ') != std::string::npos) return nullptr;
    std::string wanted = " " + name + " ";
    std::transform(wanted.begin(), wanted.end(), wanted.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    for (const auto &row : rows) {
        if (strstr(row.names, wanted.c_str()) != nullptr) return &row.format;
    }
    return nullptr;
}

namespace {

// ISO/IEC 14496-12: the first box is "ftyp".
bool is_mp4(const uint8_t *head, size_t size)
{
    return size >= 8 && memcmp(head + 4, "ftyp", 4) == 0;
}

// RFC 8794: the ID of the EBML header.
bool is_matroska(const uint8_t *head, size_t size)
{
    return size >= 4 && memcmp(head, "\x1A\x45\xDF\xA3", 4) == 0;
}

// Sync bytes of three packets (ISO/IEC 13818-1), each after a stamp of four bytes.
bool is_m2ts(const uint8_t *head, size_t size)
{
    constexpr uint8_t SYNC_BYTE = 0x47;
    return size >= RECOGNISE_SIZE && head[4] == SYNC_BYTE && head[4 + 192] == SYNC_BYTE &&
           head[4 + 2 * 192] == SYNC_BYTE;
}

// An ID3v2 tag, or the header of a frame (ISO/IEC 11172-3): syncword, a layer that isn't reserved,
// and neither of the forbidden values of bitrate_index and sampling_frequency.
bool is_mpeg_audio(const uint8_t *head, size_t size)
{
    if (size >= 3 && memcmp(head, "ID3", 3) == 0) return true;
    return size >= 4 && head[0] == 0xFF && (head[1] & 0xE0) == 0xE0 && (head[1] & 0x06) != 0 &&
           (head[2] & 0xF0) != 0xF0 && (head[2] & 0x0C) != 0x0C;
}

// Its outline recognises it: packets may begin anywhere.
bool is_none(const uint8_t * /*head*/, size_t /*size*/)
{
    return false;
}

}  // namespace

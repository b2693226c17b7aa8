// The headers of Matroska files (RFC 9559): what is before the first cluster, and what the SeekHead
// leads to.

#include <algorithm>
#include <map>

#include "ebml.h"
#include "parsers.h"

namespace outline {

namespace {

constexpr size_t LONGEST_TEXT = 64;
constexpr size_t MOST_PLACES = 32;  // entries of a SeekHead

/// The elements that were read, and the places of others.
struct Headers {
    Outline &outline;
    std::map<uint32_t, uint64_t> places = {};  // by ID; offsets in the file
    std::map<uint32_t, bool> done = {};
    double duration_ticks = 0;
    std::map<uint64_t, int64_t> tagged_ns = {};  // durations, by TrackUID; 0 means all
};

void read_front(Stretch &segment, Headers &headers);
void read_places(Reader &reader, Headers &headers);
void read_header(const Element &element, Headers &headers);
void read_seek_head(Stretch body, Headers &headers);
void read_info(Stretch body, Headers &headers);
void read_tracks(Stretch body, Outline &outline);
Track read_track_entry(Stretch body);
void read_video(Stretch body, Track &track);
void read_audio(Stretch body, Track &track);
void read_encodings(Stretch body, MatroskaDetails &matroska);
void read_encoding(Stretch body, MatroskaDetails &matroska);
void read_cues(Stretch body, MatroskaOutline &matroska);
void read_cue_place(Stretch body, Cue &cue, MatroskaOutline &matroska);
void read_chapters(Stretch body, Outline &outline);
void read_tags(Stretch body, Headers &headers);
void read_tag(Stretch body, Headers &headers);
std::optional<int64_t> parse_tagged_time(const std::string &text);
void set_durations(Headers &headers);

}  // namespace

void read_matroska(Reader &reader, Outline &outline)
{
    Stretch file(reader, 0, reader.size());
    const std::optional<Element> ebml = next_element(file);
    if (!ebml || ebml->id != id::EBML) return;
    Stretch children = ebml->body;
    while (const std::optional<Element> child = next_element(children))
        if (child->id == id::DOC_TYPE) outline.matroska.doc_type = text_of(*child, LONGEST_TEXT);

    std::optional<Element> segment = next_element(file);
    while (segment && segment->id == id::VOID_ELEMENT)
        segment = next_element(file);
    if (!segment || segment->id != id::SEGMENT) return;
    MatroskaOutline &matroska = outline.matroska;
    matroska.segment_begin = segment->body.at();
    if (!segment->f_open && segment->declared <= UINT64_MAX - segment->body.at())
        matroska.segment_end = segment->body.at() + segment->declared;

    Headers headers = {outline};
    read_front(segment->body, headers);
    read_places(reader, headers);
    set_durations(headers);
    const auto attachments = headers.places.find(id::ATTACHMENTS);
    if (outline.attachments_at == 0 && attachments != headers.places.end())
        outline.attachments_at = attachments->second;
    outline.looked_at_to = matroska.segment_end.value_or(0);
    const bool f_chapters_elsewhere = headers.places.count(id::CHAPTERS) != 0;
    if (!outline.chapters && !f_chapters_elsewhere) outline.chapters = 0;
}

namespace {

// Up to the first cluster.
void read_front(Stretch &segment, Headers &headers)
{
    MatroskaOutline &matroska = headers.outline.matroska;
    while (const std::optional<Element> element = next_element(segment)) {
        if (element->id != id::CLUSTER) {
            read_header(*element, headers);
            continue;
        }
        matroska.first_cluster = element->begin;
        matroska.f_cues_announced = matroska.f_cues || headers.places.count(id::CUES) != 0;
        break;
    }
}

// In the order of the file, so that a server is asked as few times as can be.
void read_places(Reader &reader, Headers &headers)
{
    std::vector<std::pair<uint64_t, uint32_t>> wanted;
    for (const uint32_t name : {id::INFO, id::TRACKS, id::CUES, id::CHAPTERS, id::TAGS}) {
        const auto place = headers.places.find(name);
        if (place != headers.places.end() && !headers.done[name])
            wanted.emplace_back(place->second, name);
    }
    std::sort(wanted.begin(), wanted.end());
    const uint64_t end =
        std::min(reader.size(), headers.outline.matroska.segment_end.value_or(UINT64_MAX));
    for (const auto &[offset, name] : wanted) {
        Stretch there(reader, offset, end);
        const std::optional<Element> element = next_element(there);
        if (element && element->id == name) read_header(*element, headers);
    }
}

void read_header(const Element &element, Headers &headers)
{
    Outline &outline = headers.outline;
    switch (element.id) {
    case id::SEEK_HEAD: read_seek_head(element.body, headers); break;
    case id::INFO: read_info(element.body, headers); break;
    case id::TRACKS:
        if (!headers.done[id::TRACKS]) read_tracks(element.body, outline);
        break;
    case id::CUES: read_cues(element.body, outline.matroska); break;
    case id::CHAPTERS:
        outline.chapters = 0;
        read_chapters(element.body, outline);
        break;
    case id::TAGS: read_tags(element.body, headers); break;
    case id::ATTACHMENTS: outline.attachments_at = element.begin; break;
    }
    headers.done[element.id] = true;
}

void read_seek_head(Stretch body, Headers &headers)
{
    constexpr uint32_t SEEK = 0x4DBB, SEEK_ID = 0x53AB, SEEK_POSITION = 0x53AC;
    const uint64_t base = headers.outline.matroska.segment_begin;
    while (const std::optional<Element> entry = next_element(body)) {
        if (entry->id != SEEK) continue;
        uint64_t name = 0;
        std::optional<uint64_t> position;
        Stretch children = entry->body;
        while (const std::optional<Element> child = next_element(children)) {
            if (child->id == SEEK_ID) name = unsigned_of(*child);
            if (child->id == SEEK_POSITION) position = unsigned_of(*child);
        }
        const bool f_room = headers.places.size() < MOST_PLACES;
        if (position && *position <= UINT64_MAX - base && name <= UINT32_MAX && f_room)
            headers.places.emplace(static_cast<uint32_t>(name), base + *position);
    }
}

void read_info(Stretch body, Headers &headers)
{
    constexpr uint32_t TIMESTAMP_SCALE = 0x2AD7B1, DURATION = 0x4489, MUXING_APP = 0x4D80,
                       WRITING_APP = 0x5741;
    MatroskaOutline &matroska = headers.outline.matroska;
    while (const std::optional<Element> child = next_element(body)) {
        switch (child->id) {
        case TIMESTAMP_SCALE:
            if (unsigned_of(*child) != 0) matroska.timestamp_scale = unsigned_of(*child);
            break;
        case DURATION: headers.duration_ticks = float_of(*child); break;
        case MUXING_APP: matroska.muxing_app = text_of(*child, LONGEST_TEXT); break;
        case WRITING_APP: matroska.writing_app = text_of(*child, LONGEST_TEXT); break;
        }
    }
}

void read_tracks(Stretch body, Outline &outline)
{
    constexpr uint32_t TRACK_ENTRY = 0xAE;
    while (const std::optional<Element> child = next_element(body)) {
        if (child->id != TRACK_ENTRY) continue;
        if (outline.tracks.size() < Outline::MOST_TRACKS)
            outline.tracks.push_back(read_track_entry(child->body));
        else
            ++outline.more_tracks;
    }
}

TrackKind kind_of_type(uint64_t type)
{
    constexpr uint64_t VIDEO = 1, AUDIO = 2, SUBTITLE = 17;
    return type == VIDEO      ? TrackKind::VIDEO
           : type == AUDIO    ? TrackKind::AUDIO
           : type == SUBTITLE ? TrackKind::SUBTITLES
                              : TrackKind::OTHER;
}

Track read_track_entry(Stretch body)
{
    constexpr uint32_t NUMBER = 0xD7, UID = 0x73C5, TYPE = 0x83, ENABLED = 0xB9, DEFAULT = 0x88,
                       DEFAULT_DURATION = 0x23E383, LANGUAGE = 0x22B59C, LANGUAGE_BCP47 = 0x22B59D,
                       CODEC = 0x86, CODEC_PRIVATE = 0x63A2, VIDEO = 0xE0, AUDIO = 0xE1,
                       ENCODINGS = 0x6D80;
    Track track;
    std::string language = "eng", language_bcp47;  // eng: the format's default
    while (const std::optional<Element> child = next_element(body)) {
        const uint64_t number = unsigned_of(*child);
        switch (child->id) {
        case NUMBER:
            track.number = static_cast<uint32_t>(std::min<uint64_t>(number, UINT32_MAX));
            break;
        case UID: track.matroska.uid = number; break;
        case TYPE: track.kind = kind_of_type(number); break;
        case ENABLED: track.f_enabled = number != 0; break;
        case DEFAULT: track.f_default = number != 0; break;
        case DEFAULT_DURATION:
            if (number != 0) track.matroska.default_duration_ns = number;
            break;
        case LANGUAGE: language = text_of(*child, LONGEST_TEXT); break;
        case LANGUAGE_BCP47: language_bcp47 = text_of(*child, LONGEST_TEXT); break;
        case CODEC: track.codec = text_of(*child, LONGEST_TEXT); break;
        case CODEC_PRIVATE: {
            Stretch bytes = child->body;
            track.config = bytes.bytes(bytes.left(), Outline::MOST_CONFIG);
            break;
        }
        case VIDEO: read_video(child->body, track); break;
        case AUDIO: read_audio(child->body, track); break;
        case ENCODINGS: read_encodings(child->body, track.matroska); break;
        }
    }
    track.language = language_bcp47.empty() ? language : language_bcp47;
    return track;
}

void read_video(Stretch body, Track &track)
{
    constexpr uint32_t WIDTH = 0xB0, HEIGHT = 0xBA;
    while (const std::optional<Element> child = next_element(body)) {
        if (child->id == WIDTH) track.width = static_cast<uint32_t>(unsigned_of(*child));
        if (child->id == HEIGHT) track.height = static_cast<uint32_t>(unsigned_of(*child));
    }
}

uint32_t rate_of(const Element &element)
{
    const double rate = float_of(element);
    return rate > 0 && rate < UINT32_MAX ? static_cast<uint32_t>(rate) : 0;
}

void read_audio(Stretch body, Track &track)
{
    constexpr uint32_t RATE = 0xB5, OUTPUT_RATE = 0x78B5, CHANNELS = 0x9F;
    track.sample_rate = 8000;  // the format's defaults
    track.channels = 1;
    while (const std::optional<Element> child = next_element(body)) {
        if (child->id == RATE) track.sample_rate = rate_of(*child);
        if (child->id == OUTPUT_RATE) track.output_sample_rate = rate_of(*child);
        if (child->id == CHANNELS) track.channels = static_cast<uint32_t>(unsigned_of(*child));
    }
}

void read_encodings(Stretch body, MatroskaDetails &matroska)
{
    constexpr uint32_t ENCODING = 0x6240;
    while (const std::optional<Element> child = next_element(body))
        if (child->id == ENCODING) read_encoding(child->body, matroska);
}

void read_encoding(Stretch body, MatroskaDetails &matroska)
{
    constexpr uint32_t SCOPE = 0x5032, TYPE = 0x5033, COMPRESSION = 0x5034, ALGORITHM = 0x4254,
                       SETTINGS = 0x4255;
    constexpr uint64_t FRAMES = 1, ENCRYPTION = 1, HEADER_STRIPPING = 3;
    constexpr size_t MOST_STRIPPED = 256;
    uint64_t scope = FRAMES, type = 0, algorithm = 0;
    std::vector<uint8_t> settings;
    while (const std::optional<Element> child = next_element(body)) {
        if (child->id == SCOPE) scope = unsigned_of(*child);
        if (child->id == TYPE) type = unsigned_of(*child);
        if (child->id != COMPRESSION) continue;
        Stretch children = child->body;
        while (const std::optional<Element> inner = next_element(children)) {
            if (inner->id == ALGORITHM) algorithm = unsigned_of(*inner);
            if (inner->id != SETTINGS) continue;
            Stretch bytes = inner->body;
            settings = bytes.bytes(bytes.left(), MOST_STRIPPED);
        }
    }
    if ((scope & FRAMES) == 0) return;
    if (type == ENCRYPTION)
        matroska.f_encryption = true;
    else if (algorithm == HEADER_STRIPPING)
        matroska.stripped = settings;
    else
        matroska.f_compression = true;
}

// A point has one time, and a place for each of its tracks.
void read_cues(Stretch body, MatroskaOutline &matroska)
{
    constexpr uint32_t POINT = 0xBB, TIME = 0xB3, POSITIONS = 0xB7;
    matroska.f_cues = true;
    matroska.cues_place = {body.at(), body.end()};
    matroska.cues.clear();
    matroska.more_cues = 0;
    while (const std::optional<Element> point = next_element(body)) {
        if (point->id != POINT) continue;
        Cue cue = {};
        Stretch children = point->body;
        while (const std::optional<Element> child = next_element(children)) {
            if (child->id == TIME) cue.time = unsigned_of(*child);
            if (child->id == POSITIONS) read_cue_place(child->body, cue, matroska);
        }
        if (matroska.cues.size() < Outline::MOST_CUES)
            matroska.cues.push_back(cue);
        else
            ++matroska.more_cues;
    }
}

void read_cue_place(Stretch body, Cue &cue, MatroskaOutline &matroska)
{
    constexpr uint32_t TRACK = 0xF7, CLUSTER_POSITION = 0xF1;
    while (const std::optional<Element> child = next_element(body)) {
        if (child->id == TRACK && cue.track == 0) cue.track = unsigned_of(*child);
        if (child->id != CLUSTER_POSITION) continue;
        const uint64_t position = unsigned_of(*child);
        if (position > UINT64_MAX - matroska.segment_begin) continue;
        matroska.last_cue_cluster =
            std::max(matroska.last_cue_cluster.value_or(0), matroska.segment_begin + position);
    }
}

// Those on the top level of each edition, which players list.
void read_chapters(Stretch body, Outline &outline)
{
    constexpr uint32_t EDITION = 0x45B9, ATOM = 0xB6;
    while (const std::optional<Element> edition = next_element(body)) {
        if (edition->id != EDITION) continue;
        Stretch children = edition->body;
        while (const std::optional<Element> child = next_element(children))
            if (child->id == ATOM) outline.chapters = outline.chapters.value_or(0) + 1;
    }
}

void read_tags(Stretch body, Headers &headers)
{
    constexpr uint32_t TAG = 0x7373;
    while (const std::optional<Element> tag = next_element(body))
        if (tag->id == TAG) read_tag(tag->body, headers);
}

// Muxers write a tag DURATION for each track: the header states only that of the longest.
void read_tag(Stretch body, Headers &headers)
{
    constexpr uint32_t TARGETS = 0x63C0, TRACK_UID = 0x63C5, SIMPLE_TAG = 0x67C8, NAME = 0x45A3,
                       STRING = 0x4487;
    uint64_t uid = 0;
    std::optional<int64_t> time_ns;
    while (const std::optional<Element> child = next_element(body)) {
        Stretch children = child->body;
        std::string name, text;
        while (const std::optional<Element> inner = next_element(children)) {
            if (child->id == TARGETS && inner->id == TRACK_UID) uid = unsigned_of(*inner);
            if (child->id == SIMPLE_TAG && inner->id == NAME) name = text_of(*inner, LONGEST_TEXT);
            if (child->id == SIMPLE_TAG && inner->id == STRING)
                text = text_of(*inner, LONGEST_TEXT);
        }
        if (name == "DURATION") time_ns = parse_tagged_time(text);
    }
    if (uid != 0 && time_ns && headers.tagged_ns.size() < Outline::MOST_TRACKS)
        headers.tagged_ns[uid] = *time_ns;
}

// "00:01:00.123456789"
std::optional<int64_t> parse_tagged_time(const std::string &text)
{
    constexpr int64_t SECOND_NS = 1000000000;
    int64_t fields[3] = {}, unit_ns = SECOND_NS, fraction_ns = 0;
    size_t field = 0, digits = 0;
    bool f_fraction = false;
    for (const char letter : text) {
        const bool f_digit = letter >= '0' && letter <= '9';
        if (f_digit && f_fraction) {
            unit_ns /= 10;
            fraction_ns += (letter - '0') * unit_ns;
        } else if (f_digit) {
            if (++digits > 6) return {};
            fields[field] = fields[field] * 10 + (letter - '0');
        } else if (letter == ':' && field < 2 && !f_fraction) {
            ++field;
            digits = 0;
        } else if (letter == '.' && !f_fraction) {
            f_fraction = true;
        } else {
            return {};
        }
    }
    if (field != 2) return {};
    return ((fields[0] * 60 + fields[1]) * 60 + fields[2]) * SECOND_NS + fraction_ns;
}

void set_durations(Headers &headers)
{
    constexpr double MOST_NS = 4e18;
    Outline &outline = headers.outline;
    const double duration_ns =
        headers.duration_ticks * static_cast<double>(outline.matroska.timestamp_scale);
    if (duration_ns >= 1 && duration_ns < MOST_NS)
        outline.duration_ns = (static_cast<int64_t>(duration_ns * 2) + 1) / 2;
    for (Track &track : outline.tracks) {
        const auto tagged = headers.tagged_ns.find(track.matroska.uid);
        if (tagged != headers.tagged_ns.end() && track.matroska.uid != 0)
            track.duration_ns = tagged->second;
    }
}

}  // namespace

}  // namespace outline

// What people ask about and nothing else needs: files that lie beside the tracks.

#include <algorithm>

#include "ebml.h"
#include "outline.h"
#include "parsers.h"

namespace outline {

namespace {

constexpr size_t LONGEST_TEXT = 256;
const char *const JPEG = "image/jpeg";
const char *const PNG = "image/png";

void read_attachments(Reader &reader, Outline &outline);
void read_attached_file(Stretch body, Outline &outline);
void read_covers(Reader &reader, Outline &outline);
void read_cover(Stretch data, Outline &outline);
void read_pictures(Reader &reader, Outline &outline);
void read_pictures_of_tag(Stretch frames, uint8_t version, Outline &outline);
void read_picture(Stretch body, Outline &outline);
void add(const Attachment &attachment, Outline &outline);

}  // namespace

}  // namespace outline

using namespace outline;

void read_details(ByteSource &source, Outline &outline)
{
    Reader reader(source);
    switch (outline.container) {
    case Container::MP4: read_covers(reader, outline); break;
    case Container::MATROSKA: read_attachments(reader, outline); break;
    case Container::MPEG_AUDIO: read_pictures(reader, outline); break;
    case Container::TRANSPORT_STREAM:
    case Container::UNKNOWN: break;
    }
}

namespace outline {

namespace {

// As they are: printable() sees to the rest.
std::string words(Stretch &in, uint64_t size)
{
    const std::vector<uint8_t> bytes = in.bytes(size, LONGEST_TEXT);
    return std::string(bytes.begin(), std::find(bytes.begin(), bytes.end(), 0));
}

void read_attachments(Reader &reader, Outline &outline)
{
    constexpr uint32_t ATTACHED_FILE = 0x61A7;
    if (outline.attachments_at == 0) return;
    Stretch there(reader, outline.attachments_at, reader.size());
    std::optional<Element> attachments = next_element(there);
    if (!attachments || attachments->id != id::ATTACHMENTS) return;
    while (const std::optional<Element> child = next_element(attachments->body))
        if (child->id == ATTACHED_FILE) read_attached_file(child->body, outline);
}

void read_attached_file(Stretch body, Outline &outline)
{
    constexpr uint32_t NAME = 0x466E, MEDIA_TYPE = 0x4660, DATA = 0x465C;
    Attachment attachment;
    while (std::optional<Element> child = next_element(body)) {
        if (child->id == NAME) attachment.name = words(child->body, child->body.left());
        if (child->id == MEDIA_TYPE) attachment.media_type = words(child->body, child->body.left());
        if (child->id == DATA)
            attachment.size = child->f_open ? child->body.left() : child->declared;
    }
    add(attachment, outline);
}

// "ilst" of "meta", the list that iTunes has brought into use: "covr" holds a "data" for each picture.
void read_covers(Reader &reader, Outline &outline)
{
    constexpr uint64_t VERSION_AND_FLAGS = 4;
    if (outline.attachments_at == 0) return;
    Stretch there(reader, outline.attachments_at, reader.size());
    std::optional<Box> meta = next_box(there);
    if (!meta) return;
    meta->body.skip(VERSION_AND_FLAGS);
    while (std::optional<Box> list = next_box(meta->body)) {
        if (list->type != box_type("ilst")) continue;
        while (std::optional<Box> item = next_box(list->body)) {
            if (item->type != box_type("covr")) continue;
            while (const std::optional<Box> data = next_box(item->body))
                if (data->type == box_type("data")) read_cover(data->body, outline);
        }
    }
}

void read_cover(Stretch data, Outline &outline)
{
    constexpr uint32_t TYPE_JPEG = 13, TYPE_PNG = 14;
    const uint32_t type = data.u32();
    data.skip(4);  // locale
    if (data.is_short()) return;
    const char *const media_type = type == TYPE_JPEG ? JPEG : type == TYPE_PNG ? PNG : "";
    add({"cover", media_type, data.left()}, outline);
}

// ID3v2.3 and 2.4, whose frames "APIC" are pictures. A tag whose bytes are stuffed (unsynchronisation), or that has
// another header after its own, is left out.
void read_pictures(Reader &reader, Outline &outline)
{
    constexpr uint8_t STUFFED = 0x80, EXTENDED = 0x40;
    uint64_t offset = 0;
    for (uint64_t i = 0; i < outline.mpeg_audio.id3v2_tags; ++i) {
        Stretch tag(reader, offset, reader.size());
        const Id3Header header = take_id3_header(tag);
        if (tag.is_short()) return;
        if ((header.flags & (STUFFED | EXTENDED)) == 0)
            read_pictures_of_tag(tag.child(header.size), header.version, outline);
        offset += header.whole_size;
    }
}

void read_pictures_of_tag(Stretch frames, uint8_t version, Outline &outline)
{
    constexpr uint32_t PICTURE = box_type("APIC");
    if (version != 3 && version != 4) return;
    while (frames.left() > 0) {
        const uint32_t name = frames.u32();
        const uint64_t size = version == 4 ? take_synchsafe(frames) : frames.u32();
        frames.skip(2);  // flags
        if (frames.is_short() || name == 0 || size > frames.left()) return;
        const Stretch body = frames.child(size);
        if (name == PICTURE) read_picture(body, outline);
    }
}

// Up to a NUL.
std::string take_words(Stretch &in)
{
    std::string text;
    while (const uint8_t letter = in.u8())
        if (text.size() < LONGEST_TEXT) text += static_cast<char>(letter);
    return text;
}

void read_picture(Stretch body, Outline &outline)
{
    constexpr uint8_t TWO_BYTES_FROM = 1, TWO_BYTES_TO = 2;  // encodings of the description: UTF-16
    const uint8_t encoding = body.u8();
    const std::string media_type = take_words(body);
    const uint8_t kind = body.u8();
    if (encoding >= TWO_BYTES_FROM && encoding <= TWO_BYTES_TO)
        while (body.u16() != 0) {
        }
    else
        take_words(body);
    constexpr uint8_t FRONT_COVER = 3;
    if (!body.is_short())
        add({kind == FRONT_COVER ? "cover" : "", media_type, body.left()}, outline);
}

void add(const Attachment &attachment, Outline &outline)
{
    if (outline.attachments.size() < Outline::MOST_ATTACHMENTS)
        outline.attachments.push_back(attachment);
    else
        ++outline.more_attachments;
}

}  // namespace

}  // namespace outline

// EBML elements (RFC 8794, RFC 9559).

#include <algorithm>
#include <utility>

#include "mutate.h"
#include "watch.h"

namespace {

constexpr int DEPTH_MOST = 12;

const Bytes SEGMENT = hex("18538067"), CLUSTER = hex("1F43B675"), CUES = hex("1C53BB6B"),
            CUE_CLUSTER_POSITION = hex("F1"), SEEK_POSITION = hex("53AC");

bool has_children(const Bytes &id)
{
    static const Bytes masters[] = {
        SEGMENT,         CLUSTER,   CUES,      hex("114D9B74"), hex("4DBB"), hex("1549A966"),
        hex("1654AE6B"), hex("AE"), hex("E0"), hex("E1"),       hex("6D80"), hex("6240"),
        hex("5034"),     hex("BB"), hex("B7"), hex("A0")};
    return std::find(std::begin(masters), std::end(masters), id) != std::end(masters);
}

// Bytes of the number that begins with this one, by its leading zero bits; 9 for none.
size_t width_of(uint8_t ui1_first)
{
    size_t width = 1;
    for (unsigned bit = 0x80; bit != 0 && (ui1_first & bit) == 0; bit >>= 1)
        ++width;
    return width;
}

uint64_t values_of(size_t width)
{
    return uint64_t{1} << (7 * width);
}

Bytes part(const Bytes &bytes, size_t from, size_t to)
{
    const auto begin = bytes.begin();
    return Bytes(begin + static_cast<std::ptrdiff_t>(from),
                 begin + static_cast<std::ptrdiff_t>(to));
}

Elements elements_of(const Bytes &bytes, size_t at, size_t end, int depth)
{
    Elements elements;
    while (at < end) {
        Element element;
        const size_t id_width = width_of(bytes[at]);
        const size_t size_at = at + id_width;
        const size_t width = id_width <= 4 && size_at < end ? width_of(bytes[size_at]) : 9;
        const size_t inside = size_at + width;
        if (width > 8 || inside > end) {
            element.fields = part(bytes, at, end);
            elements.push_back(std::move(element));
            break;
        }
        uint64_t told = 0;
        for (size_t i = size_at; i < inside; ++i)
            told = told << 8 | bytes[i];
        told &= values_of(width) - 1;
        const auto size = static_cast<size_t>(std::min<uint64_t>(told, end - inside));
        element.id = part(bytes, at, size_at);
        element.width = static_cast<int>(width);
        element.grown = told - size;
        if (depth < DEPTH_MOST && has_children(element.id))
            element.children = elements_of(bytes, inside, inside + size, depth + 1);
        else
            element.fields = part(bytes, inside, inside + size);
        elements.push_back(std::move(element));
        at = inside + size;
    }
    return elements;
}

Elements take_apart(const Bytes &file)
{
    return elements_of(file, 0, file.size(), 0);
}

size_t size_of(const Elements &elements);

size_t payload_of(const Element &element)
{
    return element.fields.size() + size_of(element.children);
}

size_t width_of_size(const Element &element, size_t payload)
{
    auto width = static_cast<size_t>(std::clamp(element.width, 1, 8));
    while (width < 8 && payload >= values_of(width) - 1)
        ++width;
    return width;
}

size_t size_of(const Element &element)
{
    const size_t payload = payload_of(element);
    if (element.id.empty()) return payload;
    return element.id.size() + width_of_size(element, payload) + payload;
}

size_t size_of(const Elements &elements)
{
    size_t size = 0;
    for (const Element &element : elements)
        size += size_of(element);
    return size;
}

void write(const Elements &elements, Bytes &out)
{
    for (const Element &element : elements) {
        if (!element.id.empty()) {
            const size_t payload = payload_of(element), width = width_of_size(element, payload);
            const uint64_t told = (payload + element.grown) & (values_of(width) - 1);
            out += element.id;
            out += be(told | values_of(width), static_cast<int>(width));
        }
        out += element.fields;
        write(element.children, out);
    }
}

Bytes put_together(const Elements &elements)
{
    Bytes out;
    write(elements, out);
    return out;
}

// Offsets, in the Segment's payload, of its children with that id.
std::vector<size_t> places_of(const Element &segment, const Bytes &id)
{
    std::vector<size_t> places;
    size_t at = segment.fields.size();
    for (const Element &child : segment.children) {
        if (child.id == id) places.push_back(at);
        at += size_of(child);
    }
    return places;
}

void set_all(Elements &elements, const Bytes &id, const std::vector<size_t> &places, Random &random)
{
    for (Element &element : elements) {
        set_all(element.children, id, places, random);
        if (element.id != id || places.empty()) continue;
        const size_t width = std::clamp<size_t>(element.fields.size(), 1, 8);
        element.fields = be(places[random() % places.size()], static_cast<int>(width));
    }
}

// Cue points lead to some Cluster, and the SeekHead to the Cues. Offsets of the same width as before
// move nothing.
void mend(Elements &elements, const Bytes &, Random &random)
{
    for (Element &element : elements) {
        if (element.id != SEGMENT) continue;
        set_all(element.children, CUE_CLUSTER_POSITION, places_of(element, CLUSTER), random);
        set_all(element.children, SEEK_POSITION, places_of(element, CUES), random);
    }
}

}  // namespace

const Format MKV_FORMAT = {take_apart, put_together, mend, [](Elements &) {}};

// Boxes (ISO/IEC 14496-12).

#include <algorithm>
#include <map>
#include <utility>

#include "mutate.h"
#include "watch.h"

namespace {

constexpr size_t HEADER_SIZE = 8;
constexpr size_t ENTRIES = 8;  // of a table, after version and count
constexpr int DEPTH_MOST = 12;
const Bytes MDAT = text("mdat"), STCO = text("stco"), STSC = text("stsc"), STSZ = text("stsz");

// Boxes with children, and the bytes before these.
size_t const *fields_in_front(const Bytes &id)
{
    static const std::map<std::string, size_t> containers = {
        {"moov", 0}, {"trak", 0}, {"mdia", 0},  {"minf", 0},  {"stbl", 0},  {"dinf", 0},
        {"edts", 0}, {"stsd", 8}, {"avc1", 78}, {"mp4a", 28}, {"ac-3", 28}, {"ec-3", 28}};
    const auto found = containers.find(std::string(id.begin(), id.end()));
    return found != containers.end() ? &found->second : nullptr;
}

uint32_t number_at(const Bytes &bytes, size_t at)
{
    uint32_t value = 0;
    for (size_t i = at; i < at + 4; ++i)
        value = value << 8 | (i < bytes.size() ? bytes[i] : 0u);
    return value;
}

Bytes part(const Bytes &bytes, size_t from, size_t to)
{
    const auto begin = bytes.begin();
    return Bytes(begin + static_cast<std::ptrdiff_t>(from),
                 begin + static_cast<std::ptrdiff_t>(to));
}

Elements boxes_of(const Bytes &bytes, size_t at, size_t end, int depth)
{
    Elements boxes;
    while (at < end) {
        Element box;
        const uint32_t told = number_at(bytes, at);
        if (end - at < HEADER_SIZE || told < HEADER_SIZE) {
            box.fields = part(bytes, at, end);
            boxes.push_back(std::move(box));
            break;
        }
        const size_t size = std::min<size_t>(told, end - at);
        box.id = part(bytes, at + 4, at + HEADER_SIZE);
        box.grown = told - size;
        const size_t *front = depth < DEPTH_MOST ? fields_in_front(box.id) : nullptr;
        const size_t fields = HEADER_SIZE + (front != nullptr ? *front : size - HEADER_SIZE);
        box.fields = part(bytes, at + HEADER_SIZE, at + std::min(fields, size));
        if (fields < size) box.children = boxes_of(bytes, at + fields, at + size, depth + 1);
        boxes.push_back(std::move(box));
        at += size;
    }
    return boxes;
}

Elements take_apart(const Bytes &file)
{
    return boxes_of(file, 0, file.size(), 0);
}

void write(const Elements &boxes, Bytes &out)
{
    for (const Element &box : boxes) {
        const size_t start = out.size();
        if (!box.id.empty()) {
            out.resize(start + 4);
            out += box.id;
            out.resize(start + HEADER_SIZE);
        }
        out += box.fields;
        write(box.children, out);
        if (box.id.empty()) continue;
        const uint64_t told = out.size() - start + box.grown;
        for (size_t i = 0; i < 4; ++i)
            out[start + i] = static_cast<uint8_t>(told >> (24 - 8 * i));
    }
}

Bytes put_together(const Elements &boxes)
{
    Bytes out;
    write(boxes, out);
    return out;
}

size_t size_of(const Element &box)
{
    size_t size = (box.id.empty() ? 0 : HEADER_SIZE) + box.fields.size();
    for (const Element &child : box.children)
        size += size_of(child);
    return size;
}

// Where the payload of the first "mdat" begins; 0 without one.
size_t media_at(const Elements &boxes)
{
    size_t at = 0;
    for (const Element &box : boxes) {
        if (box.id == MDAT) return at + HEADER_SIZE;
        at += size_of(box);
    }
    return 0;
}

// The same in a file.
size_t media_at(const Bytes &file)
{
    for (size_t at = 0; at + HEADER_SIZE <= file.size(); at += number_at(file, at)) {
        if (std::equal(MDAT.begin(), MDAT.end(),
                       file.begin() + static_cast<std::ptrdiff_t>(at + 4)))
            return at + HEADER_SIZE;
        if (number_at(file, at) < HEADER_SIZE) break;
    }
    return 0;
}

void move_offsets(Elements &boxes, uint32_t distance)
{
    for (Element &box : boxes) {
        move_offsets(box.children, distance);
        if (box.id != STCO) continue;
        for (size_t at = ENTRIES; at + 4 <= box.fields.size(); at += 4) {
            const Bytes moved = be32(number_at(box.fields, at) + distance);
            std::copy(moved.begin(), moved.end(),
                      box.fields.begin() + static_cast<std::ptrdiff_t>(at));
        }
    }
}

constexpr size_t RUN = 12;  // an entry of "stsc": first chunk, samples in each, description

// Chunks of the smallest "stco". Which table belongs to which track, boxes that overhang leave to the reader.
uint32_t fewest_chunks(const Elements &boxes)
{
    uint32_t fewest = UINT32_MAX;
    for (const Element &box : boxes) {
        fewest = std::min(fewest, fewest_chunks(box.children));
        if (box.id == STCO) fewest = std::min(fewest, number_at(box.fields, 4));
    }
    return fewest;
}

// Samples that there are by "stsc", modulo 2^32.
uint32_t samples_of(const Bytes &runs, uint32_t chunks)
{
    uint32_t next = chunks + 1, count = 0;
    for (size_t left = (std::max(runs.size(), ENTRIES) - ENTRIES) / RUN; left > 0; --left) {
        const size_t at = ENTRIES + (left - 1) * RUN;
        const uint32_t first = number_at(runs, at);
        count += number_at(runs, at + 4) * (next - first);
        next = first;
    }
    return count;
}

// Samples of one size take no bytes of a file, but two million of them the time of a thousand other inputs. Where there
// are many, one small run of each chunk is left.
void limit_runs(Bytes &runs, uint32_t chunks)
{
    constexpr uint32_t SAMPLES_MOST = 0x1000;
    if (samples_of(runs, chunks) <= SAMPLES_MOST) return;
    const uint32_t samples = number_at(runs, ENTRIES + 4) % 0x100;
    runs = be32(0) + be32(1) + be32(1) + be32(samples) + be32(1);
}

// Nor do those that the file ends before, and which the library fills up to 16 MiB.
void limit_sizes(Bytes &sizes)
{
    constexpr size_t ONE_SIZE = 4, COUNT = 8;
    for (size_t at = ONE_SIZE; at + 4 <= sizes.size(); at += 4)
        if (at != COUNT) sizes[at] = sizes[at + 1] = 0;
}

void limit_tables(Elements &boxes, uint32_t chunks)
{
    for (Element &box : boxes) {
        limit_tables(box.children, chunks);
        if (box.id == STSC) limit_runs(box.fields, chunks);
        if (box.id == STSZ) limit_sizes(box.fields);
    }
}

void limit(Elements &boxes)
{
    limit_tables(boxes, fewest_chunks(boxes));
}

// The media move as the boxes before them grow and shrink.
void mend(Elements &boxes, const Bytes &before, Random &)
{
    const size_t media_before = media_at(before), media_now = media_at(boxes);
    if (media_before == 0 || media_now == 0) return;
    move_offsets(boxes, static_cast<uint32_t>(media_now - media_before));
}

}  // namespace

const Format MP4_FORMAT = {take_apart, put_together, mend, limit};

#include "ebml.h"
#include "outline.h"
#include "parsers.h"

using namespace outline;

std::optional<uint64_t> find_next_file(ByteSource &source, const Outline &outline)
{
    constexpr int MOST_BOXES = 8;  // "free", "udta" and the like come before
    if (outline.looked_at_to == 0 || outline.looked_at_to >= source.size()) return {};
    Reader reader(source);
    Stretch rest(reader, outline.looked_at_to, source.size());
    if (outline.container == Container::MATROSKA) {
        const std::optional<Element> element = next_element(rest);
        if (element && element->id == id::EBML) return element->begin;
        return {};
    }
    for (int i = 0; i < MOST_BOXES; ++i) {
        const uint64_t begin = rest.at();
        const std::optional<Box> box = next_box(rest);
        if (!box) return {};
        if (box->type == box_type("ftyp")) return begin;
    }
    return {};
}

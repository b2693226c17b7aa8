#include "ebml.h"

#include <algorithm>
#include <cstring>

namespace outline {

namespace {

/// A variable-length integer whose length is given by the leading zeros of its first byte.
struct Vint {
    uint64_t with_marker;
    uint64_t value;
    bool f_all_ones;
};

std::optional<Vint> take_vint(Stretch &in, size_t longest);

}  // namespace

std::optional<Element> next_element(Stretch &in)
{
    const uint64_t begin = in.at();
    const std::optional<Vint> name = take_vint(in, 4);
    if (!name) return {};
    const std::optional<Vint> size = take_vint(in, 8);
    if (!size) return {};
    const uint64_t declared = size->f_all_ones ? UINT64_MAX : size->value;
    const uint64_t there = std::min(declared, in.left());
    return Element{static_cast<uint32_t>(name->with_marker), begin, in.child(there), declared,
                   size->f_all_ones};
}

uint64_t unsigned_of(const Element &element)
{
    Stretch body = element.body;
    return body.left() == 0 ? 0
                            : body.number(static_cast<size_t>(std::min<uint64_t>(body.left(), 9)));
}

double float_of(const Element &element)
{
    Stretch body = element.body;
    if (body.left() == 4) {
        const uint32_t bits = body.u32();
        float value = 0;
        memcpy(&value, &bits, sizeof value);
        return static_cast<double>(value);
    }
    if (body.left() == 8) {
        const uint64_t bits = body.u64();
        double value = 0;
        memcpy(&value, &bits, sizeof value);
        return value;
    }
    return 0;
}

std::string text_of(const Element &element, size_t most)
{
    Stretch body = element.body;
    return body.text(body.left(), most);
}

namespace {

std::optional<Vint> take_vint(Stretch &in, size_t longest)
{
    if (in.left() == 0) return {};
    const uint8_t first = in.u8();
    size_t length = 1;
    while (length <= 8 && (first & 0x80u >> (length - 1)) == 0)
        ++length;
    if (in.is_short() || length > longest || in.left() < length - 1) return {};
    const uint64_t with_marker =
        length == 1 ? first : uint64_t{first} << 8 * (length - 1) | in.number(length - 1);
    if (in.is_short()) return {};
    const uint64_t mask = (uint64_t{1} << 7 * length) - 1;
    const uint64_t value = with_marker & mask;
    return Vint{with_marker, value, value == mask};
}

}  // namespace

}  // namespace outline

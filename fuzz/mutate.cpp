#include "mutate.h"

#include <algorithm>
#include <utility>

#include "watch.h"

namespace {

constexpr size_t FILE_MOST = 64 * 1024 - RECIPE_SIZE;

size_t below(Random &random, size_t count)
{
    return count > 0 ? random() % count : 0;
}

bool one_in(Random &random, size_t count)
{
    return below(random, count) == 0;
}

// Lists of elements, of the top and of every element that has children, in the file's order.
void collect(Elements &list, std::vector<Elements *> &lists)
{
    if (!list.empty()) lists.push_back(&list);
    for (Element &element : list)
        collect(element.children, lists);
}

struct Place {
    Elements *list;
    size_t index;

    Element &element() const { return (*list)[index]; }
    Elements::iterator at() const { return list->begin() + static_cast<std::ptrdiff_t>(index); }
};

// Each element has the same chance, but for those at the top, which are few.
Place choose(Elements &top, Random &random)
{
    std::vector<Elements *> lists;
    collect(top, lists);
    if (lists.empty()) return {&top, 0};
    size_t count = 0;
    for (const Elements *list : lists)
        count += list->size();
    size_t index = below(random, count);
    for (Elements *list : lists) {
        if (index < list->size()) return {list, index};
        index -= list->size();
    }
    return {lists[0], 0};
}

// libFuzzer's own mutations, with its dictionary, on some bytes.
void mutate_bytes(Bytes &bytes)
{
    const size_t size = bytes.size();
    bytes.resize(size + 64);
    bytes.resize(LLVMFuzzerMutate(bytes.data(), size, bytes.size()));
}

// A number of 1, 2, 4 or 8 bytes gets a value at one of its limits, or near its old one.
void change_number(Bytes &bytes, Random &random)
{
    const size_t width = size_t{1} << below(random, 4);
    if (bytes.size() < width) return;
    // Tables have their entries at multiples of four.
    size_t at = below(random, bytes.size() - width + 1);
    if (one_in(random, 2)) at = at / 4 * 4;
    if (at + width > bytes.size()) return;
    uint64_t value = 0;
    for (size_t i = 0; i < width; ++i)
        value = value << 8 | bytes[at + i];
    switch (below(random, 8)) {
    case 0: value = 0; break;
    case 1: value = UINT64_MAX; break;
    case 2: value = uint64_t{1} << below(random, width * 8); break;
    case 3: value = (uint64_t{1} << below(random, width * 8)) - 1; break;
    case 4: value = below(random, 256); break;
    case 5: value *= 2; break;
    default: value += below(random, 64) - 32u;
    }
    for (size_t i = width; i-- > 0; value >>= 8)
        bytes[at + i] = static_cast<uint8_t>(value);
}

void change(Elements &top, Random &random)
{
    if (top.empty()) {
        top.push_back({});
    }
    const Place place = choose(top, random);
    const Place other = choose(top, random);
    Element &element = place.element();
    switch (below(random, 12)) {
    case 0:
    case 1:
    case 2: mutate_bytes(element.fields); break;
    case 3:
    case 4:
    case 5: change_number(element.fields, random); break;
    case 6: place.list->erase(place.at()); break;
    case 7: {  // twice
        const Element copy = element;
        place.list->insert(place.at(), copy);
        break;
    }
    case 8: {  // a copy of another one before this one
        const Element copy = other.element();
        place.list->insert(place.at(), copy);
        break;
    }
    case 9: {  // in the place of a sibling
        const size_t sibling = below(random, place.list->size());
        std::swap((*place.list)[sibling], (*place.list)[place.index]);
        break;
    }
    // Lies of all magnitudes: most of the numbers of 31 bits are near the largest.
    case 10:
        element.grown = one_in(random, 2) ? below(random, 32) - 16u : random() >> below(random, 31);
        break;
    default: mutate_bytes(element.id); break;
    }
}

size_t put_out(const Bytes &recipe, const Bytes &file, uint8_t *pb_out, size_t max_size)
{
    Bytes out = recipe;
    out.resize(RECIPE_SIZE);
    out.insert(out.end(), file.begin(), file.end());
    const size_t size = std::min({out.size(), max_size, RECIPE_SIZE + FILE_MOST});
    std::copy_n(out.begin(), size, pb_out);
    return size;
}

// Nearly always the file is one that is quickly read.
void limit(const Format &format, Elements &elements, Random &random)
{
    if (!one_in(random, 16)) format.limit(elements);
}

}  // namespace

size_t mutate_input(const Format &format, uint8_t *pb_data, size_t size, size_t max_size,
                    unsigned seed)
{
    Random random(seed + 1);
    const bool f_bytes = size < RECIPE_SIZE || one_in(random, 8);
    if (f_bytes) size = LLVMFuzzerMutate(pb_data, size, max_size);
    if (size < RECIPE_SIZE) return size;
    Bytes recipe(pb_data, pb_data + RECIPE_SIZE);
    const Bytes before(pb_data + RECIPE_SIZE, pb_data + size);
    Elements elements = format.take_apart(before);
    const bool f_recipe = !f_bytes && one_in(random, 6), f_elements = !f_bytes && !f_recipe;
    if (f_recipe) LLVMFuzzerMutate(recipe.data(), recipe.size(), recipe.size());
    if (f_elements) {
        do {
            change(elements, random);
        } while (one_in(random, 2));
    }
    limit(format, elements, random);
    if (f_elements && !one_in(random, 4)) format.mend(elements, before, random);
    return put_out(recipe, format.put_together(elements), pb_data, max_size);
}

size_t cross_inputs(const Format &format, const Bytes &first, const Bytes &second, uint8_t *pb_out,
                    size_t max_size, unsigned seed)
{
    if (first.size() < RECIPE_SIZE || second.size() < RECIPE_SIZE) return 0;
    Random random(seed + 1);
    const auto head = static_cast<std::ptrdiff_t>(RECIPE_SIZE);
    const Bytes before(first.begin() + head, first.end());
    Elements into = format.take_apart(before);
    Elements from = format.take_apart(Bytes(second.begin() + head, second.end()));
    if (into.empty() || from.empty()) return 0;
    const Place target = choose(into, random);
    const Element moved = choose(from, random).element();
    if (one_in(random, 2))
        target.element() = moved;
    else
        target.list->insert(target.at(), moved);
    limit(format, into, random);
    if (!one_in(random, 4)) format.mend(into, before, random);
    const Bytes recipe(first.begin(), first.begin() + head);
    return put_out(recipe, format.put_together(into), pb_out, max_size);
}

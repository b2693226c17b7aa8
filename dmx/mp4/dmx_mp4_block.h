// Blocks of memory that grow while they are read: memory is taken for the bytes that have really come,
// not for those that a file claims. Nothing else proves its length: a seek through the cache never
// fails, and a sparse file is long at no cost.

#ifndef GOLT_DMX_MP4_BLOCK_H
#define GOLT_DMX_MP4_BLOCK_H

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "dmx_mp4_box.h"
#include "golt_mem.h"

namespace mp4 {

// A block of up to BLOCK_AT_ONCE bytes is taken at once, on the file's word, and filled by one read.
// A larger one starts with FIRST_STEP bytes and doubles whenever it has been filled.
constexpr uint32_t BLOCK_AT_ONCE = 16 * 1024 * 1024;
constexpr uint32_t FIRST_STEP = 1024 * 1024;

// A block from the general heap, zero-filled when it is taken.
struct heap_free {
    void operator()(void *pv_block) const { std::free(pv_block); }
};
template <typename T> using heap_array = std::unique_ptr<T[], heap_free>;

// Never empty: null means no memory, not no entries.
template <typename T> heap_array<T> make_array(uint32_t ui4_count)
{
    return heap_array<T>(static_cast<T *>(std::calloc(ui4_count != 0 ? ui4_count : 1, sizeof(T))));
}

// Where blocks come from.
struct heap_memory {
    static uint8_t *take(uint32_t ui4_size) { return make_array<uint8_t>(ui4_size).release(); }
    static void give_back(uint8_t *pb_block) { std::free(pb_block); }
};

struct frame_memory {
    static uint8_t *take(uint32_t ui4_size) { return GOLT_allocMem(ui4_size); }
    static void give_back(uint8_t *pb_block) { GOLT_freeMem(pb_block); }
};

struct block_t {
    uint8_t *pb_data;     // null: no memory
    uint32_t ui4_room;    // bytes
    uint32_t ui4_filled;  // bytes, from the start
};

enum read_result_t { READ_WHOLE, READ_SHORT, READ_NO_MEMORY };

// A block that is to hold ui4_size bytes in the end. The first ui4_head of them count as filled and
// are the caller's to fill.
template <typename Memory> block_t take_block(uint32_t ui4_size, uint32_t ui4_head)
{
    const uint32_t ui4_room =
        ui4_size <= BLOCK_AT_ONCE ? ui4_size : std::min(ui4_size, ui4_head + FIRST_STEP);
    return {Memory::take(ui4_room), ui4_room, ui4_head};
}

template <typename Memory> bool grow_block(block_t *p_block, uint32_t ui4_size)
{
    const uint32_t ui4_room = p_block->ui4_room <= ui4_size / 2 ? p_block->ui4_room * 2 : ui4_size;
    uint8_t *const pb_larger = Memory::take(ui4_room);
    if (pb_larger == nullptr) return false;
    memcpy(pb_larger, p_block->pb_data, p_block->ui4_filled);
    Memory::give_back(p_block->pb_data);
    p_block->pb_data = pb_larger;
    p_block->ui4_room = ui4_room;
    return true;
}

// Fills a block up to ui4_size bytes from the source's position on.
template <typename Memory> read_result_t fill_block(block_t *p_block, uint32_t ui4_size)
{
    for (;;) {
        p_block->ui4_filled += read_next(p_block->pb_data + p_block->ui4_filled,
                                         p_block->ui4_room - p_block->ui4_filled);
        if (p_block->ui4_filled < p_block->ui4_room) return READ_SHORT;
        if (p_block->ui4_room >= ui4_size) return READ_WHOLE;
        if (!grow_block<Memory>(p_block, ui4_size)) return READ_NO_MEMORY;
    }
}

// ui4_size bytes at ui8_pos as an array of the general heap.
template <typename T>
read_result_t read_array(uint64_t ui8_pos, uint32_t ui4_size, heap_array<T> *p_array)
{
    block_t block = take_block<heap_memory>(ui4_size, 0);
    if (block.pb_data == nullptr) return READ_NO_MEMORY;
    const read_result_t result =
        seek_to(ui8_pos, ui4_size) ? fill_block<heap_memory>(&block, ui4_size) : READ_SHORT;
    // Memory of the general heap suits every type.
    heap_array<T> array(static_cast<T *>(static_cast<void *>(block.pb_data)));
    if (result == READ_WHOLE) *p_array = std::move(array);
    return result;
}

}  // namespace mp4

#endif

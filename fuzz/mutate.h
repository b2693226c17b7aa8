// Mutations that keep a file's structure: it is taken apart into elements, these are moved, copied,
// dropped and changed, and the file is put together again with right sizes, mostly.

#ifndef GOLT_FUZZ_MUTATE_H
#define GOLT_FUZZ_MUTATE_H

#include <random>

#include "bytes.h"

struct Element {
    Bytes id;      ///< empty: bytes that are no element
    Bytes fields;  ///< before the children; of an element without children, all it has
    std::vector<Element> children;
    uint64_t grown = 0;  ///< added to the size that is stated, modulo its width: a lie unless 0
    int width = 0;       ///< least bytes of the size, where the format leaves a choice
};

typedef std::vector<Element> Elements;
typedef std::minstd_rand Random;

/// How a format is taken apart and put together.
struct Format {
    Elements (*take_apart)(const Bytes &file);
    Bytes (*put_together)(const Elements &elements);
    /// Makes offsets inside of the file right again, as far as they were.
    void (*mend)(Elements &elements, const Bytes &before, Random &random);
    /// Makes less of what would take the time of very many other files.
    void (*limit)(Elements &elements);
};

extern const Format MP4_FORMAT;
extern const Format MKV_FORMAT;

/// For LLVMFuzzerCustomMutator: changes an input whose file, after the recipe, has that format.
size_t mutate_input(const Format &format, uint8_t *pb_data, size_t size, size_t max_size,
                    unsigned seed);
/// For LLVMFuzzerCustomCrossOver: puts elements of one input's file into the other's.
size_t cross_inputs(const Format &format, const Bytes &first, const Bytes &second, uint8_t *pb_out,
                    size_t max_size, unsigned seed);

#endif

// libFuzzer's hooks for inputs with a file of one format: GOLT_FUZZ_FORMAT, or, in targets of all formats,
// the one that the recipe names.

#include "mutate.h"
#include "watch.h"

namespace {

// Null for a format without structure to keep.
const Format *format_of(const uint8_t *pb_data, size_t size)
{
#ifdef GOLT_FUZZ_FORMAT
    (void)pb_data;
    (void)size;
    return &GOLT_FUZZ_FORMAT;
#else
    switch (size > 0 ? pb_data[0] & 3 : 0) {
    case 2: return &MP4_FORMAT;
    case 3: return &MKV_FORMAT;
    default: return nullptr;
    }
#endif
}

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *pb_data, size_t size, size_t max_size,
                                          unsigned seed)
{
    const Format *format = format_of(pb_data, size);
    if (format == nullptr) return LLVMFuzzerMutate(pb_data, size, max_size);
    return mutate_input(*format, pb_data, size, max_size, seed);
}

extern "C" size_t LLVMFuzzerCustomCrossOver(const uint8_t *pb_first, size_t first_size,
                                            const uint8_t *pb_second, size_t second_size,
                                            uint8_t *pb_out, size_t max_size, unsigned seed)
{
    const Format *format = format_of(pb_first, first_size);
    if (format == nullptr || format != format_of(pb_second, second_size)) return 0;
    return cross_inputs(*format, Bytes(pb_first, pb_first + first_size),
                        Bytes(pb_second, pb_second + second_size), pb_out, max_size, seed);
}

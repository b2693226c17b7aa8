// What all fuzz targets share: how they end with an error, and what they measure.

#ifndef GOLT_FUZZ_WATCH_H
#define GOLT_FUZZ_WATCH_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "heap.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pb_data, size_t size);
/// Of libFuzzer: changes the size bytes at pb_data in place, to max_size at most; the new size.
extern "C" size_t LLVMFuzzerMutate(uint8_t *pb_data, size_t size, size_t max_size);

/// Ends the program, with the reason on the standard error, unless f_ok.
void require(bool f_ok, const char *reason);

/// Makes the library new, as far as anything outlives a driver, and the watches too.
void begin_input();

/// Bytes before the file in an input that is one.
constexpr size_t RECIPE_SIZE = 16;

/// What calls of the library cost.
struct work_t {
    uint64_t calls = 0;      ///< of the host
    uint64_t refused = 0;    ///< of these, reads that gave nothing, or "not yet", with bytes left
    uint64_t delivered = 0;  ///< bytes that the host gave
    uint64_t requests = 0;   ///< for memory
    uint64_t heap = 0;       ///< bytes by which the heap grew in between
};

/// What all hosts of this input did.
extern work_t g_hosts;

/// Measures one call of the library, in the programs that fuzz: it mustn't take long, nor the heap
/// grow large.
class CallWatch {
public:
    CallWatch();
    ~CallWatch();
    CallWatch(const CallWatch &) = delete;
    CallWatch &operator=(const CallWatch &) = delete;

    /// What the call has cost up to now.
    work_t work() const;

    /// Longest call since the program began, seconds of the processor; in steps of the system's tick and of what came
    /// shortly before, as finer clocks would take more time than the calls of small inputs.
    static double s_longest;

private:
    LibraryCall m_call;
    double m_start;
    work_t m_before;
    size_t m_held;  // by the heap, when the call began
    size_t m_most;  // in front of it
};

#endif

// What the fuzz targets of the demuxers share: the shape of an input that is a file, and the rules of a run.
//
// Such an input begins with a recipe, which says what is done with the file after it and which
// faults the host has; a recipe of zeros is a host without faults. A host that says "not yet" costs
// the cache 50 ms at most; its sleeps take no time in these programs.

#ifndef GOLT_FUZZ_TARGET_H
#define GOLT_FUZZ_TARGET_H

#include "GOLT.h"
#include "source.h"
#include "watch.h"

enum fault_t : uint8_t {
    FAULT_ZERO = 0x01,      ///< reads that deliver nothing
    FAULT_NEGATIVE = 0x02,  ///< and such that say "not yet"
    FAULT_SHORT = 0x04,
    FAULT_SEEK = 0x08,  ///< seeks that are refused
    FAULT_LIE = 0x10,   ///< reads that claim more than they were offered
    FAULT_MEMORY = 0x20,
    FAULT_NO_CACHE = 0x40,
    FAULT_IGNORE = 0x80,  ///< seeks that answer 0, and are not done
};

struct op_t {
    enum kind_t { READ, SEEK_TIME, SEEK_BYTES, OTHER } kind;
    uint32_t number;  ///< frames, milliseconds, bytes, or which other
};

/// An input, taken apart. The bytes of the file are in a block of their exact size.
struct Input {
    Input(const uint8_t *pb_data, size_t size);

    unsigned format;         ///< row of the format table
    unsigned second_format;  ///< of a demuxer that lives beside the first
    uint8_t told_size;       ///< by which rule the host states the size
    int most_of_read;        ///< bytes that a read delivers at most
    uint8_t faults;          ///< fault_t
    unsigned fault_period;   ///< one call in so many has a fault
    unsigned first_fault;    ///< number of the call from which on that is so
    int granted;             ///< requests for memory before the one that is refused
    std::vector<op_t> ops;
    std::vector<uint8_t> file;
};

/// The file of an input, with the faults of its recipe. Where a read may have several, they come in
/// turn. A negative result doesn't come without end.
class FaultySource : public Source {
public:
    /// faults: those of the recipe that there are (fault_t).
    FaultySource(const Input &t_input, uint8_t faults);

    /// Number of the call, by which faults are counted.
    uint64_t calls = 0;

    int read(uint8_t *buffer, int size) override;
    int64_t seek(int64_t offset, int whence) override;

protected:
    int answer(int room) override;
    bool refuses() override;
    bool ignores() override { return m_f_fault && (m_faults & FAULT_IGNORE) != 0; }

private:
    void begin_call();

    const Input &m_input;
    uint8_t m_faults;
    int m_negatives;
    unsigned m_turn = 0;     // of the faults that a read may have
    bool m_f_fault = false;  // in this call
};

/// What a host sees of a frame. The bytes are summed up.
struct seen_t {
    uint64_t ui8_time_ms;
    uint32_t ui4_type;
    uint32_t ui4_size;
    uint64_t ui8_sum;

    bool operator==(const seen_t &other) const
    {
        return ui8_time_ms == other.ui8_time_ms && ui4_type == other.ui4_type &&
               ui4_size == other.ui4_size && ui8_sum == other.ui8_sum;
    }
};

/// Looks at every byte of a frame that a demuxer has delivered.
seen_t look_at(const GOLT_frame_t &t_frame);

/// The frames of an input as one demuxer delivers them, without cache and driver, undisturbed.
std::vector<seen_t> plain_frames(const GOLT_DMX_handler_t &t_module, const Input &t_input);
/// The same, and then a run in which happens what the recipe says.
void run_demuxer(const GOLT_DMX_handler_t &t_module, const Input &t_input);

/// Frames that a file can have, by its size in bytes.
uint64_t frames_limit(unsigned format, uint64_t ui8_size);
/// Frames that one run looks at. Some formats describe very many in few bytes.
constexpr size_t FRAMES_LOOKED_AT = 20000;

enum call_t : uint8_t { CALL_CREATE, CALL_READ, CALL_SEEK, CALL_OTHER };

/// Ends the program where one call of a format's demuxer cost more than docs/robustness.md tells.
/// held: bytes of the cache, which may be read again in this call, or NO_CACHE. "Not yet" isn't
/// counted among the calls of the host: 5000 times for each fill it is asked again.
constexpr uint64_t NO_CACHE = UINT64_MAX;
void require_work(unsigned format, call_t call, const work_t &t_work, uint64_t held);

#endif

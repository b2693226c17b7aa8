#include "target.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "dmx_mkv_i.h"
#include "golt_mem.h"
#include "tcache.h"

extern "C" int usleep(useconds_t)
{
    return 0;
}

namespace {

// Inputs are far smaller than the files for which the limits are stated, but sanitizers are slow.
#ifdef GOLT_FUZZING
constexpr double LONGEST_CALL = 2.0;  // seconds
#endif
constexpr size_t LARGEST_HEAP = 64 * 1024 * 1024;  // bytes

double seconds(clockid_t clock)
{
    timespec t_now = {};
    clock_gettime(clock, &t_now);
    return static_cast<double>(t_now.tv_sec) + static_cast<double>(t_now.tv_nsec) * 1e-9;
}

double s_input_start = 0;  // processor time

}  // namespace

double CallWatch::s_longest = 0;

void require(bool f_ok, const char *reason)
{
    if (f_ok) return;
    fprintf(stderr, "violated: %s\n", reason);
    abort();
}

CallWatch::CallWatch()
    : m_start(seconds(CLOCK_MONOTONIC))
{
}

CallWatch::~CallWatch()
{
    const double taken = seconds(CLOCK_MONOTONIC) - m_start;
    s_longest = std::max(s_longest, taken);
#ifdef GOLT_FUZZING
    // On a busy machine time passes by itself. The processor's clock is asked seldom, as it is slow.
    if (taken > LONGEST_CALL)
        require(seconds(CLOCK_PROCESS_CPUTIME_ID) - s_input_start < LONGEST_CALL,
                "a call is short");
#endif
    require(g_heap.most < LARGEST_HEAP, "the heap stays small");
}

void begin_input()
{
    g_heap = {};
    g_TCacheEnabled = true;
    mkvctx = {};
    s_input_start = seconds(CLOCK_PROCESS_CPUTIME_ID);
}

// Recipe

namespace {

op_t op_of(uint8_t ui1_code)
{
    const uint32_t arg = ui1_code & 0x3F;
    switch (ui1_code >> 6) {
    case 0: return {op_t::READ, arg < 32 ? arg + 1 : (arg - 31) * 64};
    case 1:
        if (arg >= 60) return {op_t::SEEK_TIME, UINT32_MAX - (63 - arg)};
        return {op_t::SEEK_TIME, arg < 32 ? arg * 40 : 1u << (arg - 32)};
    case 2: return {op_t::SEEK_BYTES, arg * 4099};
    default: return {op_t::OTHER, arg};
    }
}

}  // namespace

Input::Input(const uint8_t *pb_data, size_t size)
{
    uint8_t ab_recipe[RECIPE_SIZE] = {};
    const size_t head = std::min(size, RECIPE_SIZE);
    std::copy_n(pb_data, head, ab_recipe);
    format = ab_recipe[0] & 3;
    second_format = ab_recipe[0] >> 2 & 3;
    told_size = ab_recipe[1];
    const int most = ab_recipe[2];
    most_of_read = most == 0 ? INT32_MAX : most < 200 ? most : (most - 199) * 1024;
    faults = ab_recipe[3];
    fault_period = ab_recipe[4] + 1u;
    first_fault = ab_recipe[5] * 4u;
    granted = ab_recipe[6] + (ab_recipe[7] & 1) * 256;
    for (size_t i = 8; i < RECIPE_SIZE; ++i)
        ops.push_back(op_of(ab_recipe[i]));
    file = std::vector<uint8_t>(pb_data + head, pb_data + size);
}

// Source

namespace {

// A host that never says more than "not yet" costs the cache 5000 calls each time.
constexpr int NEGATIVES = 50000;

}  // namespace

FaultySource::FaultySource(const Input &t_input, uint8_t faults)
    : Source(t_input.file)
    , m_input(t_input)
    , m_faults(faults)
    , m_negatives(NEGATIVES)
{
    most = t_input.most_of_read;
}

int FaultySource::read(uint8_t *buffer, int size)
{
    const LibraryCall host(false);
    return Source::read(buffer, size);
}

int64_t FaultySource::seek(int64_t offset, int whence)
{
    const LibraryCall host(false);
    require(whence == 0, "seeks count from the start");
    // After the end, or before the start, there are no bytes.
    return Source::seek(offset >= 0 ? offset : INT64_MAX, whence);
}

int FaultySource::answer(int room)
{
    const int wanted = std::min(room, most);
    if (!is_fault()) return wanted;
    if ((m_faults & FAULT_LIE) != 0) return room + 1;
    if ((m_faults & FAULT_ZERO) != 0) return 0;
    if ((m_faults & FAULT_NEGATIVE) != 0 && m_negatives > 0) return -m_negatives--;
    return (m_faults & FAULT_SHORT) != 0 ? wanted / 2 : wanted;
}

bool FaultySource::refuses()
{
    return is_fault() && (m_faults & FAULT_SEEK) != 0;
}

bool FaultySource::is_fault()
{
    ++calls;
    return calls >= m_input.first_fault && calls % m_input.fault_period == 0;
}

// Frames

seen_t look_at(const GOLT_frame_t &t_frame)
{
    require(t_frame.ui4_frametype < GOLT_FT_MAX, "a frame has a type");
    require(t_frame.pb_data != nullptr, "a frame has a block");
    uint64_t ui8_sum = t_frame.ui4_size;
    uint32_t at = 0;
    for (; t_frame.ui4_size - at >= 8; at += 8) {
        uint64_t ui8_word = 0;
        memcpy(&ui8_word, t_frame.pb_data + at, sizeof ui8_word);
        ui8_sum = (ui8_sum ^ ui8_word) * 0x9E3779B97F4A7C15u;
    }
    for (; at < t_frame.ui4_size; ++at)
        ui8_sum = (ui8_sum ^ t_frame.pb_data[at]) * 0x9E3779B97F4A7C15u;
    return {t_frame.ui8_timestamp, t_frame.ui4_frametype, t_frame.ui4_size, ui8_sum};
}

uint64_t frames_limit(unsigned format, uint64_t ui8_size)
{
    switch (format) {
    case 0: return ui8_size / 192;
    // The shortest frame that a header can describe, of Layer I; the last one may be cut.
    case 1: return ui8_size / 32 + 1;
    // A size for each sample, or one for all, and then two million that are taken on the file's word.
    case 2: return 2 * 1024 * 1024 + 2 * ui8_size;
    // 255 empty frames in a laced block, which has seven bytes.
    default: return ui8_size / 7 * 255 + 255;
    }
}

// One demuxer

namespace {

// A module trusts its callbacks' counts, and only the cache makes whole reads of short ones.
constexpr uint8_t MODULE_FAULTS = UINT8_MAX - FAULT_LIE;

class ModuleRun {
public:
    ModuleRun(const GOLT_DMX_handler_t &t_module, const Input &t_input, bool f_faulty)
        : m_module(t_module)
        , m_source(t_input,
                   f_faulty ? static_cast<uint8_t>(t_input.faults & MODULE_FAULTS) : uint8_t{0})
        // Sixteen boxes that overhang, each of which may have every box header of eight bytes read.
        , m_calls_limit(32 * t_input.file.size() + 100000)
    {
        GOLT_streamInfo_t t_info = {};
        m_source.most = INT_MAX;
        m_is_open = call([&] {
            return m_module.init(FaultySource::read_proc, FaultySource::seek_proc, &m_source);
        });
        if (m_is_open) m_module.getStreamInfo(&t_info);
    }

    ~ModuleRun()
    {
        call([&] { return !m_is_open || m_module.destroy(); });
        require(g_heap.held == 0, "everything is given back");
    }

    ModuleRun(const ModuleRun &) = delete;
    ModuleRun &operator=(const ModuleRun &) = delete;

    // Up to count frames; false at the end.
    bool read(size_t count, std::vector<seen_t> &seen)
    {
        for (; count > 0; --count) {
            GOLT_frame_t t_frame = {};
            const bool f_ok = call([&] { return m_is_open && m_module.readFrame(&t_frame); });
            if (f_ok) seen.push_back(look_at(t_frame));
            call([&] {
                GOLT_freeMem(t_frame.pb_data);
                return true;
            });
            if (!f_ok) return false;
        }
        return true;
    }

    void perform(const op_t &t_op, std::vector<seen_t> &seen)
    {
        if (!m_is_open) return;
        GOLT_streamInfo_t t_info = {};
        switch (t_op.kind) {
        case op_t::READ: read(t_op.number, seen); break;
        case op_t::SEEK_TIME: call([&] { return m_module.seekToTime(t_op.number); }); break;
        case op_t::SEEK_BYTES: call([&] { return m_module.seekToBytes(t_op.number); }); break;
        case op_t::OTHER: call([&] { return m_module.getStreamInfo(&t_info); }); break;
        }
    }

private:
    template <typename Call> bool call(Call what)
    {
        m_source.calls = 0;
        bool f_ok = false;
        {
            const CallWatch watch;
            f_ok = what();
        }
        require(m_source.calls <= m_calls_limit, "a call reads the file a few times at most");
        return f_ok;
    }

    const GOLT_DMX_handler_t &m_module;
    FaultySource m_source;
    uint64_t m_calls_limit;
    bool m_is_open = false;
};

}  // namespace

std::vector<seen_t> run_demuxer(const GOLT_DMX_handler_t &t_module, const Input &t_input)
{
    begin_input();
    std::vector<seen_t> plain;
    {
        ModuleRun run(t_module, t_input, false);
        run.read(FRAMES_LOOKED_AT, plain);
        const auto format = static_cast<unsigned>(&t_module - GOLT::g_dmx_handlers);
        require(plain.size() <= frames_limit(format, t_input.file.size()), "few frames");
    }

    begin_input();
    std::vector<seen_t> seen;
    if ((t_input.faults & FAULT_MEMORY) != 0) {
        g_heap.granted = t_input.granted;
        g_heap.refused = static_cast<int>(t_input.fault_period);
    }
    ModuleRun run(t_module, t_input, true);
    for (const op_t &t_op : t_input.ops)
        run.perform(t_op, seen);
    // A false may be a fault of the host or a damaged place, and more may come.
    for (int ends = 0; ends < 4 && seen.size() < FRAMES_LOOKED_AT;)
        ends += run.read(FRAMES_LOOKED_AT, seen) ? 0 : 1;
    return plain;
}

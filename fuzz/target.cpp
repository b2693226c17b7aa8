#include "target.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "golt_mem.h"
#include "written.h"

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
    begin_call();
    const int got = Source::read(buffer, size);
    if (got > 0 && got <= size) g_hosts.delivered += static_cast<unsigned>(got);
    const bool f_nothing = got <= 0 || got > size;
    g_hosts.refused += f_nothing && (got < 0 || position() < this->size());
    return got;
}

int64_t FaultySource::seek(int64_t offset, int whence)
{
    const LibraryCall host(false);
    begin_call();
    require(whence == 0, "seeks count from the start");
    // After the end, or before the start, there are no bytes.
    return Source::seek(offset >= 0 ? offset : INT64_MAX, whence);
}

int FaultySource::answer(int room)
{
    const int wanted = std::min(room, most);
    if (!m_f_fault) return wanted;
    uint8_t kinds[4];
    unsigned count = 0;
    for (const uint8_t kind : {FAULT_LIE, FAULT_ZERO, FAULT_NEGATIVE, FAULT_SHORT})
        if ((m_faults & kind) != 0) kinds[count++] = kind;
    if (count == 0) return wanted;
    switch (kinds[m_turn++ % count]) {
    case FAULT_LIE: return room + 1;
    case FAULT_ZERO: return 0;
    case FAULT_NEGATIVE: return m_negatives > 0 ? -m_negatives-- : wanted;
    default: return std::max(wanted / 2, 1);
    }
}

bool FaultySource::refuses()
{
    return m_f_fault && (m_faults & FAULT_SEEK) != 0;
}

void FaultySource::begin_call()
{
    ++g_hosts.calls;
    ++calls;
    m_f_fault = calls >= m_input.first_fault && calls % m_input.fault_period == 0;
}

// Frames

seen_t look_at(const GOLT_frame_t &t_frame)
{
    require(t_frame.ui4_frametype < GOLT_FT_MAX, "a frame has a type");
    require(t_frame.pb_data != nullptr, "a frame has a block");
    require_written(t_frame.ui8_timestamp);
    require_written(t_frame.ui4_size);
    require_written(t_frame.pb_data, t_frame.ui4_size);
    // Four sums side by side: each has to wait for its last product.
    constexpr uint64_t FACTOR = 0x9E3779B97F4A7C15u;
    uint64_t sums[4] = {t_frame.ui4_size, 1, 2, 3}, words[4];
    uint32_t at = 0;
    for (; t_frame.ui4_size - at >= sizeof words; at += sizeof words) {
        memcpy(words, t_frame.pb_data + at, sizeof words);
        for (size_t i = 0; i < 4; ++i)
            sums[i] = (sums[i] ^ words[i]) * FACTOR;
    }
    uint64_t ui8_sum = sums[0];
    for (size_t i = 1; i < 4; ++i)
        ui8_sum = (ui8_sum ^ sums[i]) * FACTOR;
    for (; at < t_frame.ui4_size; ++at)
        ui8_sum = (ui8_sum ^ t_frame.pb_data[at]) * FACTOR;
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

// Work

namespace {

// For each byte that is read, and beyond that. bytes_per_request 0: a constant number of requests.
struct bound_t {
    double calls_per_byte;
    uint64_t calls;
    uint64_t bytes_per_request, requests;
    uint64_t heap_per_byte, heap;
};

constexpr uint64_t KIB = 1024;
// A frame whose bytes are still to come, and what little stands beside it.
constexpr uint64_t FRAME = 16 * KIB * KIB + 256 * KIB;
constexpr uint64_t TABLES = 2 * FRAME;

// The rows and columns of docs/robustness.md: createDemuxer, readFrame, seeks.
constexpr bound_t BOUNDS[4][3] = {
    {{1, 16, 0, 0, 0, 0}, {1.0 / 96, 4, 0, 2, 0, 4 * KIB}, {0, 4, 0, 0, 0, 0}},
    {{0.25, 16, 0, 16, 0, 64 * KIB}, {0.25, 16, 0, 4, 0, 64 * KIB}, {1, 16, 0, 4, 0, 64 * KIB}},
    {{1, 16, 8, 64, 5, TABLES}, {2, 4, 0, 8, 3, FRAME}, {0, 0, 0, 0, 0, 0}},
    {{2, 128, 6, 16, 2, 256 * KIB}, {2, 384, 6, 264, 2, FRAME}, {2, 384, 6, 16, 2, FRAME}},
};
constexpr bound_t NO_WORK = {};
// Of the cache: 16 blocks of 64 KiB with their heads, and a read-ahead that waits for nothing.
constexpr bound_t CACHE = {1, 64, 0, 64, 0, 1408 * KIB};

// Of an MP4, the same bytes are read for each box that overhangs; behind the cache that isn't seen.
constexpr uint64_t OVERHANGS = 16;

}  // namespace

void require_work(unsigned format, call_t call, const work_t &t_work, uint64_t held)
{
    const bound_t &t_bound = call == CALL_OTHER ? NO_WORK : BOUNDS[format][call];
    bound_t t_cache = {};
    uint64_t bytes = t_work.delivered;
    if (held != NO_CACHE) {
        t_cache = CACHE;
        bytes = (bytes + held) * (format == 2 && call == CALL_CREATE ? OVERHANGS : 1);
    }
    const double calls =
        (t_bound.calls_per_byte + t_cache.calls_per_byte) * static_cast<double>(bytes);
    require(static_cast<double>(t_work.calls - t_work.refused) <=
                calls + static_cast<double>(t_bound.calls + t_cache.calls),
            "a call asks the host a few times for each byte");
    uint64_t requests = t_bound.requests + t_cache.requests;
    if (t_bound.bytes_per_request != 0) requests += bytes / t_bound.bytes_per_request;
    require(t_work.requests <= requests, "memory is asked for as bytes come");
    require(t_work.heap <= bytes * t_bound.heap_per_byte + t_bound.heap + t_cache.heap,
            "memory is taken as bytes come");
}

// One demuxer

namespace {

// A module trusts its callback's counts. What a host claims too much the cache takes for nothing.
class ModuleHost : public FaultySource {
public:
    using FaultySource::FaultySource;

    int read(uint8_t *buffer, int size) override
    {
        const int got = FaultySource::read(buffer, size);
        return got > size ? 0 : got;
    }
};

class ModuleRun {
public:
    ModuleRun(const GOLT_DMX_handler_t &t_module, const Input &t_input, bool f_faulty)
        : m_module(t_module)
        , m_source(t_input, f_faulty ? t_input.faults : uint8_t{0})
    {
        GOLT_streamInfo_t t_info = {};
        // Trickles come only where faults do: otherwise the frames are the file's.
        if (!f_faulty || t_input.faults == 0) m_source.most = INT_MAX;
        m_is_open = call(CALL_CREATE, [&] {
            return m_module.init(FaultySource::read_proc, FaultySource::seek_proc, &m_source);
        });
        if (m_is_open) m_module.getStreamInfo(&t_info);
        require_written(t_info);
    }

    ~ModuleRun()
    {
        call(CALL_OTHER, [&] { return !m_is_open || m_module.destroy(); });
        require(g_heap.held == 0, "everything is given back");
    }

    ModuleRun(const ModuleRun &) = delete;
    ModuleRun &operator=(const ModuleRun &) = delete;

    // Up to count frames; false at the end.
    bool read(size_t count, std::vector<seen_t> &seen)
    {
        for (; count > 0; --count) {
            GOLT_frame_t t_frame = {};
            const bool f_ok =
                call(CALL_READ, [&] { return m_is_open && m_module.readFrame(&t_frame); });
            if (f_ok) seen.push_back(look_at(t_frame));
            call(CALL_OTHER, [&] {
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
        case op_t::SEEK_TIME:
            call(CALL_SEEK, [&] { return m_module.seekToTime(t_op.number); });
            break;
        case op_t::SEEK_BYTES:
            call(CALL_SEEK, [&] { return m_module.seekToBytes(t_op.number); });
            break;
        case op_t::OTHER: call(CALL_OTHER, [&] { return m_module.getStreamInfo(&t_info); }); break;
        }
        require_written(t_info);
    }

private:
    template <typename Call> bool call(call_t kind, Call what)
    {
        m_source.calls = 0;
        const CallWatch watch;
        const bool f_ok = what();
        const auto format = static_cast<unsigned>(&m_module - GOLT::g_dmx_handlers);
        require_work(format, kind, watch.work(), NO_CACHE);
        return f_ok;
    }

    const GOLT_DMX_handler_t &m_module;
    ModuleHost m_source;
    bool m_is_open = false;
};

}  // namespace

std::vector<seen_t> plain_frames(const GOLT_DMX_handler_t &t_module, const Input &t_input)
{
    begin_input();
    std::vector<seen_t> plain;
    ModuleRun run(t_module, t_input, false);
    run.read(FRAMES_LOOKED_AT, plain);
    const auto format = static_cast<unsigned>(&t_module - GOLT::g_dmx_handlers);
    require(plain.size() <= frames_limit(format, t_input.file.size()), "few frames");
    return plain;
}

void run_demuxer(const GOLT_DMX_handler_t &t_module, const Input &t_input)
{
    plain_frames(t_module, t_input);
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
}

// The cache under any host. As long as the host is honest about where its bytes are, each byte
// that comes out has to be the file's, and a host without faults gets all of them out.

#include <algorithm>
#include <cstring>
#include <memory>

#include "target.h"
#include "tcache.h"

using namespace PELA;

namespace {

constexpr int READ_MOST = 200000;
constexpr int OPS_MOST = 100;
// A fill sleeps 5000 times at most. What it brings is handed out, and what is still missing is waited
// for anew: a host that trickles can keep a read waiting for as long as bytes come.
constexpr unsigned CALLS_OF_A_FILL = 5001;
// Reads that may have a fault: several such waits. After that a host gives what there is, or a run could take millions.
constexpr unsigned FAULTS_MOST = 4 * CALLS_OF_A_FILL;
constexpr unsigned BLOCK = cachebuf_t::BLOCK_SIZE;

// The file's bytes come again after a prime number of them, which no mistake among blocks is a multiple of. Most of a
// run is copying and comparing them.
class FileBytes {
public:
    FileBytes()
    {
        for (size_t i = 0; i < PERIOD; ++i)
            m_bytes[i] = static_cast<uint8_t>((i + 1) * 0x9E3779B97F4A7C15u >> 56);
    }

    void copy(uint8_t *buffer, uint64_t offset, size_t count) const
    {
        for_pieces(offset, count, [&](const uint8_t *piece, size_t size) {
            memcpy(buffer, piece, size);
            buffer += size;
            return true;
        });
    }
    bool equal(const uint8_t *bytes, uint64_t offset, size_t count) const
    {
        return for_pieces(offset, count, [&](const uint8_t *piece, size_t size) {
            const bool f_equal = memcmp(bytes, piece, size) == 0;
            bytes += size;
            return f_equal;
        });
    }

private:
    static constexpr size_t PERIOD = 131071;

    template <typename Use> bool for_pieces(uint64_t offset, size_t count, Use use) const
    {
        auto at = static_cast<size_t>(offset % PERIOD);
        while (count > 0) {
            const size_t size = std::min(count, PERIOD - at);
            if (!use(m_bytes + at, size)) return false;
            count -= size;
            at = 0;
        }
        return true;
    }

    uint8_t m_bytes[PERIOD];
};
const FileBytes s_file;

// Takes a byte from the script at a time, round and round.
struct Script {
    const uint8_t *pb;
    size_t size;
    size_t at = 0;

    uint8_t next() { return size > 0 ? pb[at++ % size] : 0; }
    uint32_t next32()
    {
        uint32_t ui4_value = 0;
        for (int i = 0; i < 4; ++i)
            ui4_value = ui4_value << 8 | next();
        return ui4_value;
    }
};

struct ScriptedHost : public Source {
    Script bytes;  // of the script of its faults
    uint8_t faults = 0;
    int64_t end = 0;
    unsigned calls = 0;
    unsigned faults_left = FAULTS_MOST;
    bool f_honest = true;  // it is where it was sent

    int read(uint8_t *buffer, int room) override
    {
        const LibraryCall host(false);
        require(room > 0 && room <= READ_MOST, "the host is offered room");
        ++calls;
        return Source::read(buffer, room);
    }

    int64_t seek(int64_t offset, int whence) override
    {
        const LibraryCall host(false);
        require(whence == 0, "seeks count from the start");
        return Source::seek(offset >= 0 ? offset : INT64_MAX, whence);
    }

    int64_t size() const override { return end; }

protected:
    int answer(int room) override
    {
        if (faults_left == 0) return room;
        --faults_left;
        const uint8_t ui1_what = bytes.next();
        const bool f_fault = ui1_what < 64;
        if (f_fault && (faults & FAULT_ZERO) != 0) return 0;
        if (f_fault && (faults & FAULT_NEGATIVE) != 0) return INT32_MIN + ui1_what;
        if (f_fault && (faults & FAULT_LIE) != 0) return INT32_MAX - ui1_what;
        return (faults & FAULT_SHORT) != 0 ? std::min(room, 1 + ui1_what * 16) : room;
    }

    bool refuses() override
    {
        const bool f_refused = (faults & FAULT_SEEK) != 0 && bytes.next() < 64;
        f_honest = f_honest && !f_refused;
        return f_refused;
    }

    void deliver(uint8_t *buffer, int64_t at, int count) override
    {
        s_file.copy(buffer, static_cast<uint64_t>(at), static_cast<size_t>(count));
    }
};

uint64_t file_size(const ScriptedHost &host)
{
    return static_cast<uint64_t>(host.end);
}

class CacheRun {
public:
    CacheRun(ScriptedHost &host, uint64_t told_size)
        : m_host(host)
        , m_exact(told_size == file_size(host) && host.end != 0 &&
                  (host.faults &
                   (FAULT_ZERO | FAULT_NEGATIVE | FAULT_LIE | FAULT_SHORT | FAULT_MEMORY)) == 0)
    {
        const CallWatch watch;
        m_cache = new (std::nothrow) TCache(&host, told_size);
    }

    ~CacheRun()
    {
        {
            const CallWatch watch;
            delete m_cache;
        }
        require(g_heap.held == 0, "everything is given back");
    }

    CacheRun(const CacheRun &) = delete;
    CacheRun &operator=(const CacheRun &) = delete;

    void read(int size)
    {
        if (m_cache == nullptr) return;
        const std::unique_ptr<uint8_t[]> block(new uint8_t[static_cast<size_t>(std::max(size, 0))]);
        m_host.calls = 0;
        const int got = [&] {
            const CallWatch watch;
            return m_cache->read(block.get(), size);
        }();
        require(got >= 0 && got <= std::max(size, 0), "a count of what was asked for");
        const uint64_t fills = static_cast<unsigned>(got) + uint64_t{1};
        require(m_host.calls <= fills * CALLS_OF_A_FILL + 1, "a wait ends when nothing comes");
        if (!m_host.f_honest) return;
        require(s_file.equal(block.get(), m_pos, static_cast<unsigned>(got)), "the file's bytes");
        const uint64_t left = file_size(m_host) - std::min(m_pos, file_size(m_host));
        if (m_exact)
            require(static_cast<uint64_t>(got) ==
                        std::min<uint64_t>(static_cast<unsigned>(std::max(size, 0)), left),
                    "all the bytes that there are");
        m_pos += static_cast<unsigned>(got);
    }

    void seek(uint64_t offset)
    {
        if (m_cache == nullptr) return;
        m_pos = offset;
        const CallWatch watch;
        const int64_t result = m_cache->seek(static_cast<int64_t>(offset));
        require(result == 0 || (!g_TCacheEnabled && result == -1), "a result of a seek");
    }

    uint64_t position() const { return m_pos; }

private:
    ScriptedHost &m_host;
    bool m_exact;
    TCache *m_cache = nullptr;
    uint64_t m_pos = 0;
};

void perform(CacheRun &run, Script &script, uint64_t file_size)
{
    const uint8_t ui1_op = script.next();
    switch (ui1_op & 7) {
    case 0: run.read(script.next()); break;
    case 1: run.read(static_cast<int>(script.next32() % READ_MOST) >> (ui1_op >> 3 & 15)); break;
    case 2: run.read(-static_cast<int>(script.next())); break;
    case 3: run.seek(script.next32() % (file_size + 1)); break;
    case 4: run.seek(run.position() + script.next() * 1024u); break;
    case 5: run.seek(run.position() - script.next() * 1024u); break;
    case 6: run.seek(uint64_t{script.next()} * BLOCK); break;
    default:
        // Any place of 64 bits, its ends above all.
        run.seek((ui1_op & 0x80) != 0 ? UINT64_MAX - script.next32()
                                      : uint64_t{script.next32()} << (ui1_op >> 3));
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *pb_data, size_t size)
{
    if (size < 8) return 0;
    begin_input();
    const uint8_t ui1_mode = pb_data[0];
    g_TCacheEnabled = (ui1_mode & 1) == 0;
    ScriptedHost host;
    host.faults = pb_data[1];
    host.end = int64_t{pb_data[2]} << 14 | pb_data[3];
    // The ends of the range of 64 bits are far away only for files.
    uint64_t told_size = file_size(host);
    if ((ui1_mode & 2) != 0) told_size = 0;
    if ((ui1_mode & 4) != 0) told_size = uint64_t{pb_data[4]} << (pb_data[5] & 63);
    const size_t half = (size - 8) / 2;
    host.bytes = {pb_data + 8, half};
    Script script = {pb_data + 8 + half, size - 8 - half};
    if ((host.faults & FAULT_MEMORY) != 0) {
        g_heap.granted = pb_data[6];
        g_heap.refused = pb_data[7];
    }

    {
        CacheRun run(host, told_size);
        for (int i = 0; i < OPS_MOST && script.at < script.size; ++i)
            perform(run, script, file_size(host));
    }
    g_TCacheEnabled = true;
    return 0;
}

// The source of unit tests, fuzz targets and benches: bytes in memory, and every fault that a host
// may have.

#ifndef GOLT_TEST_SOURCE_H
#define GOLT_TEST_SOURCE_H

#include <algorithm>
#include <climits>
#include <cstring>
#include <deque>
#include <utility>

#include "bytes.h"
#include "pela/PELARemuxerDriver.h"

/// Faults are fields: set them before the call that is to meet them. For others, a subclass says
/// what a read is to give and where the bytes come from.
class Source : public PELA::AVDemuxer::Listener {
public:
    explicit Source(Bytes file = {})
        : m_file(std::move(file))
    {
    }

    int64_t fail_from = -1;  ///< reads that reach this offset deliver nothing of it, -1: never
    int most = INT_MAX;      ///< bytes that a read delivers: a trickle
    std::deque<int> script;  ///< what the next reads give: short counts, 0, negative ones and lies
    bool refuse_seeks = false;
    bool ignore_seeks = false;  ///< seeks answer 0, and are not done
    bool hide_size = false;
    int reads = 0;
    int seeks = 0;
    uint64_t delivered = 0;  ///< bytes that reads gave

    int read(uint8_t *buffer, int size) override
    {
        ++reads;
        const int wanted = answer(size);
        if (wanted <= 0 || wanted > size) return wanted;
        const int64_t end = fail_from >= 0 ? std::min(fail_from, this->size()) : this->size();
        if (m_pos >= end) return 0;
        const auto count = static_cast<int>(std::min<int64_t>(wanted, end - m_pos));
        deliver(buffer, m_pos, count);
        m_pos += count;
        delivered += static_cast<uint64_t>(count);
        return count;
    }

    int64_t seek(int64_t offset, int whence) override
    {
        ++seeks;
        if (refuses() || offset < 0 || whence != 0) return -1;
        if (!ignores()) m_pos = offset;
        return 0;
    }

    virtual int64_t size() const { return static_cast<int64_t>(m_file.size()); }
    /// The size as it is stated when a demuxer is made.
    int64_t told_size() const { return hide_size ? 0 : size(); }
    int64_t position() const { return m_pos; }

    /// The source as a demuxer module sees it; the handle is the Source.
    static uint32_t read_proc(void *source, uint8_t *buffer, uint32_t size)
    {
        const auto room = static_cast<int>(std::min<uint32_t>(size, INT_MAX));
        return static_cast<uint32_t>(
            std::max(static_cast<Source *>(source)->read(buffer, room), 0));
    }

    static int32_t seek_proc(void *source, int64_t offset)
    {
        return static_cast<int32_t>(static_cast<Source *>(source)->seek(offset, 0));
    }

protected:
    /// What a read of so much room is to give. It is cut to the bytes that there are; nothing is
    /// delivered where it is 0, negative or, as a lie, above the room.
    virtual int answer(int room)
    {
        if (script.empty()) return std::min(room, most);
        const int next = script.front();
        script.pop_front();
        return next;
    }

    virtual bool refuses() { return refuse_seeks; }
    virtual bool ignores() { return ignore_seeks; }

    /// Places count bytes from offset at on.
    virtual void deliver(uint8_t *buffer, int64_t at, int count)
    {
        memcpy(buffer, m_file.data() + at, static_cast<size_t>(count));
    }

private:
    Bytes m_file;
    int64_t m_pos = 0;
};

#endif

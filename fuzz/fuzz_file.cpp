// The whole path, as a host goes it: driver, cache, demuxer, muxer, and a second demuxer beside
// them. Without faults of the host the frames have to be those that the demuxer alone delivers,
// whatever the size of the host's reads.

#include <algorithm>
#include <memory>
#include <utility>

#include "libgolt.h"
#include "target.h"
#include "ts_collector.h"
#include "written.h"

using namespace PELA;

namespace {

constexpr int PACKET_SIZE = 188;
constexpr uint64_t CACHE_SIZE = 16 * 65536;            // bytes
constexpr size_t STREAM_CHECKED = 1000 * PACKET_SIZE;  // bytes

// A read that takes more turns than these of the host's reads runs into the cache's time-out.
constexpr int LEAST_STEADY_READ = 16;
// The size that a host states, by the rule of the recipe.
int64_t told_size(const Input &t_input)
{
    const auto size = static_cast<int64_t>(t_input.file.size());
    switch (t_input.told_size) {
    case 1: return 0;
    case 2: return size / 2;
    case 3: return size * 2;
    case 4: return -1;
    case 5: return INT64_MAX;
    default: return size;
    }
}

class CheckedSink : public AVMuxer::Listener {
public:
    Bytes stream;
    bool f_announced = true;  // of all that was written the PMT knows
    int expected = PACKET_SIZE;

    int write(uint8_t *buffer, int size) override
    {
        const LibraryCall host(false);
        require(size == expected, "whole packets");
        require_written(buffer, static_cast<size_t>(size));
        if (stream.size() <= STREAM_CHECKED) stream.insert(stream.end(), buffer, buffer + size);
        return size - 1;  // nobody looks at it
    }

    void check() const
    {
        if (!f_announced || stream.empty() || stream.size() > STREAM_CHECKED) return;
        const TsReport report = check_ts(stream);
        require(report.problems.empty(),
                report.problems.empty() ? "" : report.problems.front().c_str());
    }
};

const char *name_of(unsigned format)
{
    return GOLT::g_dmx_handlers[format].format;
}

class Session {
public:
    explicit Session(const Input &t_input)
        : m_input(t_input)
        , m_host(t_input, t_input.faults)
        , m_second_host(t_input, t_input.faults)
    {
        const CallWatch watch;
        m_driver = GOLT_CreateRemuxerDriver();
        if (m_driver != nullptr) m_demux = create(t_input.format, m_host);
        create_muxer();
    }

    ~Session()
    {
        {
            const CallWatch watch;
            if (m_driver != nullptr) {
                m_driver->destroyDemuxer(m_demux);
                m_driver->destroyMuxer(m_mux);
                m_driver->destroyDemuxer(m_second);
            }
            GOLT_DestroyRemuxerDriver();
        }
        require(g_heap.held == 0, "everything is given back");
        m_sink.check();
    }

    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    std::vector<seen_t> seen;

    bool read(IAVDemuxer demux, size_t count)
    {
        bool f_ok = m_driver != nullptr && demux != nullptr;
        for (; f_ok && count > 0 && seen.size() < FRAMES_LOOKED_AT; --count) {
            const CallWatch watch;
            IAVFrame frame = m_driver->createNewFrame();
            f_ok = demux->readFrame(frame);
            check_work(demux == m_second ? m_input.second_format : m_input.format, watch,
                       CALL_READ);
            if (f_ok) use(frame);
            if (frame != nullptr) m_driver->destroyFrame(frame);
        }
        return f_ok;
    }

    bool read_all() { return read(m_demux, FRAMES_LOOKED_AT); }

    void perform(const op_t &t_op)
    {
        if (m_demux == nullptr) return;
        switch (t_op.kind) {
        case op_t::READ: read(m_demux, t_op.number); break;
        case op_t::SEEK_TIME: {
            const CallWatch watch;
            m_demux->seekToTime(t_op.number);
            check_work(m_input.format, watch, CALL_SEEK);
            break;
        }
        case op_t::SEEK_BYTES: {
            const CallWatch watch;
            m_demux->seekToBytes(t_op.number);
            check_work(m_input.format, watch, CALL_SEEK);
            break;
        }
        case op_t::OTHER: perform_other(t_op.number); break;
        }
    }

private:
    void check_work(unsigned format, const CallWatch &watch, call_t call) const
    {
        const uint64_t delivered = m_host.delivered + m_second_host.delivered;
        require_work(format, call, watch.work(), std::min(delivered, CACHE_SIZE));
    }

    IAVDemuxer create(unsigned format, FaultySource &host)
    {
        const CallWatch watch;
        IAVDemuxer demux = m_driver->createDemuxer(name_of(format), &host, told_size(m_input));
        check_work(format, watch, CALL_CREATE);
        return demux;
    }

    void create_muxer()
    {
        if (m_driver == nullptr) return;
        m_mux = m_driver->createMuxer(CONTAINER_TS, m_demux, &m_sink, false);
        MediaBuffer::ContentInfo info;
        if (m_mux == nullptr || !m_mux->getContentInfo(&info)) return;
        require_written(info);
        m_has_video = info.videoCodec != VIDEO_CODEC_UNKNOWN;
    }

    void use(IAVFrame frame)
    {
        const auto &t_frame = *reinterpret_cast<const GOLT_frame_t *>(frame);
        const LibraryCall host(false);
        seen.push_back(look_at(t_frame));
        if (m_mux == nullptr) return;
        const bool f_packet = t_frame.ui4_frametype == GOLT_FT_MPEG2TS;
        m_sink.expected = f_packet ? static_cast<int>(t_frame.ui4_size) : PACKET_SIZE;
        m_sink.f_announced = m_sink.f_announced && !f_packet &&
                             (m_has_video || t_frame.ui4_frametype == GOLT_FT_AUDIO);
        const LibraryCall library;
        uint32_t ui4_pts = 0;
        require(m_mux->getPts(frame, ui4_pts) && m_mux->convertFrame(frame, true) &&
                    m_mux->writeFrame(frame),
                "a frame is written");
    }

    // What a host does seldom.
    void perform_other(uint32_t number)
    {
        const CallWatch watch;
        switch (number % 6) {
        case 0:  // another muxer; the output begins anew with it
            m_driver->destroyMuxer(m_mux);
            {
                const LibraryCall host(false);
                m_sink.check();
                m_sink = {};
            }
            create_muxer();
            break;
        case 1:
            m_driver->destroyMuxer(m_mux);
            m_mux = nullptr;
            break;
        case 2:
            m_driver->destroyDemuxer(m_second);
            m_second = create(m_input.second_format, m_second_host);
            break;
        case 3:
            if (m_second != nullptr) m_second->seekToTime(number);
            break;
        case 4: {
            IAVMuxer mux = std::exchange(m_mux, nullptr);
            {
                const LibraryCall host(false);
                read(m_second, number);
            }
            m_mux = mux;
            break;
        }
        default:  // the muxer outlives the demuxer that it was made with
            m_driver->destroyDemuxer(m_demux);
            m_demux = create(m_input.format, m_host);
        }
    }

    const Input &m_input;
    FaultySource m_host;
    FaultySource m_second_host;
    CheckedSink m_sink;
    bool m_has_video = false;
    IRemuxerDriver m_driver = nullptr;
    IAVDemuxer m_demux = nullptr;
    IAVDemuxer m_second = nullptr;
    IAVMuxer m_mux = nullptr;
};

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *pb_data, size_t size)
{
    Input input(pb_data, size);
    if (input.faults == 0) {
        const std::vector<seen_t> alone = plain_frames(GOLT::g_dmx_handlers[input.format], input);
        begin_input();
        Input steady = input;
        steady.told_size = 0;
        steady.most_of_read = std::max(steady.most_of_read, LEAST_STEADY_READ);
        Session session(steady);
        session.read_all();
        require(session.seen == alone, "the frames don't hang on the host's reads");
    }

    begin_input();
    if ((input.faults & FAULT_MEMORY) != 0) {
        g_heap.granted = input.granted;
        g_heap.refused = static_cast<int>(input.fault_period);
    }
    Session session(input);
    if ((input.faults & FAULT_NO_CACHE) != 0) g_TCacheEnabled = false;
    for (const op_t &t_op : input.ops)
        session.perform(t_op);
    for (int ends = 0; ends < 4 && session.seen.size() < FRAMES_LOOKED_AT;)
        ends += session.read_all() ? 0 : 1;
    return 0;
}

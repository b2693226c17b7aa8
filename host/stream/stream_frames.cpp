#include "stream_frames.h"

StreamFrames::StreamFrames(uint32_t start_ms, FrameUser &user)
    : m_user(user)
    , m_checker(*this)
    , m_clock(PTS_BITS, int64_t{start_ms} * TICKS_PER_MS)
{
}

int StreamFrames::write(uint8_t *buffer, int size)
{
    if (size <= 0) return 0;
    m_checker.feed(buffer, static_cast<size_t>(size));
    m_bytes += static_cast<uint64_t>(size);
    return size;
}

void StreamFrames::on_stream(uint16_t pid, uint8_t stream_type)
{
    m_readers[pid] = ContentReader(codec_of_stream_type(stream_type));
    m_reader = nullptr;
}

void StreamFrames::on_pes_start(uint16_t pid)
{
    m_readers[pid].begin();
}

void StreamFrames::on_payload(uint16_t pid, const uint8_t *bytes, size_t size)
{
    if (m_reader == nullptr || m_reader_pid != pid) {
        m_reader = &m_readers[pid];
        m_reader_pid = pid;
    }
    m_reader->feed(bytes, size);
}

void StreamFrames::on_pes_end(const TsPes &pes)
{
    ContentReader &reader = m_readers[pes.pid];
    const FrameContent content = reader.finish();
    std::optional<int64_t> time;
    if (pes.pts) {
        time = m_clock.follow(*pes.pts);
        m_clock.settle();
    }
    m_user.on_frame({++m_frames, reader.codec(), time, pes, content});
}

#include "ts_frames.h"

std::optional<int64_t> StreamFrame::decoding_time() const
{
    if (!time || !pes.dts || !pes.pts) return time;
    return *time - difference_of_times(*pes.pts, *pes.dts);
}

bool StreamFrame::is_key() const
{
    if (codec == Codec::H264) return content.has(nal::IDR) || pes.f_random_access;
    return codec == Codec::MPEG2 && (content.has(mpeg2::SEQUENCE) || pes.f_random_access);
}

TsFrames::TsFrames(FrameUser &user, TsChecker::Programs programs, int64_t start)
    : m_user(user)
    , m_checker(*this, programs)
    , m_clock(PTS_BITS, start)
{
}

void TsFrames::on_stream(uint16_t pid, uint8_t stream_type)
{
    m_readers[pid] = ContentReader(codec_of_stream_type(stream_type));
    m_reader = nullptr;
    m_user.on_stream(pid, stream_type);
}

void TsFrames::on_pes_start(uint16_t pid)
{
    m_readers[pid].begin();
    m_user.on_frame_start(pid);
}

void TsFrames::on_payload(uint16_t pid, const uint8_t *bytes, size_t size)
{
    if (m_reader == nullptr || m_reader_pid != pid) {
        m_reader = &m_readers[pid];
        m_reader_pid = pid;
    }
    m_reader->feed(bytes, size);
}

void TsFrames::on_pes_end(const TsPes &pes)
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

void TsFileFrames::finish()
{
    m_framing.finish();
    m_frames.checker().finish();
}

// What all subcommands share: an input is opened, and its frames go through the library one by one.

#ifndef HOST_STREAM_INPUT_H
#define HOST_STREAM_INPUT_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "frame_clock.h"
#include "io/http_options.h"
#include "io/recognise.h"
#include "io/source.h"
#include "io/text.h"
#include "library.h"

struct InputOptions {
    std::string path;    ///< of a file, or a URL
    std::string format;  ///< a name that the library knows; empty: found out
    HttpOptions http;
    std::optional<uint32_t> start_ms;
    std::optional<uint32_t> to_ms;
    std::optional<uint64_t> frames;
};

/// The input, opened, and its demuxer.
class Input {
public:
    /// options: has to outlive the object. Throws NotDone or BadUsage.
    explicit Input(const InputOptions &options);

    const InputOptions &options() const { return m_options; }
    Source &source() { return *m_source; }
    const Source &source() const { return *m_source; }
    const Format &format() const { return m_format; }
    Library &library() { return m_library; }
    const Demuxer &demuxer() const { return m_demuxer; }

private:
    const InputOptions &m_options;
    std::unique_ptr<Source> m_source;
    const Format m_format;
    Library m_library;
    Demuxer m_demuxer;
};

/// The host's loop over the frames of an input, from the start asked for to the end asked for.
class Pump {
public:
    /// input, sink: have to outlive the object. Throws NotDone.
    Pump(Input &input, PELA::AVMuxer::Listener &sink);

    const PELA::MediaBuffer::ContentInfo &content() const { return m_content; }

    void seek_to_start();
    /// Reads a frame and has the library write it to the sink, unless it is to be left out. False
    /// when there is no further frame, or none is wanted.
    bool copy_frame();

    /// Moves anywhere; false where the input can't be sought in so.
    bool seek(uint32_t time_ms) { return m_input.demuxer()->seekToTime(time_ms); }

    uint64_t frames() const { return m_frames; }  ///< written
    const FrameClock &clock() const { return m_clock; }
    /// 0 to 1 of the work is done.
    double part_done() const;

    std::string why_nothing_came() const;
    /// What the input seems to have lacked, judged by where the stream ended; empty when it was
    /// sound. The library ends a stream without telling why.
    std::string fault_in_input() const;

private:
    int64_t end_ms() const;
    std::string fault_of_ending() const;

    Input &m_input;
    const InputOptions &m_options;
    Muxer m_muxer;
    PELA::MediaBuffer::ContentInfo m_content = {};
    FrameClock m_clock;
    int64_t m_leave_out_to_ms = INT64_MIN;  // frames before this time
    uint64_t m_frames = 0;
    bool m_f_stopped = false;  // by an option or a signal, before the stream's own end
};

#endif

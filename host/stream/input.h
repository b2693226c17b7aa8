// What all subcommands share: an input is opened, and its frames go through the library one by one.

#ifndef HOST_STREAM_INPUT_H
#define HOST_STREAM_INPUT_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "even_index.h"
#include "even_source.h"
#include "frame_clock.h"
#include "io/http_options.h"
#include "io/recognise.h"
#include "io/source.h"
#include "io/text.h"
#include "library.h"
#include "outline.h"
#include "selection.h"
#include "sync_point.h"
#include "tally.h"

struct InputOptions {
    std::string path;    ///< of a file, or a URL
    std::string format;  ///< a name that the library knows; empty: found out
    HttpOptions http;
    std::optional<uint32_t> start_ms;
    std::optional<uint32_t> to_ms;
    std::optional<uint64_t> frames;
};

/// The file or URL. Throws NotDone.
std::unique_ptr<Source> open_source(const InputOptions &options);

/// An input, opened: its format, and what is in it.
class InputFile {
public:
    /// Throws NotDone or BadUsage.
    explicit InputFile(const InputOptions &options);

    Source &source() { return *m_source; }
    const Source &source() const { return *m_source; }
    const Format &format() const { return m_format; }
    /// Of the container UNKNOWN where the user says that the input is in another format.
    const Outline &outline() const { return m_outline; }
    const Selection &selection() const { return m_selection; }
    /// Adds to the outline what only people ask about.
    void read_details();

private:
    std::unique_ptr<Source> m_source;
    Outline m_outline;
    Format m_format;
    Selection m_selection;
};

/// In which frames come: of MP4 the library has an order of its own.
enum class Order { OF_LIBRARY, BY_TIME };

/// The input, opened, and its demuxer.
class Input {
public:
    /// options: has to outlive the object. Throws NotDone or BadUsage.
    explicit Input(const InputOptions &options, Order order = Order::OF_LIBRARY)
        : Input(options, InputFile(options), order)
    {
    }
    Input(const InputOptions &options, InputFile file, Order order = Order::OF_LIBRARY);
    Input(const Input &) = delete;
    Input &operator=(const Input &) = delete;

    const InputOptions &options() const { return m_options; }
    const InputFile &file() const { return m_file; }
    Source &source() { return m_file.source(); }
    const Source &source() const { return m_file.source(); }
    const Format &format() const { return m_file.format(); }
    const Outline &outline() const { return m_file.outline(); }
    const Selection &selection() const { return m_file.selection(); }
    /// By which the library reads the file in order of time; null where it reads the file as it is.
    const EvenIndex *even_index() const { return m_even_index ? &*m_even_index : nullptr; }
    Library &library() { return m_library; }
    const Demuxer &demuxer() const { return m_demuxer; }

private:
    const InputOptions &m_options;
    InputFile m_file;
    std::optional<EvenIndex> m_even_index;
    std::optional<EvenSource> m_even_source;
    Library m_library;
    Demuxer m_demuxer;
};

/// The host's loop over the frames of an input, from the requested start to the requested end.
class Pump {
public:
    /// input, sink: have to outlive the object. Throws NotDone.
    Pump(Input &input, PELA::AVMuxer::Listener &sink);

    const PELA::MediaBuffer::ContentInfo &content() const { return m_content; }

    /// Makes the stream begin at the last key picture at or before the requested start; without video,
    /// at the audio frame that contains it. Throws NotDone if that isn't possible.
    void seek_to_start();
    /// Reads a frame and has the library write it to the sink, unless it is to be left out. False
    /// when there is no further frame, or none is wanted.
    bool copy_frame();

    uint64_t frames() const { return m_frames; }  ///< written
    const Tally &tally() const { return m_tally; }
    const FrameClock &clock() const { return m_clock; }
    /// 0 to 1 of the work is done.
    double part_done() const;

    std::string why_nothing_came() const;
    /// What was wrong with the input: what it lacked, or what of it is damaged; empty when nothing was.
    std::string fault_in_input();

private:
    std::optional<SyncPoint> find_start(uint32_t start_ms);
    std::optional<int64_t> end_of_tracks_ms() const;
    int64_t end_ms() const;
    std::string fault_of_records() const;

    Input &m_input;
    const InputOptions &m_options;
    Tally m_tally;
    Muxer m_muxer;
    PELA::MediaBuffer::ContentInfo m_content = {};
    FrameClock m_clock;
    uint64_t m_frames = 0;
    bool m_f_apart = false;    // audio and video each come to the requested end
    bool m_f_stopped = false;  // by an option or a signal, before the stream's own end
};

#endif

// A run of the library and the stage over part of a file.

#ifndef HOST_HLS_SEGMENT_RUN_H
#define HOST_HLS_SEGMENT_RUN_H

#include <optional>

#include "cutter.h"
#include "film.h"
#include "spliced_source.h"
#include "stream/library.h"
#include "stream/stage_hints.h"
#include "stream/tally.h"

class SegmentRun {
public:
    struct Begin {
        uint64_t place = 0;      ///< as Segment::place
        uint64_t to = 0;         ///< offset where the file ends for it
        int64_t later = 0;       ///< added to the library's times of audio; ticks of 90 kHz
        int64_t time = 0;        ///< of the library there, about, without offsets; likewise
        int64_t grid_later = 0;  ///< added to the film's grid of audio; likewise
    };

    /// source, film, cutter: have to outlive the object. Throws NotDone.
    SegmentRun(Source &source, const Film &film, const Begin &begin, Cutter &cutter);

    /// Until the cutter has the segment.
    void run();
    /// Until video and audio have begun, if both are there, as far as they come soon.
    void look();

    const golt::Stage &stage() const { return m_stage.stage(); }
    const std::string &fault() const { return m_source.fault(); }

private:
    bool copy_frame();
    bool is_known() const;

    const Film &m_film;
    Cutter &m_cutter;
    SplicedSource m_source;
    Library m_library;
    Demuxer m_demuxer;
    StageSetup m_setup;
    golt::StageListener<PELA::AVMuxer::Listener> m_stage;
    Tally m_tally;
    Muxer m_muxer;
};

/// The library's name of the film's format.
const char *format_name(Container container);

#endif

// Private to the MP3 demuxer: the tables that learn the relation of time to offset while frames are
// read. Times are packet numbers.
//
// POS_, the position lists, sample packet number -> offset: a fine and a coarse list of the span
// read without a jump from the start, and a fine one of the place where a seek left known ground.
// BRT_, the bit-rate tracker, has the exact sizes of the last 256 frames.
//
// The caller reports every frame: BRT_update, then POS_syncPoint, then POS_update.

#ifndef GOLT_DMX_MP3_TT_H
#define GOLT_DMX_MP3_TT_H

#include "dmx_mp3_i.h"

/// Sets up the three lists, whose intervals follow from the present g_pkttime_fixpt. Always true: a
/// list that gets no memory takes no entries. What an earlier POS_init holds has to be released
/// before.
bool POS_init();

void POS_destroy();

/// Takes note that packet pktno starts at offset. A list drops what lies out of its reach.
void POS_update(uint32_t pktno, MP3Offset_t offset);

/// True when the frame at offset turns out to be a known one that lay ahead of the last POS_seek's
/// landing place; *pktno_sync (unless null) is then its true packet number. Each such point hits
/// once. A point of the coarse list restarts the tracker at this frame. pktno, the number the
/// reader counts, plays no part.
bool POS_syncPoint(uint32_t pktno, MP3Offset_t offset, uint32_t *pktno_sync);

/// Finds the offset of packet pktno. True when it is the start of that frame; false when it is an
/// estimate, 0xFFFFFFFF where there is nothing to estimate from. newOffset may be null. Where
/// something is known to lie ahead of an estimate, POS_syncPoint will find it.
bool POS_seek(uint32_t pktno, MP3Offset_t *newOffset);

/// Empties the window; without memory it stays empty.
void BRT_init();

void BRT_destroy();

/// Empties the window and makes it start at packet pktno, whose frame starts at offset.
void BRT_reset(uint32_t pktno, MP3Offset_t offset);

/// Adds the next frame, of framesize bytes, to the window, and returns the window's duration in
/// milliseconds.
MP3Time_t BRT_update(uint32_t framesize);

bool BRT_timeWithin(uint32_t pktno);

/// Gives the offset of packet pktno (newOffset may be null) and cuts the window back to what lies
/// before it: the reader is about to read that frame again. False, with nothing changed, outside
/// the window.
bool BRT_seek(uint32_t pktno, MP3Offset_t *newOffset);

/// Averages and duration of the window with 12 fraction bits, 0 when it is empty; the duration in
/// milliseconds.
MP3FixPt_t BRT_aveBytesPerSec();
MP3FixPt_t BRT_aveBytesPerPkt();
MP3FixPt_t BRT_currDur();

// Places for diagnostics, of which there are none.
inline const char *POS_dbgStr()
{
    return nullptr;
}
inline void POS_dbgStr_reset() {}
inline void POS_dbgPrint() {}
inline void POS_printSeekInfo() {}
inline const char *BRT_dbgStr()
{
    return nullptr;
}
inline void BRT_dbgStr_reset() {}
inline void BRT_printSeekInfo() {}

#endif

#include "dmx_mp3_tt.h"

#include <cassert>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

constexpr uint32_t POSLIST_ENTRIES = 2048;
constexpr MP3Time_t COARSE_INTERVAL_MS = 60000;
constexpr MP3Time_t FINE_INTERVAL_MS = 1000;
constexpr uint32_t NO_PKTNO = 0xFFFFFFFF;
constexpr MP3Offset_t NO_OFFSET = 0xFFFFFFFF;

constexpr uint32_t BRT_ENTRIES = 256;

enum PosList_index_t {
    POSLIST_IDX_FCUR,  // fine, of the span read without a jump from the start
    POSLIST_IDX_FALT,  // fine, of the span where a seek left the known ground
    POSLIST_IDX_MAIN,  // coarse, of the same span as FCUR, kept long after FCUR has turned over
    POSLIST_ITEMS
};

// As long as the reports run on from firstPktno without a gap, entry k lies at ring index
// (firstIdx + k) % maxEntries and is the offset of packet firstPktno + k * interval.
struct PosList_t {
    char *name;
    MP3Offset_t *offsets;  // the ring; null without memory, and then there are no entries
    uint16_t maxEntries;
    uint16_t numEntries;
    uint16_t firstIdx;       // ring index of the oldest entry
    uint16_t currIdx;        // ring index of the next entry
    uint32_t interval;       // packets from entry to entry; 0: the first entry is the only one
    uint32_t nextPktno;      // of the next entry to take
    uint32_t firstPktno;     // of the oldest entry
    uint32_t currPktno;      // highest packet reported without a gap
    uint32_t syncPktno;      // packet of the sync point; NO_PKTNO: none is armed
    MP3Offset_t currOffset;  // of packet currPktno
    MP3Offset_t syncOffset;  // of the sync point; NO_OFFSET: none is armed
};

struct PosCtx_t {
    PosList_t pl[POSLIST_ITEMS];
};

// Entry k of the window is the size of packet firstPktno + k, whose offset is firstOffset plus the
// sizes before it; currSize is the sum of them all.
struct BRTCtx_t {
    uint16_t *packetsizes;  // ring of BRT_ENTRIES; null without memory, and then numEntries stays 0
    uint32_t numEntries;
    uint32_t firstIdx;  // ring index of the oldest size
    uint32_t currSize;  // bytes
    MP3Offset_t firstOffset;
    uint32_t firstPktno;
};

// A packet and its offset.
struct sample_t {
    uint32_t pktno;
    MP3Offset_t offset;
};

PosCtx_t pos;
BRTCtx_t br;

bool PosList_init(PosList_t *pPosList, const char *name, uint32_t maxEntries, uint32_t interval);
void PosList_destroy(PosList_t *pPosList);
void PosList_reset(PosList_t *pPosList, uint32_t pktno, MP3Offset_t offset);
bool PosList_update(PosList_t *pPosList, uint32_t pktno, MP3Offset_t offset);
void PosList_push(PosList_t *pPosList, MP3Offset_t offset);
bool PosList_timeWithin(PosList_t *pPosList, uint32_t pktno);
bool PosList_seek(PosList_t *pPosList, uint32_t pktno, MP3Offset_t *newOffset);
sample_t PosList_sample(const PosList_t *pPosList, uint32_t k);
MP3Offset_t interpolate(sample_t from, sample_t to, uint32_t pktno);
bool PosList_extrapolate(PosList_t *pPosList, uint32_t pktno, MP3Offset_t *newOffset);
uint32_t PosList_firstPktno(PosList_t *pPosList);
uint32_t PosList_firstOffset(PosList_t *pPosList);
bool PosList_syncPoint(PosList_t *pPosList, uint32_t pktno, MP3Offset_t offset,
                       uint32_t *pktno_sync);
void PosList_syncPointReset(PosList_t *pPosList);
void PosList_syncPointRead(PosList_t *pPosList, uint32_t *p_pktno, MP3Offset_t *p_offset);
void PosList_syncPointUpdate(PosList_t *pPosList, uint32_t pktno, MP3Offset_t offset);
PosList_t *list_with(uint32_t pktno);
void sync_at_nearer_of_main_and_fcur();
void restart_tracker_at_last_frame(uint32_t pktno, MP3Offset_t offset);

}  // namespace

bool POS_init()
{
    const uint32_t coarse = MP3_msec_to_pktno(COARSE_INTERVAL_MS);
    const uint32_t fine = MP3_msec_to_pktno(FINE_INTERVAL_MS);
    PosList_init(&pos.pl[POSLIST_IDX_MAIN], "MAIN", POSLIST_ENTRIES, coarse);
    PosList_init(&pos.pl[POSLIST_IDX_FCUR], "F1", POSLIST_ENTRIES, fine);
    PosList_init(&pos.pl[POSLIST_IDX_FALT], "F2", POSLIST_ENTRIES, fine);
    return true;
}

void POS_destroy()
{
    for (PosList_t &list : pos.pl)
        PosList_destroy(&list);
}

void POS_update(uint32_t pktno, MP3Offset_t offset)
{
    if (!PosList_update(&pos.pl[POSLIST_IDX_FCUR], pktno, offset))
        PosList_update(&pos.pl[POSLIST_IDX_FALT], pktno, offset);
    PosList_update(&pos.pl[POSLIST_IDX_MAIN], pktno, offset);
}

bool POS_syncPoint(uint32_t pktno, MP3Offset_t offset, uint32_t *pktno_sync)
{
    uint32_t newPktno = NO_PKTNO;
    if (!PosList_syncPoint(&pos.pl[POSLIST_IDX_FCUR], pktno, offset, &newPktno))
        PosList_syncPoint(&pos.pl[POSLIST_IDX_FALT], pktno, offset, &newPktno);
    if (PosList_syncPoint(&pos.pl[POSLIST_IDX_MAIN], pktno, offset, &newPktno))
        restart_tracker_at_last_frame(newPktno, offset);
    if (newPktno == NO_PKTNO) return false;
    if (pktno_sync != nullptr) *pktno_sync = newPktno;
    return true;
}

bool POS_seek(uint32_t pktno, MP3Offset_t *newOffset)
{
    for (PosList_t &list : pos.pl)
        PosList_syncPointReset(&list);

    PosList_t *const p_main = &pos.pl[POSLIST_IDX_MAIN];
    PosList_t *const p_falt = &pos.pl[POSLIST_IDX_FALT];
    PosList_t *const p_list = list_with(pktno);
    MP3Offset_t newOff = NO_OFFSET;
    bool exactSeek = false;
    if (p_list == nullptr) {
        if (p_main->numEntries != 0) PosList_extrapolate(p_main, pktno, &newOff);
        PosList_reset(p_falt, pktno, newOff);
    } else {
        exactSeek = PosList_seek(p_list, pktno, &newOff);
        if (p_list == p_main) {
            PosList_reset(p_falt, pktno, newOff);
            sync_at_nearer_of_main_and_fcur();
        }
    }
    if (newOffset != nullptr) *newOffset = newOff;
    return exactSeek;
}

void BRT_init()
{
    br = {};
    br.packetsizes = static_cast<uint16_t *>(calloc(BRT_ENTRIES, sizeof *br.packetsizes));
}

void BRT_destroy()
{
    free(br.packetsizes);
    br = {};
}

void BRT_reset(uint32_t pktno, MP3Offset_t offset)
{
    br.firstOffset = offset;
    br.firstPktno = pktno;
    br.numEntries = 0;
    br.firstIdx = 0;
    br.currSize = 0;
}

MP3Time_t BRT_update(uint32_t framesize)
{
    if (br.packetsizes == nullptr) return 0;
    uint16_t &entry = br.packetsizes[(br.firstIdx + br.numEntries) % BRT_ENTRIES];
    if (br.numEntries < BRT_ENTRIES) {
        br.numEntries += 1;
    } else {
        // In a full window the next entry's place is that of the oldest.
        br.firstIdx = (br.firstIdx + 1) % BRT_ENTRIES;
        br.firstPktno += 1;
        br.firstOffset += entry;
        br.currSize -= entry;
    }
    entry = static_cast<uint16_t>(framesize);
    br.currSize += framesize;
    return static_cast<MP3Time_t>(fixpt_to_int(BRT_currDur()));
}

bool BRT_timeWithin(uint32_t pktno)
{
    return pktno >= br.firstPktno && pktno - br.firstPktno < br.numEntries;
}

bool BRT_seek(uint32_t pktno, MP3Offset_t *newOffset)
{
    if (!BRT_timeWithin(pktno)) return false;
    const uint32_t idx = pktno - br.firstPktno;
    uint32_t remsize = br.currSize;
    for (uint32_t k = idx; k < br.numEntries; ++k)
        remsize -= br.packetsizes[(br.firstIdx + k) % BRT_ENTRIES];
    br.numEntries = idx;
    br.currSize = remsize;
    if (newOffset != nullptr) *newOffset = br.firstOffset + remsize;
    return true;
}

MP3FixPt_t BRT_aveBytesPerSec()
{
    const uint32_t divisor = MP3_pkts_duration_fixpt(br.numEntries);
    if (divisor == 0) return 0;
    // 12 of the 24 bits are the result's fraction, 12 make up for the divisor's.
    return (MP3FixPt_t{1000 * br.currSize} << 2 * FIXPT_BITS) / divisor;
}

MP3FixPt_t BRT_aveBytesPerPkt()
{
    if (br.numEntries == 0) return 0;
    return int_to_fixpt(br.currSize) / br.numEntries;
}

MP3FixPt_t BRT_currDur()
{
    return MP3_pkts_duration_fixpt(br.numEntries);
}

namespace {

bool PosList_init(PosList_t *pPosList, const char *name, uint32_t maxEntries, uint32_t interval)
{
    if (pPosList == nullptr) return false;
    *pPosList = {};
    PosList_syncPointReset(pPosList);
    pPosList->offsets = static_cast<MP3Offset_t *>(malloc(maxEntries * sizeof(MP3Offset_t)));
    if (pPosList->offsets == nullptr) return false;
    pPosList->maxEntries = static_cast<uint16_t>(maxEntries);
    pPosList->interval = interval;
    // The name is for debugging only: a list works without it.
    const size_t name_size = strlen(name) + 1;
    pPosList->name = static_cast<char *>(malloc(name_size));
    if (pPosList->name != nullptr) memcpy(pPosList->name, name, name_size);
    return true;
}

void PosList_destroy(PosList_t *pPosList)
{
    if (pPosList->offsets == nullptr) return;
    free(pPosList->name);
    free(pPosList->offsets);
    pPosList->name = nullptr;
    pPosList->offsets = nullptr;
    pPosList->numEntries = 0;
}

void PosList_reset(PosList_t *pPosList, uint32_t pktno, MP3Offset_t offset)
{
    pPosList->numEntries = 0;
    pPosList->firstIdx = 0;
    pPosList->currIdx = 0;
    pPosList->nextPktno = pktno;
    pPosList->firstPktno = pktno;
    pPosList->currPktno = pktno;
    pPosList->currOffset = offset;
    PosList_syncPointReset(pPosList);
}

// False when the packet lies outside the list's reach.
bool PosList_update(PosList_t *pPosList, uint32_t pktno, MP3Offset_t offset)
{
    if (pPosList == nullptr || pPosList->offsets == nullptr) return false;
    // An empty list takes any packet.
    if (pPosList->numEntries != 0) {
        if (pktno < pPosList->firstPktno) return false;
        if (pktno <= pPosList->currPktno) return true;
        if (pktno - pPosList->currPktno > 1) return false;
    }
    pPosList->currPktno = pktno;
    pPosList->currOffset = offset;
    if (pktno < pPosList->nextPktno) return true;
    if (pPosList->interval == 0 && pPosList->numEntries != 0) return true;
    PosList_push(pPosList, offset);
    pPosList->nextPktno += pPosList->interval;
    return true;
}

void PosList_push(PosList_t *pPosList, MP3Offset_t offset)
{
    const auto after = [pPosList](uint16_t idx) {
        return static_cast<uint16_t>((idx + 1) % pPosList->maxEntries);
    };
    pPosList->offsets[pPosList->currIdx] = offset;
    pPosList->currIdx = after(pPosList->currIdx);
    if (pPosList->numEntries < pPosList->maxEntries) {
        ++pPosList->numEntries;
        return;
    }
    pPosList->firstIdx = after(pPosList->firstIdx);
    pPosList->firstPktno += pPosList->interval;
}

bool PosList_timeWithin(PosList_t *pPosList, uint32_t pktno)
{
    return pPosList->offsets != nullptr && pPosList->numEntries != 0 &&
           pPosList->firstPktno <= pktno && pktno <= pPosList->currPktno;
}

// Looks up a packet within the list. True when it has an entry. Otherwise the offset is
// interpolated, and the known point after it becomes the list's sync point.
bool PosList_seek(PosList_t *pPosList, uint32_t pktno, MP3Offset_t *newOffset)
{
    if (pPosList == nullptr) return true;
    if (!PosList_timeWithin(pPosList, pktno)) return false;
    uint32_t foundIdx = 0;
    if (pPosList->interval != 0) foundIdx = (pktno - pPosList->firstPktno) / pPosList->interval;
    if (foundIdx > pPosList->numEntries) return false;

    // A list whose first report came from after its start spans more than its entries. Just after
    // the last one there is still the line from there to the list's end.
    const uint32_t lastIdx = pPosList->numEntries - 1u;
    if (foundIdx > lastIdx) foundIdx = lastIdx;
    const sample_t found = PosList_sample(pPosList, foundIdx);
    const sample_t next = foundIdx < lastIdx ? PosList_sample(pPosList, foundIdx + 1)
                                             : sample_t{pPosList->currPktno, pPosList->currOffset};

    const bool f_exact = pktno == found.pktno;
    if (newOffset != nullptr) *newOffset = f_exact ? found.offset : interpolate(found, next, pktno);
    if (!f_exact) PosList_syncPointUpdate(pPosList, next.pktno, next.offset);
    return f_exact;
}

sample_t PosList_sample(const PosList_t *pPosList, uint32_t k)
{
    return {pPosList->firstPktno + k * pPosList->interval,
            pPosList->offsets[(pPosList->firstIdx + k) % pPosList->maxEntries]};
}

// The straight line between two samples, rounded down. It starts at the lower one: after a landing
// that was misjudged, a list can end in a step back. Quotient and remainder are multiplied apart,
// which gives the quotient of the whole product, whatever its size.
MP3Offset_t interpolate(sample_t from, sample_t to, uint32_t pktno)
{
    assert(from.pktno < pktno && pktno <= to.pktno);
    const uint32_t whole = to.pktno - from.pktno;
    uint32_t part = pktno - from.pktno;
    if (to.offset < from.offset) {
        std::swap(from, to);
        part = whole - part;
    }
    const MP3Offset_t span = to.offset - from.offset;
    return from.offset + span / whole * part + span % whole * part / whole;
}

// Estimates by the recent average. The packet lies after the list's end; before its start only when
// even the coarse list has turned over, after a day and a half.
bool PosList_extrapolate(PosList_t *pPosList, uint32_t pktno, MP3Offset_t *newOffset)
{
    const MP3FixPt_t bytesPerPkt = BRT_aveBytesPerPkt();
    if (pktno >= pPosList->currPktno) {
        const uint32_t pktnoDiff = pktno - pPosList->currPktno;
        *newOffset = pPosList->currOffset + fixpt_to_int(pktnoDiff * bytesPerPkt);
    } else {
        const uint32_t pktnoDiff = pPosList->currPktno - pktno;
        const MP3Offset_t back = fixpt_to_int(pktnoDiff * bytesPerPkt);
        *newOffset = back < pPosList->currOffset ? pPosList->currOffset - back : 0;
    }
    return true;
}

uint32_t PosList_firstPktno(PosList_t *pPosList)
{
    return pPosList->firstPktno;
}

// The low 32 bits.
uint32_t PosList_firstOffset(PosList_t *pPosList)
{
    return static_cast<uint32_t>(pPosList->offsets[pPosList->firstIdx]);
}

bool PosList_syncPoint(PosList_t *pPosList, uint32_t, MP3Offset_t offset, uint32_t *pktno_sync)
{
    // The packet number says whether a point is armed: in a file of more than 4 GiB a frame can
    // start at NO_OFFSET.
    if (pPosList->syncPktno == NO_PKTNO || offset != pPosList->syncOffset) return false;
    *pktno_sync = pPosList->syncPktno;
    PosList_syncPointReset(pPosList);
    return true;
}

void PosList_syncPointReset(PosList_t *pPosList)
{
    PosList_syncPointUpdate(pPosList, NO_PKTNO, NO_OFFSET);
}

void PosList_syncPointRead(PosList_t *pPosList, uint32_t *p_pktno, MP3Offset_t *p_offset)
{
    *p_pktno = pPosList->syncPktno;
    *p_offset = pPosList->syncOffset;
}

void PosList_syncPointUpdate(PosList_t *pPosList, uint32_t pktno, MP3Offset_t offset)
{
    pPosList->syncPktno = pktno;
    pPosList->syncOffset = offset;
}

// The list that knows most about the packet; null when none holds it.
PosList_t *list_with(uint32_t pktno)
{
    for (PosList_t &list : pos.pl) {
        if (PosList_timeWithin(&list, pktno)) return &list;
    }
    return nullptr;
}

// After a landing that only the coarse list knows: where the span that the fine list still has
// begins sooner than the coarse list's next entry comes, the reader is put right there.
void sync_at_nearer_of_main_and_fcur()
{
    PosList_t *const p_main = &pos.pl[POSLIST_IDX_MAIN];
    PosList_t *const p_fcur = &pos.pl[POSLIST_IDX_FCUR];
    if (p_fcur->numEntries == 0) return;
    uint32_t main_syncPktno = 0;
    MP3Offset_t main_syncOffset = 0;
    PosList_syncPointRead(p_main, &main_syncPktno, &main_syncOffset);
    const MP3Offset_t fcur_firstOffset = PosList_firstOffset(p_fcur);
    if (main_syncOffset > fcur_firstOffset)
        PosList_syncPointUpdate(p_main, PosList_firstPktno(p_fcur), fcur_firstOffset);
}

// The frame at offset has just been counted into the old window; it becomes the first of the new
// one, so that the window's offsets stay true.
void restart_tracker_at_last_frame(uint32_t pktno, MP3Offset_t offset)
{
    if (br.numEntries == 0) {
        BRT_reset(pktno, offset);
        return;
    }
    const uint32_t framesize = br.packetsizes[(br.firstIdx + br.numEntries - 1) % BRT_ENTRIES];
    BRT_reset(pktno, offset);
    BRT_update(framesize);
}

}  // namespace

#include "dmx_m2ts.h"

#include "golt_endian.h"
#include "golt_mem.h"

namespace {

constexpr uint8_t SYNC_BYTE = 0x47;
constexpr uint32_t STAMP_SIZE = 4;     // bytes before each packet
constexpr uint32_t PACKET_SIZE = 188;  // bytes
constexpr uint32_t RECORD_SIZE = STAMP_SIZE + PACKET_SIZE;

struct GOLT_DMX_context_t {
    tpf_read pf_read;
    tpf_seek pf_seek;
    void *pv_handle;
};

GOLT_DMX_context_t m2tsctx;
bool g_is_dmx_m2ts_init = false;

bool find_first_sync(int64_t *pi8_pos);
bool is_sync_at(int64_t i8_pos);

bool read_all(uint8_t *pb_data, uint32_t ui4_size)
{
    return m2tsctx.pf_read(m2tsctx.pv_handle, pb_data, ui4_size) == ui4_size;
}

bool seek_to(int64_t i8_pos)
{
    return m2tsctx.pf_seek(m2tsctx.pv_handle, i8_pos) != -1;
}

bool attach(tpf_read pf_read, tpf_seek pf_seek, void *pv_handle)
{
    m2tsctx = {pf_read, pf_seek, pv_handle};
    int64_t i8_pos = 0;
    if (!find_first_sync(&i8_pos)) return false;
    // The first sync byte is the only candidate.
    if (!is_sync_at(i8_pos + RECORD_SIZE) || !is_sync_at(i8_pos + 2 * RECORD_SIZE)) return false;
    return seek_to(i8_pos - STAMP_SIZE);
}

}  // namespace

GOLT_EXPORT bool GOLT_DMX_M2TSInit(tpf_read pf_read, tpf_seek pf_seek, void *pv_handle)
{
    GOLT_DMX_M2TSDestroy();
    g_is_dmx_m2ts_init = attach(pf_read, pf_seek, pv_handle);
    if (!g_is_dmx_m2ts_init) GOLT_DMX_M2TSDestroy();
    return g_is_dmx_m2ts_init;
}

GOLT_EXPORT bool GOLT_DMX_M2TSDestroy()
{
    m2tsctx = {};
    g_is_dmx_m2ts_init = false;
    return true;
}

GOLT_EXPORT bool GOLT_DMX_M2TSReadFrame(GOLT_frame_t *pt_frame)
{
    if (!g_is_dmx_m2ts_init) return false;

    // Each frame has a block of its own, so that it lives until the host destroys it, like any
    // other frame. The pool has a small block ready as long as the host holds only a few frames.
    // It is taken first: without memory nothing is read, and the record comes with the next call.
    uint8_t *pb_packet = GOLT_allocMem(PACKET_SIZE);
    if (pb_packet == nullptr) return false;

    // A record that is cut short inside its stamp fails below, where its packet is missing.
    uint8_t ab_stamp[STAMP_SIZE] = {};
    m2tsctx.pf_read(m2tsctx.pv_handle, ab_stamp, STAMP_SIZE);
    pt_frame->ui8_timestamp = get_be32(ab_stamp);
    if (!read_all(pb_packet, PACKET_SIZE) || pb_packet[0] != SYNC_BYTE) {
        GOLT_freeMem(pb_packet);
        return false;
    }
    pt_frame->pb_data = pb_packet;
    pt_frame->ui4_size = PACKET_SIZE;
    pt_frame->ui4_frametype = GOLT_FT_MPEG2TS;
    return true;
}

GOLT_EXPORT bool GOLT_DMX_M2TSSeekToBytes(int64_t)
{
    return true;
}

GOLT_EXPORT bool GOLT_DMX_M2TSSeekToTime(uint64_t)
{
    return true;
}

GOLT_EXPORT bool GOLT_DMX_M2TSGetStreamInfo(GOLT_streamInfo_t *)
{
    return true;
}

namespace {

// Ends at the source's end at the latest. *pi8_pos: number of bytes before the sync byte.
bool find_first_sync(int64_t *pi8_pos)
{
    uint8_t ui1_byte = 0;
    for (*pi8_pos = 0; read_all(&ui1_byte, 1); ++*pi8_pos) {
        if (ui1_byte == SYNC_BYTE) return true;
    }
    return false;
}

bool is_sync_at(int64_t i8_pos)
{
    uint8_t ui1_byte = 0;
    return seek_to(i8_pos) && read_all(&ui1_byte, 1) && ui1_byte == SYNC_BYTE;
}

}  // namespace

// Private to the MP3 demuxer: its scalar types and the fixed-point arithmetic of its packet clock.
//
// An MP3 file carries no times. The demuxer counts packets, one packet being one MPEG audio frame,
// and a time is a packet number times the duration of a packet, kept in milliseconds with 12
// fraction bits, so that no rounding error builds up over a long file.

#ifndef GOLT_DMX_MP3_I_H
#define GOLT_DMX_MP3_I_H

#include <cstdint>
#include <cstdio>

typedef uint64_t MP3Offset_t;  ///< bytes from the start of the file
typedef uint32_t MP3Time_t;    ///< milliseconds
typedef uint64_t MP3FixPt_t;   ///< value * 4096

constexpr unsigned FIXPT_BITS = 12;

/// Duration of a packet in milliseconds, of the header parsed last; 0 before the first one. It
/// outlives the demuxer.
inline MP3FixPt_t g_pkttime_fixpt = 0;

/// Text of fixpt_str.
inline char g_fixpt_text[32];

inline MP3FixPt_t int_to_fixpt(uint64_t val)
{
    return val << FIXPT_BITS;
}

/// Rounded to the nearest, halves upward.
inline uint64_t fixpt_to_int(MP3FixPt_t val_fixpt)
{
    return (val_fixpt >> FIXPT_BITS) + (val_fixpt >> (FIXPT_BITS - 1) & 1);
}

/// For diagnostics: the value with three decimals, valid until the next call.
inline const char *fixpt_str(MP3FixPt_t val_fixpt)
{
    const MP3FixPt_t fraction = val_fixpt & (int_to_fixpt(1) - 1);
    snprintf(g_fixpt_text, sizeof g_fixpt_text, "%d.%03ld",
             static_cast<int>(val_fixpt >> FIXPT_BITS),
             static_cast<long>(fraction * 1000 >> FIXPT_BITS));
    return g_fixpt_text;
}

/// Milliseconds with 12 fraction bits; 32 bits are enough for some 29000 packets.
inline uint32_t MP3_pkts_duration_fixpt(uint32_t numPackets)
{
    return static_cast<uint32_t>(numPackets * g_pkttime_fixpt);
}

/// The packet that plays at msec; one that starts within that millisecond counts as reached. 0
/// while the duration of a packet isn't known.
inline uint32_t MP3_msec_to_pktno(MP3Time_t msec)
{
    if (g_pkttime_fixpt == 0) return 0;
    return static_cast<uint32_t>((int_to_fixpt(msec) + 0xFFF) / g_pkttime_fixpt);
}

#endif

/* All that the shared object exports, as it was promised to hosts, repeated here: for the program in C
   that calls it, and for the unit tests, where another declaration in a public header would be an error. */

#ifndef GOLT_TEST_SURFACE_H
#define GOLT_TEST_SURFACE_H

#ifdef __cplusplus
#define EXPORT extern "C"
using PELA::IRemuxerDriver;
#else
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#define EXPORT extern

typedef struct RemuxerDriver *IRemuxerDriver;

enum { GOLT_FT_VIDEO, GOLT_FT_AUDIO, GOLT_FT_MPEG2TS };

enum {
    GOLT_CODEC_NONE = 1,
    GOLT_ACODEC_MP3 = 101,
    GOLT_ACODEC_AAC = 102,
    GOLT_VCODEC_H264 = 112,
};

typedef struct {
    uint64_t ui8_timestamp;
    uint32_t ui4_frametype;
    uint8_t *pb_data;
    uint32_t ui4_size;
} GOLT_frame_t;

typedef struct {
    int audioCodec;
    int videoCodec;
    uint32_t duration;
    uint32_t aud_numChannels;
    uint32_t aud_sampleRate;
    int vid_arInfo;
    uint32_t vid_width;
    uint32_t vid_height;
    uint32_t vid_pixelAspectNumerator;
    uint32_t vid_pixelAspectDenominator;
    uint32_t vid_framesPerKiloSeconds;
    int vid_dimensionality;
} GOLT_streamInfo_t;

typedef struct {
    uint32_t audioPid;
    uint32_t videoPid;
} GOLT_remuxInfo_t;

typedef uint32_t (*tpf_read)(void *, uint8_t *, uint32_t);
typedef int32_t (*tpf_seek)(void *, int64_t);
typedef uint32_t (*tpf_write)(void *, uint8_t *, uint32_t);
#endif

EXPORT IRemuxerDriver GOLT_CreateRemuxerDriver(void);
EXPORT void GOLT_DestroyRemuxerDriver(void);
EXPORT const char *GOLT_version(void);

EXPORT void GOLT_memInit(void);
EXPORT void GOLT_memClose(void);
EXPORT uint8_t *GOLT_allocMem(uint32_t);
EXPORT void GOLT_freeMem(uint8_t *);

#define DEMUXER(NAME)                                                                              \
    EXPORT bool GOLT_DMX_##NAME##Init(tpf_read, tpf_seek, void *);                                 \
    EXPORT bool GOLT_DMX_##NAME##Destroy(void);                                                    \
    EXPORT bool GOLT_DMX_##NAME##ReadFrame(GOLT_frame_t *);                                        \
    EXPORT bool GOLT_DMX_##NAME##SeekToBytes(int64_t);                                             \
    EXPORT bool GOLT_DMX_##NAME##SeekToTime(uint64_t);                                             \
    EXPORT bool GOLT_DMX_##NAME##GetStreamInfo(GOLT_streamInfo_t *);
DEMUXER(M2TS)
DEMUXER(MP3)
DEMUXER(MP4)
DEMUXER(MKV)

EXPORT bool GOLT_RMX_init(tpf_write, void *, bool);
EXPORT bool GOLT_RMX_setStreamInfo(GOLT_streamInfo_t *);
EXPORT bool GOLT_RMX_destroy(void);
EXPORT bool GOLT_RMX_getPTS(GOLT_frame_t *, uint32_t *);
EXPORT bool GOLT_RMX_writeHeader(void);
EXPORT bool GOLT_RMX_writeTrailer(void);
EXPORT bool GOLT_RMX_convertFrame(GOLT_frame_t *, bool);
EXPORT bool GOLT_RMX_getRemuxInfo(GOLT_remuxInfo_t *);
EXPORT bool GOLT_RMX_writeFrame(GOLT_frame_t *);

#define EXTRACTOR(NAME)                                                                            \
    EXPORT bool GOLT_EXT_##NAME##Start(uint8_t *, uint32_t);                                       \
    EXPORT bool GOLT_EXT_##NAME##Reset(void);                                                      \
    EXPORT bool GOLT_EXT_##NAME##ReadSingleFrame(GOLT_frame_t *);
EXTRACTOR(AAC)
EXTRACTOR(DD)
EXTRACTOR(H264)
EXTRACTOR(MP3)

#endif

/* A host in C: calls every export by its name and compares what comes with what was worked out by hand. */

#include "surface.h"

#include <stdio.h>
#include <string.h>

const uint8_t *surface_file(char kind, size_t *size);

static int g_failures = 0;

#define EXPECT(claim)                                                                              \
    do {                                                                                           \
        if (claim) break;                                                                          \
        ++g_failures;                                                                              \
        fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #claim);                        \
    } while (0)

static struct {
    const uint8_t *bytes;
    size_t size;
    size_t at;
} g_source;

static uint32_t read_source(void *handle, uint8_t *to, uint32_t size)
{
    const size_t left = g_source.size - g_source.at;
    const size_t count = size < left ? size : left;
    EXPECT(handle == &g_source);
    memcpy(to, g_source.bytes + g_source.at, count);
    g_source.at += count;
    return (uint32_t)count;
}

static int32_t seek_source(void *handle, int64_t offset)
{
    EXPECT(handle == &g_source);
    if (offset < 0 || (uint64_t)offset > g_source.size) return -1;
    g_source.at = (size_t)offset;
    return 0;
}

static struct {
    uint8_t bytes[1024];
    size_t size;
} g_sink;

static uint32_t write_sink(void *handle, uint8_t *from, uint32_t size)
{
    EXPECT(handle == &g_sink && g_sink.size + size <= sizeof g_sink.bytes);
    memcpy(g_sink.bytes + g_sink.size, from, size);
    g_sink.size += size;
    return size;
}

typedef struct {
    char kind;
    bool (*init)(tpf_read, tpf_seek, void *);
    bool (*destroy)(void);
    bool (*read_frame)(GOLT_frame_t *);
    bool (*seek_to_bytes)(int64_t);
    bool (*seek_to_time)(uint64_t);
    bool (*get_stream_info)(GOLT_streamInfo_t *);
    bool f_seeks_bytes; /* what a seek reports */
    GOLT_streamInfo_t info;
    struct {
        uint64_t time;
        uint32_t type, size;
        uint8_t last; /* of its bytes */
    } frames[5];
} demuxer_t;

#define FUNCTIONS(NAME)                                                                            \
    GOLT_DMX_##NAME##Init, GOLT_DMX_##NAME##Destroy, GOLT_DMX_##NAME##ReadFrame,                   \
        GOLT_DMX_##NAME##SeekToBytes, GOLT_DMX_##NAME##SeekToTime, GOLT_DMX_##NAME##GetStreamInfo

static const demuxer_t demuxers[] = {
    {'t',
     FUNCTIONS(M2TS),
     true,
     {0},
     {{0xC0001000, GOLT_FT_MPEG2TS, 188, 0x55},
      {0xC0001001, GOLT_FT_MPEG2TS, 188, 0x55},
      {0xC0001002, GOLT_FT_MPEG2TS, 188, 0x55}}},
    {'3',
     FUNCTIONS(MP3),
     false,
     {GOLT_ACODEC_MP3, GOLT_CODEC_NONE, 0, 2, 44100, 0, 0, 0, 0, 0, 0, 0},
     {{0, GOLT_FT_AUDIO, 417, 1}, {26, GOLT_FT_AUDIO, 417, 2}, {52, GOLT_FT_AUDIO, 417, 3}}},
    {'4',
     FUNCTIONS(MP4),
     true,
     {GOLT_ACODEC_AAC, GOLT_VCODEC_H264, 1000, 2, 48000, 0, 320, 240, 1, 1, 2000, 0},
     {{0, GOLT_FT_VIDEO, 21, 2},
      {0, GOLT_FT_AUDIO, 20, 0},
      {21, GOLT_FT_AUDIO, 30, 0},
      {500, GOLT_FT_VIDEO, 6, 3}}},
    {'k',
     FUNCTIONS(MKV),
     true,
     {GOLT_ACODEC_AAC, GOLT_VCODEC_H264, 0, 1, 8000, 0, 0, 0, 0, 0, 0, 0},
     {{0, GOLT_FT_VIDEO, 5, 0x65}, {0, GOLT_FT_AUDIO, 2, 2}, {40, GOLT_FT_VIDEO, 6, 0x41}}},
};

static void check_demuxer(const demuxer_t *demuxer)
{
    GOLT_streamInfo_t info;
    size_t number = 0;
    memset(&info, 0, sizeof info);
    g_source.bytes = surface_file(demuxer->kind, &g_source.size);
    g_source.at = 0;
    EXPECT(demuxer->init(read_source, seek_source, &g_source));
    EXPECT(demuxer->get_stream_info(&info));
    EXPECT(memcmp(&info, &demuxer->info, sizeof info) == 0);
    EXPECT(demuxer->seek_to_bytes(5) == demuxer->f_seeks_bytes);
    for (;; ++number) {
        GOLT_frame_t frame = {0, 99, NULL, 0};
        if (!demuxer->read_frame(&frame)) break;
        EXPECT(frame.ui8_timestamp == demuxer->frames[number].time);
        EXPECT(frame.ui4_frametype == demuxer->frames[number].type);
        EXPECT(frame.ui4_size == demuxer->frames[number].size);
        EXPECT(frame.pb_data[frame.ui4_size - 1] == demuxer->frames[number].last);
        GOLT_freeMem(frame.pb_data);
    }
    EXPECT(demuxer->frames[number].size == 0);
    EXPECT(demuxer->seek_to_time(0));
    EXPECT(demuxer->destroy());
}

/* At 1000 ms, 90000 ticks. */
static void check_remuxer(void)
{
    static const uint8_t pat[] = {0x47, 0x40, 0x00, 0x10, 0x00, 0x00, 0xB0, 0x0D, 0x00, 0x01, 0xC1,
                                  0x00, 0x00, 0x00, 0x01, 0xEF, 0xFF, 0x36, 0x90, 0xE2, 0x3D, 0xFF};
    static const uint8_t pmt[] = {0x47, 0x4F, 0xFF, 0x10, 0x00, 0x02, 0xB0, 0x12, 0x00,
                                  0x01, 0xC1, 0x00, 0x00, 0xE1, 0x01, 0xF0, 0x00, 0x03,
                                  0xE1, 0x01, 0xF0, 0x00, 0x8D, 0xFF, 0x34, 0x11, 0xFF};
    static const uint8_t head[] = {0x47, 0x41, 0x01, 0x30, 0x45, 0x10, 0x00,
                                   0x00, 0xAF, 0xC8, 0x7E, 0x00, 0xFF};
    static const uint8_t pes[] = {0x00, 0x00, 0x01, 0xC0, 0x00, 0x6C, 0x80,
                                  0x80, 0x05, 0x21, 0x00, 0x05, 0xBF, 0x21};
    GOLT_streamInfo_t info = demuxers[1].info;
    GOLT_remuxInfo_t pids = {0, 0};
    uint8_t bytes[100];
    GOLT_frame_t frame = {1000, GOLT_FT_AUDIO, NULL, sizeof bytes};
    uint32_t pts = 0;
    memset(bytes, 0x33, sizeof bytes);
    frame.pb_data = bytes;
    EXPECT(GOLT_RMX_init(write_sink, &g_sink, true));
    EXPECT(GOLT_RMX_setStreamInfo(&info));
    EXPECT(GOLT_RMX_getRemuxInfo(&pids) && pids.audioPid == 0x101 && pids.videoPid == 0x100);
    EXPECT(GOLT_RMX_getPTS(&frame, &pts) && pts == 90000);
    EXPECT(GOLT_RMX_writeHeader() && GOLT_RMX_convertFrame(&frame, true) && g_sink.size == 0);
    EXPECT(GOLT_RMX_writeFrame(&frame));
    EXPECT(GOLT_RMX_writeTrailer() && g_sink.size == 3 * 188);
    EXPECT(memcmp(g_sink.bytes, pat, sizeof pat) == 0);
    EXPECT(memcmp(g_sink.bytes + 188, pmt, sizeof pmt) == 0);
    EXPECT(memcmp(g_sink.bytes + 376, head, sizeof head) == 0);
    EXPECT(memcmp(g_sink.bytes + 450, pes, sizeof pes) == 0);
    EXPECT(memcmp(g_sink.bytes + 464, bytes, sizeof bytes) == 0);
    EXPECT(GOLT_RMX_destroy());
}

static void check_extractors(void)
{
    uint8_t byte = 7;
    GOLT_frame_t frame = {1, 2, NULL, 1};
    frame.pb_data = &byte;
    EXPECT(GOLT_EXT_AACStart(&byte, 1) && GOLT_EXT_AACReadSingleFrame(&frame));
    EXPECT(GOLT_EXT_DDStart(&byte, 1) && GOLT_EXT_DDReadSingleFrame(&frame));
    EXPECT(GOLT_EXT_H264Start(&byte, 1) && GOLT_EXT_H264ReadSingleFrame(&frame));
    EXPECT(GOLT_EXT_MP3Start(&byte, 1) && GOLT_EXT_MP3ReadSingleFrame(&frame));
    EXPECT(GOLT_EXT_AACReset() && GOLT_EXT_DDReset() && GOLT_EXT_H264Reset() &&
           GOLT_EXT_MP3Reset());
    EXPECT(frame.ui8_timestamp == 1 && frame.ui4_frametype == 2 && frame.pb_data == &byte);
    EXPECT(frame.ui4_size == 1 && byte == 7);
}

/* The smallest block that fits, and after the four small ones a larger one. */
static void check_pool(void)
{
    uint8_t *blocks[6];
    int i;
    GOLT_memInit();
    for (i = 0; i < 5; ++i)
        blocks[i] = GOLT_allocMem(24);
    GOLT_freeMem(blocks[4]);
    EXPECT(GOLT_allocMem(0x14000) == blocks[4]);
    GOLT_freeMem(blocks[2]);
    EXPECT(GOLT_allocMem(0x400) == blocks[2]);
    GOLT_memClose();
    blocks[5] = GOLT_allocMem(1);
    EXPECT(blocks[5] != NULL);
    GOLT_freeMem(blocks[5]);
}

/* The driver is an object of C++, whose first word leads to the table of its functions. */
static void check_driver(void)
{
    typedef void (*slot_t)(void);
    IRemuxerDriver driver = GOLT_CreateRemuxerDriver();
    const slot_t *slots = *(slot_t **)driver;
    GOLT_frame_t *frame = ((GOLT_frame_t * (*)(IRemuxerDriver)) slots[0])(driver);
    EXPECT(frame->pb_data == NULL && frame->ui4_size == 0);
    ((void (*)(IRemuxerDriver, GOLT_frame_t *))slots[1])(driver, frame);
    EXPECT(((void *(*)(IRemuxerDriver, const char *, void *, int64_t))slots[2])(driver, "MKV",
                                                                                driver, 0) == NULL);
    GOLT_DestroyRemuxerDriver();
    EXPECT(strcmp(GOLT_version(), "Halvern GOLT lib v0.8") == 0);
}

int main(void)
{
    size_t i;
    EXPECT(offsetof(GOLT_frame_t, ui4_size) == (sizeof(void *) == 8 ? 24 : 16));
    EXPECT(sizeof(GOLT_streamInfo_t) == 48);
    for (i = 0; i < sizeof demuxers / sizeof demuxers[0]; ++i)
        check_demuxer(&demuxers[i]);
    check_remuxer();
    check_extractors();
    check_pool();
    check_driver();
    return g_failures == 0 ? 0 : 1;
}

// The vocabulary that every module shares: the frame that travels from a demuxer to the remuxer,
// the description of a source, the codec numbers and the callbacks through which modules read, seek
// and write.
//
// Times are milliseconds throughout; only the transport stream counts in ticks of 90 kHz.

#ifndef GOLT_COMMON_H
#define GOLT_COMMON_H

#include <cstdint>

/// Marks a function that the shared object exports, with C linkage. Everything else stays hidden.
#define GOLT_EXPORT extern "C" __attribute__((visibility("default")))

enum GOLT_frametypes_t : uint32_t {
    GOLT_FT_VIDEO = 0,    ///< one video access unit
    GOLT_FT_AUDIO = 1,    ///< one audio frame
    GOLT_FT_MPEG2TS = 2,  ///< ready-made transport packets, which the remuxer passes on unchanged
    GOLT_FT_MAX = 3       ///< count of kinds; no frame bears it
};

/// Audio and video codecs in one numbering. The gaps belong to it: tables index by the distance
/// from GOLT_ACODEC_start and GOLT_VCODEC_start.
enum GOLT_codecs_t : int {
    GOLT_CODEC_UNKNOWN = 0,  ///< no such stream was found, or its codec is none of these
    GOLT_CODEC_NONE = 1,     ///< the format has no such stream at all
    GOLT_CODEC_M2TS = 2,     ///< transport stream content

    GOLT_ACODEC_start = 100,
    GOLT_ACODEC_MP3 = 101,
    GOLT_ACODEC_AAC = 102,
    GOLT_ACODEC_AC3 = 103,
    GOLT_ACODEC_EAC3 = 104,
    GOLT_ACODEC_max = 105,

    GOLT_VCODEC_start = 110,
    GOLT_VCODEC_MPEG2 = 111,
    GOLT_VCODEC_H264 = 112,
    GOLT_VCODEC_max = 113,

    GOLT_CODEC_max = 114
};

/// How the picture's aspect ratio is to be read. Same numbers as
/// PELA::MediaBuffer::AspectRatioInfo.
enum GOLT_info_AR_t {
    GOLT_AR_ENCODED = 0,
    GOLT_AR_WIDE_WITH_BLACK_BARS = 1,
    GOLT_AR_NORMAL_WITH_BLACK_BARS = 2,
    GOLT_AR_max = 3
};

/// Dimensionality of the picture. Same numbers as PELA::MediaBuffer::Dimensionality.
enum GOLT_info_dim_t {
    GOLT_DIM_2D = 0,
    GOLT_DIM_3D_LEFT_RIGHT = 1,
    GOLT_DIM_3D_TOP_BOTTOM = 2,
    GOLT_DIM_3D_BOTTOM_TOP = 3,
    GOLT_DIM_3D_LEFT_THEN_RIGHT = 4,
    GOLT_DIM_3D_RIGHT_THEN_LEFT = 5,
    GOLT_DIM_max = 6
};

/// One piece of media.
///
/// A demuxer's ReadFrame fills the record; the block at pb_data comes from GOLT_allocMem and
/// belongs to the frame until the driver's destroyFrame. A record is filled once. The remuxer only
/// reads it.
struct GOLT_frame_t {
    /// Presentation time in milliseconds. In a GOLT_FT_MPEG2TS frame: the 32-bit stamp of the
    /// source packet as it is, in no particular unit.
    uint64_t ui8_timestamp;
    uint32_t ui4_frametype;  ///< one of GOLT_frametypes_t
    uint8_t *pb_data;        ///< the bytes; null as long as the frame is empty
    uint32_t ui4_size;  ///< valid bytes at pb_data; 0 is a legal frame for which nothing is written
};

/// Description of one source. A field that a demuxer doesn't know keeps what the caller put there.
struct GOLT_streamInfo_t {
    GOLT_codecs_t audioCodec;             ///< of the one audio stream
    GOLT_codecs_t videoCodec;             ///< of the one video stream
    uint32_t duration;                    ///< milliseconds, 0 where unknown
    uint32_t aud_numChannels;             ///< as the container states
    uint32_t aud_sampleRate;              ///< hertz
    GOLT_info_AR_t vid_arInfo;            ///< GOLT_AR_ENCODED
    uint32_t vid_width;                   ///< pixels
    uint32_t vid_height;                  ///< pixels
    uint32_t vid_pixelAspectNumerator;    ///< width of a pixel, in its smallest whole numbers
    uint32_t vid_pixelAspectDenominator;  ///< height of a pixel; both 0 where unknown
    uint32_t vid_framesPerKiloSeconds;    ///< frames in 1000 seconds
    GOLT_info_dim_t vid_dimensionality;   ///< GOLT_DIM_2D
};

/// Places up to ui4_size bytes at pb_data, from the current position onward, and returns their
/// number. A short count is legal; 0 means that nothing could be read.
typedef uint32_t (*tpf_read)(void *pv_handle, uint8_t *pb_data, uint32_t ui4_size);

/// Sets the position of the next read to i8_offset bytes from the start of the file. Returns 0, or
/// -1 if that isn't possible.
typedef int32_t (*tpf_seek)(void *pv_handle, int64_t i8_offset);

/// Takes ui4_size bytes, to be consumed or copied within the call. The result is ignored.
typedef uint32_t (*tpf_write)(void *pv_handle, uint8_t *pb_data, uint32_t ui4_size);

#endif

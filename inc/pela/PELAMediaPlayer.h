// The host player's media interfaces. The library needs only MediaBuffer::ContentInfo and its two
// enumerations; the host implements MediaBuffer and BufferStream, and the library never calls them.

#ifndef PELA_MEDIA_PLAYER_H
#define PELA_MEDIA_PLAYER_H

#include <cstddef>
#include <cstdint>

#include "PELAStatus.h"
#include "PELATypes.h"

namespace PELA {

/// A byte stream of the host.
class BufferStream {
public:
    /// Moves by offset from whence (0 start, 1 position, 2 end); the new position or -1.
    virtual int64_t seek(int64_t offset, int whence) = 0;
    /// Reads up to size bytes to buffer; their number, 0 at the end, negative on failure.
    virtual int read(uint8_t *buffer, int size) = 0;
    /// Position in bytes from the start, or -1.
    virtual int64_t tell() = 0;
    /// Stores the first position and the one after the last that can be read now.
    virtual bool bounds(int64_t *first, int64_t *end) = 0;
    virtual ~BufferStream() {}
};

/// A medium that the host has opened.
class MediaBuffer {
public:
    /// How the picture's aspect ratio is to be read.
    enum AspectRatioInfo {
        ASPECT_INFO_ENCODED = 0,
        ASPECT_WIDE_WITH_BLACK_BARS = 1,
        ASPECT_NORMAL_WITH_BLACK_BARS = 2
    };

    /// Whether, and how, two views lie in one picture.
    enum Dimensionality {
        DIM_2D = 0,
        DIM_3D_LEFT_RIGHT = 1,
        DIM_3D_TOP_BOTTOM = 2,
        DIM_3D_BOTTOM_TOP = 3,
        DIM_3D_LEFT_THEN_RIGHT = 4,
        DIM_3D_RIGHT_THEN_LEFT = 5
    };

    /// Description of a stream, in the host's vocabulary.
    struct ContentInfo {
        Containers containerType;         ///< of the output
        AudioCodecs audioCodec;           ///< unknown also where there is no audio
        uint32_t audioPid;                ///< of the audio stream in a transport stream
        VideoCodecs videoCodec;           ///< unknown also where there is no video
        uint32_t videoPid;                ///< of the video stream in a transport stream
        AspectRatioInfo arInfo;           ///< what the aspect ratio follows from
        uint32_t duration;                ///< milliseconds
        uint32_t width;                   ///< pixels
        uint32_t height;                  ///< pixels
        uint32_t pixelAspectNumerator;    ///< width of a pixel
        uint32_t pixelAspectDenominator;  ///< height of a pixel; both 0 where unknown
        uint32_t numNavTableEntries;      ///< entries in each of the two tables
        uint64_t *offsetTable;            ///< bytes
        uint32_t *ptsTable;               ///< ticks of 90 kHz
        bool isEncryped;                  ///< whether keys are needed
        uint32_t pingPeriod;              ///< the host's own
        uint32_t pingPeriodFast;          ///< the host's own
        uint32_t numAudioChannels;        ///< as the source states
        uint32_t audioSampleRate;         ///< hertz
        uint32_t framesPerKiloSeconds;    ///< frames in 1000 seconds
        Dimensionality dimensionality;    ///< views in the picture
    };

    /// How far a medium has come.
    struct BufferInfo {
        uint64_t length;            ///< bytes
        uint64_t bytesLeft;         ///< bytes still to come
        bool completelyDownloaded;  ///< nothing more will come
    };

    /// Describes the medium.
    virtual Status GetContentInfo(ContentInfo *info) = 0;
    /// Reports how much of it is there.
    virtual Status GetBufferInfo(BufferInfo *info) = 0;
    /// Opens its bytes.
    virtual Status OpenMediaStream(IBufferStream *stream) = 0;
    /// Closes what OpenMediaStream has opened.
    virtual Status CloseMediaStream(IBufferStream stream) = 0;
    /// Opens its navigation tables.
    virtual Status OpenNavigationStream(IBufferStream *stream) = 0;
    /// Closes what OpenNavigationStream has opened.
    virtual Status CloseNavigationStream(IBufferStream stream) = 0;
    virtual ~MediaBuffer() {}
};

// Hosts are compiled elsewhere: the places of the fields never change. All of them have 32 bits but
// the two pointers and the flag after these.
static_assert(offsetof(MediaBuffer::ContentInfo, videoPid) == 16, "binary interface");
static_assert(offsetof(MediaBuffer::ContentInfo, numNavTableEntries) == 44, "binary interface");
static_assert(offsetof(MediaBuffer::ContentInfo, offsetTable) == 48, "binary interface");
static_assert(offsetof(MediaBuffer::ContentInfo, isEncryped) == 48 + 2 * sizeof(void *),
              "binary interface");
static_assert(offsetof(MediaBuffer::ContentInfo, pingPeriod) == 52 + 2 * sizeof(void *),
              "binary interface");
static_assert(sizeof(MediaBuffer::ContentInfo) == (sizeof(void *) == 8 ? 96 : 84),
              "binary interface");

}  // namespace PELA

#endif

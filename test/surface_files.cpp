// The sources of the program in C.

#include "mkv_builder.h"
#include "mp3_builder.h"
#include "mp4_builder.h"

namespace {

Bytes m2ts_file()
{
    Bytes file;
    for (uint32_t i = 0; i < 3; ++i)
        file += be32(0xC0001000 + i) + Bytes{0x47} + Bytes(187, 0x55);
    return file;
}

Bytes mp4_file()
{
    Mp4Track video = Mp4Track::video(), audio = Mp4Track::audio();
    video.delta = 500;
    video.sample(nal({0x65, 1, 2})).sample(nal({0x41, 3}));
    audio.sample(Bytes(20)).sample(Bytes(30));
    return Mp4File().add(video).add(audio).build();
}

}  // namespace

/// A file of the kind 't', '3', '4' or 'k', which stays until the next call.
extern "C" const uint8_t *surface_file(char kind, size_t *size);

const uint8_t *surface_file(char kind, size_t *size)
{
    static Bytes file;
    file = kind == 't'   ? m2ts_file()
           : kind == '3' ? Mp3().frames(3).file
           : kind == '4' ? mp4_file()
                         : MkvFile("t1['V_MPEG4/ISO/AVC'] t2['A_AAC'] k "
                                   "C0 v0(65) l02.00.0102 C40 v0(6541)")
                               .build();
    *size = file.size();
    return file.data();
}

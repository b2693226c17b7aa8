"""Input files for the benches: real ones made by ffmpeg and mkvmerge, and large ones that are laid out here."""

import array
import os
import struct
import subprocess
import sys


def run(*command):
    subprocess.run(command, check=True, stdin=subprocess.DEVNULL)


def ffmpeg(*arguments):
    run("ffmpeg", "-v", "error", "-nostdin", "-y", *arguments)


# Real files

# Name, seconds encoded, picture, filter after it, kbit/s of video, of AAC.
FILMS = (
    ("high", 16, "1280x720", "noise=alls=30:allf=t", 16000, 128),
    ("low", 60, "320x240", "null", 250, 64),
)
# Name, seconds encoded, kbit/s.
SONGS = (("high", 300, 320), ("low", 600, 64))

FORMATS = ("mp4", "mkv", "mkvmerge", "mp3", "m2ts")


def path_of(folder, form, rate):
    suffix = "mkv" if form == "mkvmerge" else form
    name = "mkvmerge" if form == "mkvmerge" else "film"
    return os.path.join(folder, f"{name if form != 'mp3' else 'song'}_{rate}.{suffix}")


def make_real_files(folder, size, rates):
    """Files of about size bytes in each format, of a high or a low bit rate or both, unless they are there."""
    os.makedirs(folder, exist_ok=True)
    for rate, seconds, picture, effect, video, audio in FILMS:
        if rate not in rates:
            continue
        out = path_of(folder, "mp4", rate)
        if not os.path.exists(out):
            seed = os.path.join(folder, f"seed_{rate}.mp4")
            ffmpeg("-f", "lavfi", "-i", f"testsrc2=size={picture}:rate=25:duration={seconds},{effect}",
                   "-f", "lavfi", "-i", f"anoisesrc=duration={seconds}:color=pink:sample_rate=48000:seed=1",
                   "-c:v", "libx264", "-preset", "ultrafast", "-bf", "2", "-g", "50", "-pix_fmt", "yuv420p",
                   "-b:v", f"{video}k", "-minrate", f"{video}k", "-maxrate", f"{video}k",
                   "-bufsize", f"{video}k", "-c:a", "aac", "-b:a", f"{audio}k", seed)
            loop(seed, out, size)
        copies = (("mkv", ()), ("m2ts", ("-f", "mpegts", "-mpegts_m2ts_mode", "1")))
        for form, arguments in copies:
            if not os.path.exists(path_of(folder, form, rate)):
                ffmpeg("-i", out, "-c", "copy", *arguments, path_of(folder, form, rate))
        if not os.path.exists(path_of(folder, "mkvmerge", rate)):
            run("mkvmerge", "-q", "-o", path_of(folder, "mkvmerge", rate), out)
    for rate, seconds, bits in SONGS:
        if rate not in rates:
            continue
        out = path_of(folder, "mp3", rate)
        if not os.path.exists(out):
            seed = os.path.join(folder, f"seed_{rate}.mp3")
            ffmpeg("-f", "lavfi", "-i", f"anoisesrc=duration={seconds}:color=pink:sample_rate=44100:seed=1",
                   "-c:a", "libmp3lame", "-b:a", f"{bits}k", seed)
            loop(seed, out, size)


def loop(seed, out, size):
    """The seed over and over, until it is about size bytes long."""
    times = max(1, round(size / os.path.getsize(seed)))
    ffmpeg("-stream_loop", str(times - 1), "-i", seed, "-c", "copy", out)
    os.remove(seed)


# Large files, for which nothing is encoded: of each picture the length of its NAL unit and a few bytes are
# written, and the rest is a hole in the file that reads as zero.

PICTURE_SIZE = 80000


def box(name, *parts):
    payload = b"".join(parts)
    return struct.pack(">I4s", 8 + len(payload), name) + payload


def full_box(name, *parts):
    return box(name, bytes(4), *parts)


def words(values):
    table = array.array("I", values)
    if sys.byteorder == "little":
        table.byteswap()
    return table.tobytes()


def table_box(name, count, values):
    return full_box(name, struct.pack(">I", count), words(values))


AVCC = bytes.fromhex("0142001eff e1 0004 6742001e 01 0002 68ce")


def mp4_head(sizes, in_chunk, composition, media_size):
    """All of an MP4 file but its media: one track of H.264, 25 pictures a second."""
    count = len(sizes)
    entry = box(b"avc1", bytes(6), b"\0\1", bytes(16), struct.pack(">HH", 320, 240),
                bytes.fromhex("00480000 00480000 00000000 0001"), bytes(32), b"\0\x18\xff\xff", box(b"avcC", AVCC))
    starts, at = array.array("I"), 0
    for first in range(0, count, in_chunk):
        starts.append(at)
        at += sum(sizes[first:first + in_chunk])

    def movie(media_at):
        tables = [full_box(b"stsd", struct.pack(">I", 1), entry), table_box(b"stts", 1, (count, 512)),
                  table_box(b"stss", (count + 49) // 50, range(1, count + 1, 50))]
        if composition:
            tables.append(table_box(b"ctts", count, composition))
        chunks = array.array("I", (start + media_at for start in starts))
        tables += [table_box(b"stsc", 1, (1, in_chunk, 1)), full_box(b"stsz", struct.pack(">II", 0, count), words(sizes)),
                   table_box(b"stco", len(chunks), chunks)]
        media = box(b"mdia", full_box(b"mdhd", bytes(8), struct.pack(">IIHH", 12800, count * 512 % 2**32, 0, 0)),
                    full_box(b"hdlr", bytes(4), b"vide", bytes(13)), box(b"minf", box(b"stbl", *tables)))
        track = box(b"trak", full_box(b"tkhd", bytes(8), struct.pack(">I", 1), bytes(68)), media)
        return box(b"ftyp", b"isom\0\0\2\0isomavc1") + box(b"moov", track) + struct.pack(">I4s", 8 + media_size, b"mdat")

    return movie(len(movie(0)))


def make_mp4(path, size):
    """An MP4 file of about size bytes, below 4 GiB."""
    count = max(1, min(size, 2**32 - 2**24) // PICTURE_SIZE)
    media = count * PICTURE_SIZE
    head = mp4_head(array.array("I", [PICTURE_SIZE] * count), 12, None, media)
    with open(path, "wb") as out:
        out.write(head)
        for index in range(count):
            out.seek(len(head) + index * PICTURE_SIZE)
            out.write(struct.pack(">IB", PICTURE_SIZE - 4, 0x65 if index % 50 == 0 else 0x41))
        out.truncate(len(head) + media)


def make_mp4_of_samples(path, count):
    """An MP4 file of count samples of 20 to 35 bytes, all its tables as long as they get: each sample has a size
    and a composition offset of its own, each chunk ten samples."""
    sizes = (array.array("I", range(20, 36)) * (count // 16 + 1))[:count]
    composition = (array.array("I", (1, 1024, 1, 2560, 1, 1024, 1, 0)) * (count // 4 + 1))[:2 * count]
    media = sum(sizes)
    head = mp4_head(sizes, 10, composition, media)
    with open(path, "wb") as out:
        out.write(head)
        out.truncate(len(head) + media)


def vint(value, width=8):
    return (value | 1 << 7 * width).to_bytes(width, "big")


def element(identifier, *parts):
    payload = b"".join(parts)
    return bytes.fromhex(identifier) + vint(len(payload)) + payload


def make_mkv(path, size):
    """A Matroska file of about size bytes: one track of H.264, a Cluster each second."""
    track = element("AE", element("D7", b"\1"), element("83", b"\1"), element("86", b"V_MPEG4/ISO/AVC"),
                    element("63A2", AVCC), element("E0", element("B0", b"\1\x40"), element("BA", b"\xf0")))
    clusters = max(1, size // (25 * PICTURE_SIZE))
    duration = struct.pack(">d", clusters * 1000.0)
    with open(path, "wb") as out:
        out.write(element("1A45DFA3", element("4282", b"matroska")) + bytes.fromhex("18538067 01ffffffffffffff"))
        out.write(element("1549A966", element("2AD7B1", b"\x0f\x42\x40"), element("4489", duration)))
        out.write(element("1654AE6B", track))
        block = b"\xa3" + vint(4 + PICTURE_SIZE) + b"\x81"
        for number in range(clusters):
            time = element("E7", struct.pack(">I", number * 1000))
            length = len(time) + 25 * (len(block) + 3 + PICTURE_SIZE)
            out.write(bytes.fromhex("1F43B675") + vint(length) + time)
            for index in range(25):
                out.write(block + struct.pack(">HBIB", 40 * index, 0, PICTURE_SIZE - 4, 0x65 if index == 0 else 0x41))
                out.seek(PICTURE_SIZE - 5, os.SEEK_CUR)
        out.truncate(out.tell())


def make_repeated(path, unit, size):
    """unit over and over, whole, up to about size bytes."""
    lump = unit * max(1, 2**18 // len(unit))
    with open(path, "wb") as out:
        for _ in range(max(1, size // len(lump))):
            out.write(lump)


def make_mp3(path, size):
    """Frames of 128 kbit/s at 44100 Hz."""
    make_repeated(path, bytes.fromhex("fffb9000") + bytes(413), size)


def make_m2ts(path, size):
    """Null packets, each after its stamp."""
    make_repeated(path, bytes(4) + bytes.fromhex("471fff10") + b"\xff" * 184, size)


LARGE = {"mp4": make_mp4, "mkv": make_mkv, "mp3": make_mp3, "m2ts": make_m2ts}

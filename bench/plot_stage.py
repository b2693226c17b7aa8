"""Draws times of a stream before and after the stage, from what golt writes of a film made here.

plot_stage.py GOLT OUT.svg
"""

import os
import subprocess
import sys
import tempfile

from plot import WIDTH, line, save, text

VIDEO, AUDIO = 0x100, 0x101
PACKET = 188
FIRST, LAST = 0.0, 0.68  # seconds of the film that are drawn
HEIGHT = 470


def make_streams(golt, folder):
    """Matroska by ffmpeg: B pictures, and audio frames whose duration the file doesn't state."""
    film = os.path.join(folder, "film.mkv")
    subprocess.run(["ffmpeg", "-v", "error", "-nostdin", "-f", "lavfi", "-i", "testsrc2=s=320x240:r=25:d=3",
                    "-f", "lavfi", "-i", "sine=d=3", "-c:v", "libx264", "-threads", "1", "-bf", "3", "-g", "50",
                    "-c:a", "aac", film], check=True)
    streams = []
    for name, options in (("before", ["--as-is"]), ("after", [])):
        out = os.path.join(folder, name + ".ts")
        subprocess.run([golt, "remux", "-q", *options, film, out], check=False, stderr=subprocess.DEVNULL)
        with open(out, "rb") as file:
            streams.append(file.read())
    return streams


def time_at(field):
    return ((field[0] >> 1 & 7) << 30 | field[1] << 22 | field[2] >> 1 << 15 | field[3] << 7 | field[4] >> 1) / 90000


def read_times(stream):
    """Lists of (packet, seconds): PTS, DTS and PTS of audio, and the clock."""
    times = {"pts": [], "dts": [], "audio": [], "pcr": []}
    for number in range(len(stream) // PACKET):
        packet = stream[number * PACKET:(number + 1) * PACKET]
        pid, at = (packet[1] & 0x1F) << 8 | packet[2], 4
        if packet[3] & 0x20:
            at += 1 + packet[4]
            if packet[4] and packet[5] & 0x10 and pid == VIDEO:
                base = packet[6] << 25 | packet[7] << 17 | packet[8] << 9 | packet[9] << 1 | packet[10] >> 7
                times["pcr"].append((number, base / 90000))
        if pid not in (VIDEO, AUDIO) or not packet[1] & 0x40:
            continue
        header = packet[at:]
        pts = time_at(header[9:14])
        if pid == AUDIO:
            times["audio"].append((number, pts))
            continue
        times["pts"].append((number, pts))
        times["dts"].append((number, time_at(header[14:19]) if header[7] & 0x40 else pts))
    return times


def panel(times, top_title, left, right, first, has_dts):
    """first: seconds at the lower end of the axis."""
    top, bottom = 70, HEIGHT - 70
    end = next(number for number, pts in times["pts"] if pts - first > LAST + 0.2)
    x = lambda number: left + number / end * (right - left)
    y = lambda seconds: bottom - (seconds - first) / (LAST - FIRST + 0.35) * (bottom - top)
    parts = [text(left, top - 18, top_title, "title")]
    for step in range(0, 11):
        seconds = first + step / 10
        parts.append(line(left, y(seconds), right, y(seconds)))
        parts.append(text(left - 6, y(seconds) + 4, f"{seconds:.1f}", "small", "end"))
    shown = {name: [(x(n), y(t)) for n, t in points if n <= end] for name, points in times.items()}
    for name, style in (("pcr", "c3"), ("dts", "c1")):
        if name == "dts" and not has_dts:
            continue
        places = " ".join(f"{a:.1f},{b:.1f}" for a, b in shown[name])
        parts.append(f'<polyline points="{places}" class="{style} line"/>\n')
    for name, style, size in (("audio", "c2", 2), ("pts", "c0", 3.5)):
        parts += [f'<circle cx="{a:.1f}" cy="{b:.1f}" r="{size}" class="{style}"/>\n' for a, b in shown[name]]
    parts.append(text((left + right) / 2, bottom + 22, "place in the stream", "small", "middle"))
    return parts


def main():
    golt, path = sys.argv[1:]
    with tempfile.TemporaryDirectory() as folder:
        before, after = (read_times(stream) for stream in make_streams(golt, folder))
    middle = WIDTH / 2
    parts = [text(12, 24, "Times in a transport stream, seconds", "title")]
    parts += panel(before, "As the library writes it", 50, middle - 30, 0.0, False)
    parts += panel(after, "After the stage", middle + 50, WIDTH - 20, 0.6, True)
    x = 50
    for style, words in (("c0", "PTS of pictures"), ("c1", "DTS of pictures"), ("c2", "PTS of audio"), ("c3", "PCR")):
        parts.append(f'<circle cx="{x}" cy="{HEIGHT - 20}" r="4" class="{style}"/>\n')
        parts.append(text(x + 10, HEIGHT - 16, words, style))
        x += 150
    save(path, HEIGHT, "PTS, DTS and PCR of a stream before and after the stage", parts)


if __name__ == "__main__":
    main()

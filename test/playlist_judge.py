#!/usr/bin/env python3
"""Holds a folder of golt hls against RFC 8216, and its playlists against what is in the segments.

playlist_judge.py FOLDER: prints a line for each thing that is wrong, and a last one with what was seen. With --packets
the segments are packets of a file as they are: it has its own counters, and may have codecs that have no name.
"""

import argparse
import os
import re
import sys

PACKET, NULL_PID, SECOND, RANGE = 188, 0x1FFF, 90000, 1 << 33
SPARE = 1.1
VIDEO_TYPES = (0x01, 0x02, 0x1B, 0x24)
H264, AAC, AC3, EAC3, MPEG = 0x1B, (0x0F,), (0x81,), (0x84, 0x87), (0x03, 0x04)


def problem(text):
    print(text)
    problem.count += 1


problem.count = 0


class Segment:
    """A transport stream: the streams by PID with their stream_type, and units (time, first bytes) of each."""

    def __init__(self, path):
        with open(path, 'rb') as file:
            self.data = file.read()
        self.types, self.units, self.packets = {}, {}, {}
        self.order = []
        if len(self.data) % PACKET:
            problem(f'{path}: not whole packets')
        pmt_pid = None
        for at in range(0, len(self.data) - PACKET + 1, PACKET):
            packet = self.data[at:at + PACKET]
            pid = (packet[1] & 0x1F) << 8 | packet[2]
            self.order.append(pid)
            if packet[0] != 0x47:
                problem(f'{path}: no sync byte at {at}')
            payload = 4 + (1 + packet[4] if packet[3] & 0x20 else 0)
            if not packet[3] & 0x10:
                continue
            self.packets.setdefault(pid, []).append(packet[3] & 0x0F)
            if pid == 0 and pmt_pid is None:
                pmt_pid = (packet[payload + 11] & 0x1F) << 8 | packet[payload + 12]
            elif pid == pmt_pid and packet[1] & 0x40 and not self.types:
                self.take_pmt(packet[payload + 1:])
            elif packet[1] & 0x40 and packet[payload:payload + 3] == b'\0\0\1':
                self.take_start(pid, packet[payload:])
            elif pid in self.units and len(self.units[pid][-1][1]) < 4096:
                self.units[pid][-1][1].extend(packet[payload:])
        self.pmt_pid = pmt_pid

    def take_pmt(self, section):
        end = 3 + ((section[1] & 0x0F) << 8 | section[2]) - 4
        at = 12 + ((section[10] & 0x0F) << 8 | section[11])
        while at + 5 <= min(end, len(section)):
            self.types[(section[at + 1] & 0x1F) << 8 | section[at + 2]] = section[at]
            at += 5 + ((section[at + 3] & 0x0F) << 8 | section[at + 4])

    def take_start(self, pid, pes):
        if not pes[7] & 0x80:
            return
        time = (pes[9] >> 1 & 7) << 30 | pes[10] << 22 | (pes[11] >> 1) << 15 | pes[12] << 7 | pes[13] >> 1
        self.units.setdefault(pid, []).append((time, bytearray(pes[9 + pes[8]:])))

    def leading(self):
        """The PID by which films are cut."""
        pids = [pid for pid, kind in self.types.items() if kind in VIDEO_TYPES and pid in self.units]
        return pids[0] if pids else next((pid for pid in self.types if pid in self.units), None)


def read_playlist(folder, name):
    with open(os.path.join(folder, name), encoding='ascii', newline='') as file:
        lines = file.read().split('\n')
    if lines[0] != '#EXTM3U' or lines[-1] != '' or '' in lines[:-1] or any('\r' in line for line in lines):
        problem(f'{name}: no playlist')
    tags = [line.split(':', 1)[0] for line in lines if line.startswith('#')]
    for tag in set(tags) - {'#EXTINF'}:
        if tags.count(tag) > 1:
            problem(f'{name}: {tag} comes twice')
    return lines[:-1]


def tag_of(lines, tag):
    found = [line for line in lines if line.split(':', 1)[0] == tag]
    return found[0].split(':', 1)[-1] if found else None


def read_media(folder):
    lines = read_playlist(folder, 'index.m3u8')
    for tag, value in (('#EXT-X-PLAYLIST-TYPE', 'VOD'), ('#EXT-X-MEDIA-SEQUENCE', '0'), ('#EXT-X-VERSION', '3')):
        if tag_of(lines, tag) != value:
            problem(f'index.m3u8: {tag} is {tag_of(lines, tag)}')
    if lines[-1] != '#EXT-X-ENDLIST':
        problem('index.m3u8: no end')
    lengths, names = [], []
    for before, line in zip(lines, lines[1:]):
        if line.startswith('#'):
            continue
        names.append(line)
        told = re.fullmatch(r'#EXTINF:(\d+\.\d{3,}),', before)
        if not told:
            problem(f'index.m3u8: {before} before {line}')
        lengths.append(float(told[1]) if told else 0)
    target = int(tag_of(lines, '#EXT-X-TARGETDURATION'))
    if max(int(length + 0.5) for length in lengths) != target:
        problem(f'index.m3u8: the longest segment has {max(lengths)} s, the target duration is {target}')
    return names, lengths, target, '#EXT-X-INDEPENDENT-SEGMENTS' in lines


def extended(time, near):
    return near + (time - near + RANGE // 2) % RANGE - RANGE // 2


def check_times(segments, lengths, packets):
    """Durations are those from the first unit of a segment to that of the next one; the last one ends with its units."""
    pid = segments[0].leading()
    first = segments[0].units[pid][0][0]
    begin = now = first if packets else min(
        extended(time, first) for units in segments[0].units.values() for time, _ in units)
    for number, (segment, length) in enumerate(zip(segments, lengths)):
        first = extended(segment.units[pid][0][0], now)
        if number > 0 and abs(first - now) > 1:
            problem(f'{number}.ts: begins {first - now} ticks beside its time')
        now += round(length * SECOND)
    ends, steps = [], []
    for pid, units in segments[-1].units.items():
        times = sorted(extended(time, now) for time, _ in units)
        if pid in segments[-1].types:
            steps.append((times[-1] - times[0]) // max(len(times) - 1, 1))
            ends.append(times[-1] + steps[-1])
    if abs(max(ends) - now) > max(steps) + SECOND // 1000:
        problem(f'the film ends at {(max(ends) - begin) / SECOND} s, by the playlist at {(now - begin) / SECOND}')


def nal_types(unit):
    return [unit[at.end()] & 0x1F for at in re.finditer(b'\0\0\1', unit) if at.end() < len(unit)]


def check_begins(segments, independent):
    for number, segment in enumerate(segments):
        if segment.order[:2] != [0, segment.pmt_pid]:
            problem(f'{number}.ts: no tables first')
        pid = segment.leading()
        if segment.types.get(pid) != H264:
            continue
        types = nal_types(segment.units[pid][0][1])
        if 7 not in types or 8 not in types:
            problem(f'{number}.ts: the first picture has no parameter sets')
        if independent and 5 not in types and number > 0:
            problem(f'{number}.ts: the first picture is not by itself')


def check_counters(segments, packets):
    """Of a file's own packets the tables before a segment repeat those before them."""
    last = {}
    for number, segment in enumerate(segments):
        tables = (0, segment.pmt_pid)
        for pid, counters in segment.packets.items():
            for i, counter in enumerate(counters):
                repeated = packets and pid in tables and i == 0 and counter == last.get(pid)
                if pid != NULL_PID and pid in last and not repeated and counter != (last[pid] + 1) % 16:
                    problem(f'{number}.ts: counter of PID {pid}')
                last[pid] = counter


def check_rates(segments, lengths, target, master):
    """BANDWIDTH by section 4.3.4.2."""
    told = dict(re.findall(r'([A-Z-]+)=("[^"]*"|[^",]*)', tag_of(master, '#EXT-X-STREAM-INF')))
    bits = [len(segment.data) * 8 for segment in segments]
    average = sum(bits) / sum(lengths)
    peak = average
    for i in range(len(bits)):
        for j in range(i + 1, len(bits) + 1):
            length = sum(lengths[i:j])
            if length > 1.5 * target:
                break
            if length >= 0.5 * target:
                peak = max(peak, sum(bits[i:j]) / length)
    for name, real in (('BANDWIDTH', peak), ('AVERAGE-BANDWIDTH', average)):
        if int(told[name]) < real:
            problem(f'{name} is {told[name]}, the real one {real:.0f}')
        # Tables and clock, and what fills segments up, take so much in any case.
        if int(told[name]) > real * SPARE + 100000:
            problem(f'{name} is {told[name]}, far above the real one of {real:.0f}')
    return told, peak


def check_codecs(segment, told):
    """Of H.264 by the parameter set, of audio by the kind of stream."""
    pid = segment.leading()
    names = []
    if segment.types.get(pid) == H264:
        sps = re.search(b'\0\0\1[\x67\x47\x27](...)', segment.units[pid][0][1], re.S)
        names.append('avc1.' + sps[1].hex())
    for kind in segment.types.values():
        names += ['mp4a.40.2'] * (kind in AAC) + ['ac-3'] * (kind in AC3) + ['ec-3'] * (kind in EAC3)
        names += [told['CODECS'].strip('"').split(',')[-1]] * (kind in MPEG)
    if told['CODECS'].strip('"') != ','.join(names):
        problem(f'CODECS is {told["CODECS"]}, in the segments is {",".join(names)}')


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument('folder')
    parser.add_argument('--packets', action='store_true')
    arguments = parser.parse_args()
    names, lengths, target, independent = read_media(arguments.folder)
    master = read_playlist(arguments.folder, 'master.m3u8')
    if master[-1] != 'index.m3u8':
        problem('master.m3u8: leads elsewhere')
    segments = [Segment(os.path.join(arguments.folder, name)) for name in names]
    check_begins(segments, independent)
    check_counters(segments, arguments.packets)
    check_times(segments, lengths, arguments.packets)
    told, peak = check_rates(segments, lengths, target, master)
    if not arguments.packets:
        check_codecs(segments[0], told)
    print(f'{len(segments)} segments, {sum(lengths):.3f} s, {told["BANDWIDTH"]} of {peak:.0f} bit/s')
    return min(problem.count, 1)


if __name__ == '__main__':
    sys.exit(main())

"""Writes an M2TS file of many streams of MPEG audio: many_streams.py STREAMS FRAMES OUT"""

import struct
import sys

STREAMS_IN_PMT = 200  # nearly as many as a section holds
FRAME = b"\xff\xfb\x10\xc0" + bytes(100)  # 32 kbit/s, 44100 Hz
TICKS = 2351  # that it lasts
counters = {}


def crc(data):
    value = 0xFFFFFFFF
    for byte in data:
        for bit in range(7, -1, -1):
            top = value >> 31 ^ byte >> bit & 1
            value = value << 1 & 0xFFFFFFFF ^ (0x04C11DB7 if top else 0)
    return struct.pack(">I", value)


def packet(pid, payload, control=0x10, start=0x4000):
    counters[pid] = counters.get(pid, -1) + 1 & 15
    return bytes(4) + struct.pack(">BHB", 0x47, start | pid, control | counters[pid]) + payload


def section(pid, table, number, body):
    data = struct.pack(">BHHBBB", table, 0xB009 + len(body), number, 0xC1, 0, 0) + body
    data = b"\0" + data + crc(data)
    pieces = [data[at:at + 184].ljust(184, b"\xff") for at in range(0, len(data), 184)]
    return packet(pid, pieces[0]) + b"".join(packet(pid, piece, start=0) for piece in pieces[1:])


def frame(pid, ticks):
    time = struct.pack(">BHH", 0x21 | ticks >> 29 & 0xE, ticks >> 14 & 0xFFFE | 1, ticks << 1 & 0xFFFE | 1)
    body = b"\x80\x80\5" + time + FRAME
    payload = b"\0\0\1\xc0" + struct.pack(">H", len(body)) + body
    room = 184 - len(payload)
    return packet(pid, bytes([room - 1, 0]) + b"\xff" * (room - 2) + payload, 0x30)


pids = range(0x20, 0x20 + int(sys.argv[1]))
programs = [pids[at:at + STREAMS_IN_PMT] for at in range(0, len(pids), STREAMS_IN_PMT)]
with open(sys.argv[3], "wb") as out:
    out.write(section(0, 0, 1, b"".join(struct.pack(">HH", i + 1, 0xF000 | i) for i in range(len(programs)))))
    for i, streams in enumerate(programs):
        rows = b"".join(struct.pack(">BHH", 3, 0xE000 | pid, 0xF000) for pid in streams)
        out.write(section(0x1000 | i, 2, i + 1, struct.pack(">HH", 0xFFFF, 0xF000) + rows))
    for n in range(int(sys.argv[2])):
        for pid in pids:
            out.write(frame(pid, n * TICKS))

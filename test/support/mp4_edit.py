#!/usr/bin/env python3
"""Writes an MP4 file of ffmpeg anew, with other tables of times, as other muxers make them.

mp4_edit.py IN OUT TRACK BOX VALUES [TRACK BOX VALUES]...: TRACK is vide or soun. The boxes and their values:

stts  COUNT:TICKS,... : durations of samples; the last COUNT may be left out, for all that are left. "mdhd" goes with it
mdhd  TICKS           : the duration
elst  TICKS:TIME,...  : the edit list; TIME is -1 where nothing is shown
"""

import struct
import sys

FOLDERS = (b'moov', b'trak', b'mdia', b'minf', b'stbl', b'edts')


def read(data):
    """Boxes as [type, body]; a body is bytes, or a list of boxes. The last one has to be "moov", so that nothing moves."""
    boxes, at = [], 0
    while at < len(data):
        size, name = struct.unpack_from('>I4s', data, at)
        body = data[at + 8:at + size]
        boxes.append([name, read(body) if name in FOLDERS else body])
        at += size
    return boxes


def written(boxes):
    bodies = [(name, written(body) if name in FOLDERS else body) for name, body in boxes]
    return b''.join(struct.pack('>I4s', len(body) + 8, name) + body for name, body in bodies)


def find(boxes, *path):
    found = next((box for box in boxes if box[0] == path[0]), None)
    return found if found is None or len(path) == 1 else find(found[1], *path[1:])


def table(rows, layout):
    return struct.pack('>II', 0, len(rows)) + b''.join(struct.pack(layout, *row) for row in rows)


def edit(track, name, values):
    mdhd = find(track, b'mdia', b'mdhd')
    rows = [[int(number) if number else None for number in row.split(':')] for row in values.split(',')]
    if name == 'elst':
        edts = find(track, b'edts')
        if not edts:
            edts = [b'edts', []]
            track.insert(1, edts)
        edts[1] = [[b'elst', table([(ticks, time, 1, 0) for ticks, time in rows], '>Iihh')]]
    elif name == 'stts':
        count, = struct.unpack_from('>I', find(track, b'mdia', b'minf', b'stbl', b'stsz')[1], 8)
        if rows[-1][0] is None:
            rows[-1][0] = count - sum(row[0] for row in rows[:-1])
        find(track, b'mdia', b'minf', b'stbl', b'stts')[1] = table(rows, '>II')
        edit(track, 'mdhd', str(sum(samples * ticks for samples, ticks in rows)))
    elif name == 'mdhd':
        mdhd[1] = mdhd[1][:16] + struct.pack('>I', rows[0][0]) + mdhd[1][20:]


def main(source, target, *edits):
    with open(source, 'rb') as file:
        boxes = read(file.read())
    assert boxes[-1][0] == b'moov', 'headers have to come last'
    tracks = [body for name, body in boxes[-1][1] if name == b'trak']
    for kind, name, values in zip(edits[0::3], edits[1::3], edits[2::3]):
        track = next(track for track in tracks if find(track, b'mdia', b'hdlr')[1][8:12] == kind.encode())
        edit(track, name, values)
    with open(target, 'wb') as file:
        file.write(written(boxes))


main(*sys.argv[1:])

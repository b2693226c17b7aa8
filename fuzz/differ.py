"""Random files through two builds of golt_judge, whose words have to be the same."""

import os
import random
import shutil
import subprocess
import time
from pathlib import Path

RECIPE = 16                      # bytes in front of the file, in the inputs of the fuzz targets
FORMATS = ["m2ts", "mp3", "mp4", "mkv"]
BATCH = 400                      # files of a run; with few its start would take most of the time
LARGEST = 1 << 20                # bytes
BUILD_TIME = b"built:"           # in the line of the library that differs
LONGEST = 60                     # seconds of a processor, of a run


class Differ:
    def __init__(self, top, folder, found):
        self.judges = [top / "build/release/bin/golt_judge", top / "build/asan/bin/golt_judge"]
        self.folder, self.found = folder, found
        self.processor = 0  # seconds that the builds have taken
        self.random = random.Random()
        self.pool = [(path, path.suffix[1:], 0) for path in (top / "samples").iterdir()
                     if path.suffix[1:] in FORMATS]
        for folder in (top / "build/fuzz/corpus", top / "fuzz/corpus"):
            for target in FORMATS:
                self.pool += [(path, target, RECIPE) for path in sorted((folder / target).glob("*"))]

    def compare_for(self, seconds, stopped):
        """Files that were compared, and those that differed. Ends earlier when the event comes."""
        end = time.monotonic() + seconds
        compared = findings = 0
        while time.monotonic() < end and not stopped.is_set():
            files = [self.write_file(number) for number in range(BATCH)]
            compared += len(files)
            if self.differs(files):
                findings += self.keep(files)
        return compared, findings

    def differs(self, files):
        said = [self.words_of(judge, files) for judge in self.judges]
        return said[0] != said[1] or None in said

    def words_of(self, judge, files):
        """The lines of a build; None where it ended badly."""
        written = self.folder / "words"
        with open(written, "wb") as output:
            process = subprocess.Popen(["prlimit", f"--cpu={LONGEST}", judge, "tell", *files], stdout=output,
                                       stderr=subprocess.DEVNULL, start_new_session=True)
            _, status, usage = os.wait4(process.pid, 0)
            process.returncode = os.waitstatus_to_exitcode(status)
        self.processor += usage.ru_utime + usage.ru_stime
        if status != 0:
            return None
        return [line for line in written.read_bytes().splitlines() if BUILD_TIME not in line]

    def keep(self, files):
        """Keeps those that differ by themselves, or all of them. How many there are."""
        guilty = [file for file in files if self.differs([file])]
        for file in guilty or files:
            shutil.copy(file, self.found / f"differs-{int(time.time())}-{file.name}")
        return max(len(guilty), 1)

    def write_file(self, number):
        path, form, skipped = self.random.choice(self.pool)
        file = bytearray(path.read_bytes()[skipped:][:LARGEST])
        for _ in range(self.random.choice([0, 1, 1, 2, 4, 8])):
            self.change(file)
        written = self.folder / f"{number}.{form}"
        written.write_bytes(file)
        return written

    def change(self, file):
        """One change anywhere in the file."""
        draw = self.random
        at = draw.randrange(len(file) + 1)
        size = draw.choice([1, 2, 4, 8, draw.randrange(1, 400)])
        kind = draw.randrange(6)
        if kind == 0:
            file[at:at + size] = draw.randbytes(size)
        elif kind == 1:
            file[at:at + size] = bytes([draw.choice([0, 1, 0x7F, 0x80, 0xFF])]) * size
        elif kind == 2:
            del file[at:at + size]
        elif kind == 3:
            file[at:at] = file[draw.randrange(len(file) + 1):][:size]
        elif kind == 4:
            del file[at:]
        elif at < len(file):
            file[at] ^= 1 << draw.randrange(8)

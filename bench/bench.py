"""The library against the floor that copying sets, the program golt against other programs, and how both grow.

Usage: bench.py BUILD [table | --peers | --growth | --plot]

BUILD is the folder of a release build. Inputs and results are kept in BUILD/bench; --plot draws the results.
"""

import json
import os
import platform
import re
import statistics
import subprocess
import sys
import time

import files

MB = 10**6
ROUNDS = 15
# Of what takes many times as long.
FEWER_ROUNDS = {"gstreamer": 5}

HERE = os.path.dirname(os.path.abspath(__file__))
PROJECT = os.path.dirname(HERE)

NAMES = {"mp4": "MP4", "mkv": "Matroska by ffmpeg", "mkvmerge": "Matroska by mkvmerge", "mp3": "MP3", "m2ts": "M2TS"}


class Bench:
    def __init__(self, build):
        self.bin = os.path.join(build, "bin")
        self.folder = os.path.join(build, "bench")
        self.golt = os.path.join(self.bin, "golt")
        os.makedirs(self.folder, exist_ok=True)

    def keep(self, name, results):
        with open(os.path.join(self.folder, name + ".json"), "w", encoding="utf-8") as out:
            json.dump(results, out, indent=1)

    def kept(self, name):
        with open(os.path.join(self.folder, name + ".json"), encoding="utf-8") as results:
            return json.load(results)

    def remux(self, path, *arguments):
        return [self.golt, "remux", "-q", "--force", *arguments, path, "/dev/null"]


def first_line(*command):
    result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    return result.stdout.splitlines()[0]


def processor():
    with open("/proc/cpuinfo", encoding="utf-8") as info:
        fields = dict(line.split(":", 1) for line in info.read().split("\n\n")[0].splitlines() if ":" in line)
    fields = {name.strip(): value.strip() for name, value in fields.items()}
    name = fields.get("model name", platform.machine())
    return f"{name} (family {fields.get('cpu family', '?')}), {os.cpu_count()} cores"


def describe():
    print(f"{processor()}, Linux {platform.release()}, {first_line('g++', '--version')}, "
          f"load {os.getloadavg()[0]:.1f}")


def measure(command):
    """Runs a command with its output dropped: seconds of user and system time, and of wall time."""
    start = time.monotonic()
    with open(os.devnull, "r+b") as nowhere:
        child = subprocess.Popen(command, stdin=nowhere, stdout=nowhere, stderr=nowhere)
        _, status, usage = os.wait4(child.pid, 0)
    child.returncode = os.waitstatus_to_exitcode(status)
    check(command, child.returncode)
    return {"cpu": usage.ru_utime + usage.ru_stime, "wall": time.monotonic() - start}


def peak_memory(command):
    """Peak RSS in KB. Not by measure, where it would be that of the program that starts the command. It is out by
    some pages for each processor, which count for themselves."""
    result = subprocess.run(["/usr/bin/time", "-q", "-f", "%M", *command], stdin=subprocess.DEVNULL,
                            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, check=False)
    check(command, result.returncode)
    return int(result.stderr.splitlines()[-1])


def check(command, status):
    # 3: golt has something to say about the input, such as audio without a clock.
    if status not in (0, 3):
        sys.exit(f"{' '.join(command)}: exit status {status}")


def medians(commands, rounds):
    """One run of each command in turn, over and over, all on one processor: those of a virtual machine differ by a
    third at times. The medians."""
    processors = os.sched_getaffinity(0)
    os.sched_setaffinity(0, {max(processors)})
    runs = {name: [] for name in commands}
    for turn in range(rounds):
        for name, command in commands.items():
            if turn < FEWER_ROUNDS.get(name, rounds):
                runs[name].append(measure(command))
    results = {}
    for name, those in runs.items():
        results[name] = {key: statistics.median(run[key] for run in those) for key in those[0]}
        memory_rounds = rounds if name == "golt" else 1
        results[name]["rss"] = statistics.median(peak_memory(commands[name]) for _ in range(memory_rounds))
    os.sched_setaffinity(0, processors)
    return results


# The library alone

TABLE_SIZE = 64 * MB
TABLE_GOALS = {("mp4", "high"): 1.3, ("mkv", "high"): 1.3, ("mkvmerge", "high"): 1.3}
OTHER_GOAL = 2.5


def table(bench):
    files.make_real_files(bench.folder, TABLE_SIZE, ("high", "low"))
    describe()
    print(f"{'input':22}{'rate':6}{'MB':>5}{'frames':>9}{'MB/s':>8}{'s/GB':>8}{'floor':>8}{'ratio':>7}{'goal':>6}")
    rows = []
    for rate in ("high", "low"):
        for form in files.FORMATS:
            name = "mkv" if form == "mkvmerge" else form
            output = subprocess.run([os.path.join(bench.bin, "golt_bench_file"), name,
                                     files.path_of(bench.folder, form, rate), "15"],
                                    stdout=subprocess.PIPE, text=True, check=True).stdout.split()
            size, frames, library, floor = int(output[0]), int(output[1]), float(output[2]), float(output[3])
            goal = TABLE_GOALS.get((form, rate), OTHER_GOAL)
            print(f"{NAMES[form]:22}{rate:6}{size / MB:5.0f}{frames:9}{1000 / library:8.0f}{library:8.3f}{floor:8.3f}"
                  f"{library / floor:7.2f}{goal:6.1f}")
            rows.append({"form": form, "rate": rate, "frames": frames, "library": library, "floor": floor})
    bench.keep("table", rows)


# Beside other programs

PEER_SIZES = {"high": 330 * MB, "low": 100 * MB}
START_ROUNDS = 21


def gstreamer(form, path):
    source = ["gst-launch-1.0", "-q", "filesrc", f"location={path}", "!"]
    sink = ["mpegtsmux", "name=mux", "!", "filesink", "location=/dev/null"]
    if form == "mp3":
        return source + ["mpegaudioparse", "!"] + sink
    if form == "m2ts":
        return None
    demuxer = "qtdemux" if form == "mp4" else "matroskademux"
    return source + [demuxer, "name=demux"] + sink + [
        "demux.video_0", "!", "queue", "!", "h264parse", "!", "mux.",
        "demux.audio_0", "!", "queue", "!", "aacparse", "!", "mux."]


def programs(bench, form, path):
    commands = {"golt": bench.remux(path),
                "as-is": bench.remux(path, "--as-is"),
                "ffmpeg": ["ffmpeg", "-v", "error", "-nostdin", "-y", "-i", path, "-c", "copy", "-f", "mpegts",
                           "/dev/null"],
                "gstreamer": gstreamer(form, path),
                "cat": ["cat", path]}
    return {name: command for name, command in commands.items() if command is not None}


def settle(path):
    """Into the system's memory as a file that was read. One just written lies there in smaller pieces, and all
    programs take a third longer to read it."""
    with open(path, "rb") as file:
        os.fsync(file.fileno())
        os.posix_fadvise(file.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)
    measure(["cat", path])


def print_peers(title, size, results):
    golt = results["golt"]
    for name, result in results.items():
        per_gb = f"{result['cpu'] / size * 1e9:8.3f}" if size else " " * 8
        print(f"{title:30}{name:10}{result['cpu']:9.4f}{per_gb}{result['wall']:9.4f}{result['rss'] / 1024:8.1f}"
              f"{result['cpu'] / golt['cpu']:8.1f}{result['rss'] / golt['rss']:8.1f}")
        title = ""


def peers(bench):
    big = os.path.join(bench.folder, "big")
    for rate, size in PEER_SIZES.items():
        files.make_real_files(big, size, (rate,))
    describe()
    print("\n".join((first_line("ffmpeg", "-version"), first_line("gst-launch-1.0", "--version"))))
    print(f"{'input':30}{'program':10}{'cpu s':>9}{'s/GB':>8}{'wall s':>9}{'RSS MB':>8}{'cpu':>8}{'RSS':>8}  x golt's")
    rows = []
    for rate in ("high", "low"):
        for form in files.FORMATS:
            path = files.path_of(big, form, rate)
            size = os.path.getsize(path)
            settle(path)
            results = medians(programs(bench, form, path), ROUNDS)
            print_peers(f"{NAMES[form]}, {rate}", size, results)
            rows.append({"form": form, "rate": rate, "size": size, "results": results})
    sample = os.path.join(PROJECT, "samples", "h264_aac.mp4")
    results = medians(programs(bench, "mp4", sample), START_ROUNDS)
    print_peers("start to end, 4 s of MP4", 0, results)
    rows.append({"form": "start", "rate": "", "size": os.path.getsize(sample), "results": results})
    bench.keep("peers", rows)


# Growth

SIZES_MB = (1, 4, 16, 64, 256, 1024, 4096)
SAMPLES = (100, 1000, 10000, 100000, 1000000, 10000000)
GROWTH_ROUNDS = 3


def instructions(command):
    """Counted by callgrind."""
    counted = subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", *command],
                             stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, check=True)
    return int(re.search(r"Collected : (\d+)", counted.stderr).group(1))


def growth(bench):
    describe()
    path = os.path.join(bench.folder, "growing")
    rows = []
    print(f"{'format':8}{'MB':>6}{'cpu s':>9}{'s/GB':>8}{'RSS MB':>8}")
    for form, make in files.LARGE.items():
        for size in SIZES_MB:
            make(path, size * MB)
            actual = os.path.getsize(path)
            result = medians({"golt": bench.remux(path, "--format", form)}, GROWTH_ROUNDS)["golt"]
            print(f"{form:8}{actual / MB:6.0f}{result['cpu']:9.4f}{result['cpu'] / actual * 1e9:8.3f}"
                  f"{result['rss'] / 1024:8.1f}")
            rows.append({"form": form, "size": actual, **result})
            os.remove(path)
    starts = []
    print(f"{'samples':>10}{'cpu s':>9}{'RSS MB':>8}{'instructions':>14}{'of which a sample':>19}")
    before = None
    for count in SAMPLES:
        files.make_mp4_of_samples(path, count)
        command = bench.remux(path, "--format", "mp4", "--frames", "1")
        result = medians({"golt": command}, GROWTH_ROUNDS)["golt"]
        counted = instructions(command)
        each = (counted - before[1]) / (count - before[0]) if before else 0
        before = (count, counted)
        print(f"{count:10}{result['cpu']:9.4f}{result['rss'] / 1024:8.1f}{counted:14}{each:19.1f}")
        starts.append({"samples": count, "instructions": counted, "each": each, **result})
        os.remove(path)
    bench.keep("growth", {"sizes": rows, "starts": starts})


def plot(bench):
    import plot as drawing  # here: measuring needs no pictures
    drawing.draw(bench.kept("peers"), bench.kept("growth"), os.path.join(PROJECT, "docs"))


ACTIONS = {"table": table, "--peers": peers, "--growth": growth, "--plot": plot}


def main(arguments):
    action = arguments[1] if len(arguments) > 1 else "table"
    if not arguments or action not in ACTIONS or len(arguments) > 2:
        sys.exit(__doc__)
    ACTIONS[action](Bench(arguments[0]))


main(sys.argv[1:])

#!/usr/bin/env python3
"""Fuzzes all targets in turn for hours, compares builds on random files, and adds up what was seen.

    ./dev soak [--jobs N] HOURS [TARGET...]
    ./dev soak --table     # puts it into docs/robustness.md, too

The time is parted into rounds, so that each target gets some of it in a short run too. A target's turn has three
parts: the fast build, which only counts edges and is stopped by undefined behaviour; for formats of tables and laces
the same with inputs of up to 1 MiB; and the build with all sanitizers, which runs first what the fast one has found.
What reaches something new is merged into build/fuzz/corpus, which ./dev seeds takes further. In each round files that
are changed at random go through the release and the sanitizers' build, whose frames, packets and messages have to be
the same.

All runs add up in build/fuzz/soak.json. Whatever is found is left in build/fuzz/found.
"""

import argparse
import concurrent.futures
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

from differ import Differ

TOP = Path(__file__).resolve().parent.parent
STATE, FOUND = TOP / "build/fuzz/soak.json", TOP / "build/fuzz/found"
CORPUS, SEEDS = TOP / "build/fuzz/corpus", TOP / "fuzz/corpus"
LARGE_SEEDS = TOP / "build/fuzz/made/large"
LARGE = ["file", "mkv", "mp4"]
DIFFERENTIAL, KINDS = "differential", ("fast", "sanitized")
PAGE = TOP / "docs/robustness.md"
# Of the page, before the rows that --table writes.
HEAD = ("| Target | Executions | With sanitizers | A second, fast and with sanitizers | Edges | Findings "
        "| Slowest call | Largest heap |")
ROUND, ROUNDS_LEAST = 3600, 2  # seconds, at most; and so many rounds at least
CANT_RUN = 1                   # libFuzzer's status for arguments and folders that are wrong
LONGEST = 600                  # seconds of an input, by the clock; calls are held to less by watch.cpp
FAST, LONG = 0.7, 0.1          # of a turn; the sanitizers have the rest
# New inputs are found by the thousand at first, and no disk is needed for them.
MEMORY = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
ENVIRONMENT = {
    **os.environ,
    # Another status than CANT_RUN for what a sanitizer reports.
    "ASAN_OPTIONS": "exitcode=77:quarantine_size_mb=4:malloc_context_size=4:detect_leaks=0"
                    ":allocator_release_to_os_interval_ms=-1",
    # Freed memory stays with the program: getting it again for each input would be a third of the time.
    "GLIBC_TUNABLES": "glibc.malloc.mmap_threshold=67108864:glibc.malloc.trim_threshold=134217728"
                      ":glibc.malloc.top_pad=1048576"}

STOPPED = threading.Event()  # by a signal: no turn begins, and what runs has been ended
RUNNING = set()


def stop(*_):
    STOPPED.set()
    for process in list(RUNNING):
        process.terminate()


class State:
    """What all runs have seen, by target. Sums and maxima; edges count anew when the code has other ones."""

    def __init__(self):
        self.lock = threading.Lock()
        self.all = json.loads(STATE.read_text()) if STATE.exists() else {}

    def add(self, target, sums=(), most=(), edges=0, edges_of=0):
        with self.lock:
            row = self.all.setdefault(target, {})
            for key, value in dict(sums).items():
                row[key] = row.get(key, 0) + value
            for key, value in dict(most).items():
                row[key] = max(row.get(key, 0), value)
            if edges_of != 0:
                before = row.get("edges", 0) if row.get("edges_of") == edges_of else 0
                row.update(edges=max(edges, before), edges_of=edges_of)
            written = STATE.with_suffix(".new")
            written.write_text(json.dumps(self.all, indent=2, sort_keys=True) + "\n")
            written.replace(STATE)


def command(build, target, *arguments):
    dictionary = TOP / f"fuzz/{target}.dict"
    return [str(TOP / "build" / build / "bin" / f"fuzz_{target}"), "-close_fd_mask=1", "-detect_leaks=0",
            f"-timeout={LONGEST}", f"-report_slow_units={LONGEST}", "-rss_limit_mb=1024", "-malloc_limit_mb=64",
            "-print_final_stats=1", "-print_funcs=0",
            *([f"-dict={dictionary}"] if dictionary.exists() else []), *map(str, arguments)]


def run(words, log):
    """Runs to the end; its status and the seconds of processor time that it took."""
    if STOPPED.is_set():
        return 0, 0
    with open(log, "wb") as output:
        # A session of its own: a terminal's signal reaches this program alone.
        process = subprocess.Popen(words, stdout=output, stderr=subprocess.STDOUT, env=ENVIRONMENT,
                                   start_new_session=True)
        RUNNING.add(process)
        _, status, usage = os.wait4(process.pid, 0)
        RUNNING.discard(process)
        process.returncode = os.waitstatus_to_exitcode(status)
    return process.returncode, usage.ru_utime + usage.ru_stime


def figures(log):
    """What libFuzzer and target.cpp tell at the end. A run that has found something tells only how far it came."""
    text = log.read_text(errors="replace")
    told = {name: float(value) for name, value in re.findall(r"stat::(\w+):\s+([\d.]+)", text)}
    counts = [int(count) for count in re.findall(r"^#(\d+)", text, re.M)]
    edges = [int(count) for count in re.findall(r" cov: (\d+)", text)]
    of = re.search(r"Loaded \d+ PC tables \((\d+) PCs\)", text)
    return {"executions": int(told.get("number_of_executed_units", counts[-1] if counts else 0)),
            "call": told.get("longest_call_ms", 0), "heap": told.get("largest_heap_kib", 0),
            "edges": max(edges, default=0), "of": int(of.group(1)) if of else 0}


def seeds_of(target):
    """Folders of inputs to begin with; films begin with those of whole files, which have the same form."""
    folders = [SEEDS / target, SEEDS / "file"] if target == "hls" else [SEEDS / target]
    return [folder for folder in folders if folder.is_dir()]


def part(state, build, target, seconds, arguments):
    """Fuzzes once. True: nothing was found."""
    if seconds < 1 or STOPPED.is_set():
        return True
    log = TOP / "build/fuzz" / f"soak-{build}-{target}.log"
    status, processor = run(command(build, target, f"-max_total_time={int(seconds)}",
                                    f"-artifact_prefix={FOUND}/{target}-", *arguments), log)
    if status == CANT_RUN:
        raise RuntimeError(f"fuzz_{target} doesn't run, see {log}")
    if STOPPED.is_set():
        status = 0
    seen = figures(log)
    kind = "fast" if build == "fuzz-fast" else "sanitized"
    state.add(target, {f"{kind}_executions": seen["executions"], f"{kind}_seconds": processor,
                       "findings": int(status != 0)},
              {"slowest_ms": seen["call"], "heap_kib": seen["heap"]},
              **({"edges": seen["edges"], "edges_of": seen["of"]} if kind == "sanitized" and status == 0 else {}))
    print(f"{target:12} {kind:9} {seen['executions']:11,} executions {processor:7.0f} s  "
          f"{seen['edges']} edges{'  FOUND SOMETHING' if status else ''}", flush=True)
    if status:
        shutil.copy(log, FOUND / f"{target}-{int(time.time())}.log")
    return status == 0


def turn(state, target, seconds):
    """One target's turn of a round."""
    if STOPPED.is_set():
        return
    folder = Path(tempfile.mkdtemp(prefix=f"golt-{target}-", dir=MEMORY))
    try:
        kept = CORPUS / target
        kept.mkdir(parents=True, exist_ok=True)
        long = LONG if target in LARGE else 0
        new = folder / "new"
        new.mkdir()
        # Entropic scheduling costs more there than it brings: inputs are run in microseconds. Longer ones take longer,
        # and are left to the other parts.
        part(state, "fuzz-fast", target, seconds * FAST,
             ["-max_len=4096", "-entropic=0", new, kept, *seeds_of(target)])
        if long:
            large = folder / "large"
            large.mkdir()
            part(state, "fuzz-fast", target, seconds * long,
                 ["-max_len=1048576", "-entropic=0", large, LARGE_SEEDS / target])
        run(command("fuzz-fast", target, "-max_len=65536", "-merge=1", kept, new), folder / "merge.log")
        found = folder / "found"
        found.mkdir()
        part(state, "fuzz", target, seconds * (1 - FAST - long), ["-max_len=65536", found, kept, *seeds_of(target)])
        run(command("fuzz", target, "-max_len=65536", "-merge=1", kept, found), folder / "merge.log")
    finally:
        shutil.rmtree(folder)


def differential(state, seconds):
    """Compares the two builds on random files for a while."""
    with tempfile.TemporaryDirectory(prefix="golt-differ-", dir=MEMORY) as folder:
        differ = Differ(TOP, Path(folder), FOUND)
        compared, findings = differ.compare_for(seconds, STOPPED)
    state.add(DIFFERENTIAL, {"executions": compared, "processor_seconds": differ.processor, "findings": findings})
    print(f"{DIFFERENTIAL:12} {compared:21,} files, {findings} findings", flush=True)


def soak(state, hours, jobs, targets):
    """Whole rounds; each target has its turn in each, jobs of them at a time."""
    FOUND.mkdir(parents=True, exist_ok=True)
    subprocess.run([TOP / "build/fuzz-fast/bin/make_seeds", TOP / "build/fuzz/made"], check=True)
    begin = time.monotonic()
    total = hours * 3600
    rounds = max(ROUNDS_LEAST, round(total / ROUND))
    share = total / rounds * jobs / (len(targets) + 1)
    for number in range(rounds):
        if STOPPED.is_set():
            break
        print(f"round {number + 1} of {rounds}, {share:.0f} s for each target", flush=True)
        with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
            turns = [pool.submit(turn, state, target, share) for target in targets]
            turns.append(pool.submit(differential, state, share))
            for one in turns:
                one.result()
    state.add("hours", {"wall": (time.monotonic() - begin) / 3600})


def row_of(target, row):
    rates = [f"{row.get(f'{kind}_executions', 0) / max(row.get(f'{kind}_seconds', 0), 1):,.0f}" for kind in KINDS]
    executions = [row.get(f"{kind}_executions", 0) for kind in KINDS]
    return (f"| `{target}` | {sum(executions):,} | {executions[1]:,} | {' and '.join(rates)} "
            f"| {row.get('edges', 0)} of {row.get('edges_of', 0)} | {row['findings']} "
            f"| {row['slowest_ms']:.0f} ms | {row['heap_kib']:,.0f} KiB |")


def table(state):
    """What all runs have seen, as docs/robustness.md has it."""
    rows = [row_of(target, row) for target, row in sorted(state.all.items()) if "fast_executions" in row]
    files = state.all.get(DIFFERENTIAL, {})
    processor = sum(row.get(f"{kind}_seconds", 0) for row in state.all.values() for kind in (*KINDS, "processor"))
    return "\n".join([HEAD, "|---|--:|--:|--:|--:|--:|--:|--:|", *rows, "",
                      f"Of {files.get('executions', 0):,} random files {files.get('findings', 0)} came out otherwise. "
                      f"That took {processor / 3600:.1f} hours of a processor.", ""])


def write_page(state):
    """Puts the table in the place of the one that is there."""
    page = PAGE.read_text()
    written = re.sub(re.escape(HEAD) + r"\n(\|.*\n)+\n(Of .* of a processor\.\n)?", lambda _: table(state), page)
    PAGE.write_text(written)


def main():
    parser = argparse.ArgumentParser(prog="./dev soak", description=__doc__.split("\n")[0])
    parser.add_argument("--jobs", type=int, default=1, help="targets that run at a time")
    parser.add_argument("--table", action="store_true", help="only writes what all runs have seen")
    parser.add_argument("--all", required=True, help=argparse.SUPPRESS)
    parser.add_argument("hours", type=float, nargs="?", default=1)
    parser.add_argument("targets", nargs="*")
    options = parser.parse_args()
    state = State()
    if options.table:
        if not state.all:
            sys.exit("No run has been made here.")
        write_page(state)
    else:
        os.nice(19)
        signal.signal(signal.SIGTERM, stop)
        signal.signal(signal.SIGINT, stop)
        soak(state, options.hours, max(options.jobs, 1), options.targets or options.all.split())
    print(table(state), end="")


main()

#!/usr/bin/env python3
"""Which lines of the host program and of ts/ the tests don't reach, as a table in docs/coverage.md.

    test/coverage.py BUILD PROFILES PROGRAM...

BUILD is the folder of the preset coverage-host, PROFILES that of what the programs have counted. The column of reasons
is written by hand: the rows keep it. A file with lines that aren't reached and without a reason is an error. Files that
are reached as a whole have no row.
"""

import collections
import re
import subprocess
import sys
from pathlib import Path

TOP = Path(__file__).resolve().parent.parent
PAGE = TOP / "docs/coverage.md"
HEAD = "| File | Lines | Reached | Not reached | Why |"


def lines_of(build, profiles, programs):
    """For each source file: how often each of its lines ran."""
    merged = build / "all.profdata"
    subprocess.run(["llvm-profdata-14", "merge", "-sparse", "-o", merged, *profiles.glob("*.profraw")], check=True)
    objects = [word for program in programs[1:] for word in ("-object", program)]
    lcov = subprocess.run(["llvm-cov-14", "export", "-format=lcov", f"-instr-profile={merged}", programs[0], *objects],
                          check=True, stdout=subprocess.PIPE, text=True).stdout
    files = collections.defaultdict(lambda: collections.defaultdict(int))
    name = None
    for line in lcov.splitlines():
        kind, _, value = line.partition(":")
        if kind == "SF":
            path = Path(value).resolve()
            name = str(path.relative_to(TOP)) if TOP in path.parents else ""
        elif kind == "DA" and re.match(r"(host|ts)/", name):
            number, count = value.split(",")[:2]
            files[name][int(number)] += int(count)
    return files


def ranges(numbers):
    """Lines as a text: 3, 5-7."""
    texts, begin = [], None
    for number, following in zip(numbers, numbers[1:] + [0]):
        begin = begin or number
        if following != number + 1:
            texts.append(str(begin) if begin == number else f"{begin}-{number}")
            begin = None
    return ", ".join(texts)


def reasons_of(page):
    return dict(re.findall(r"^\| `([^`]+)` \|.*\| ([^|]*) \|$", page, re.M))


def rewrite(page, files):
    """The page with a table of the files that aren't reached as a whole, its summary, and what lacks a reason."""
    reasons = reasons_of(page)
    rows, unexplained = [], []
    total = reached = 0
    for name, counts in sorted(files.items()):
        missing = sorted(number for number, count in counts.items() if count == 0)
        total += len(counts)
        reached += len(counts) - len(missing)
        if not missing:
            continue
        reason = reasons.get(name, "").strip()
        if not reason:
            unexplained.append(name)
        rows.append(f"| `{name}` | {len(counts)} | {len(counts) - len(missing)} | {ranges(missing)} | {reason} |\n")
    before, _, rest = page.partition(HEAD)
    after = re.sub(r"^\|[-:|]+\|\n(\| .*\n)*", "", rest.lstrip("\n"))
    summary = f"{reached} of {total} lines are reached."
    before = re.sub(r"\d+ of \d+ lines are reached\.", summary, before)
    return f"{before}{HEAD}\n|---|--:|--:|---|---|\n{''.join(rows)}{after}", summary, unexplained


def main():
    build, profiles = Path(sys.argv[1]).resolve(), Path(sys.argv[2]).resolve()
    page, summary, unexplained = rewrite(PAGE.read_text(), lines_of(build, profiles, sys.argv[3:]))
    PAGE.write_text(page)
    print(summary)
    for name in unexplained:
        print(f"no reason is given for {name}", file=sys.stderr)
    return 1 if unexplained else 0


if __name__ == "__main__":
    sys.exit(main())

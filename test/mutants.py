#!/usr/bin/env python3
"""Single-token changes to the library's sources, and whether the unit tests notice them.

    ./dev mutants [--sample N] [--seed N] [PATH...]

Takes a sample of all changes that are possible in the sources at PATH (files or folders; the whole
library without any), builds the unit tests with one change at a time and runs them. Prints, file by
file, how many changes were noticed, and those that were not. The same seed takes the same sample.
All is done in a copy of the tree below build/mutants; what doesn't compile counts as nothing.
"""

import argparse
import concurrent.futures
import json
import os
import random
import re
import resource
import shlex
import shutil
import subprocess
import sys
import time
from pathlib import Path

TOP = Path(__file__).resolve().parent.parent
WORK = TOP / "build" / "mutants"
TREE, BUILD = WORK / "tree", WORK / "build"
FOLDERS = ["main", "dmx", "rmx", "util"]
MEMORY = 2 << 30  # bytes that a run may take
# Freed memory stays with the program: the tests of large files spend most of their time on getting it again.
ENVIRONMENT = {**os.environ,
               "GLIBC_TUNABLES": "glibc.malloc.mmap_threshold=1073741824:glibc.malloc.trim_threshold=1073741824"}

# Between blanks, where clang-format puts binary operators and nothing else.
SWAPS = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "==", "+": "-", "-": "+",
         "*": "/", "/": "*", "%": "/", "+=": "-=", "-=": "+=", "&&": "||", "||": "&&", "&": "|",
         "|": "&", "^": "|", "<<": ">>", ">>": "<<", "|=": "&=", "&=": "|="}
BINARY = re.compile(r"(?<= )(%s)(?= |$)" % "|".join(
    re.escape(sign) for sign in sorted(SWAPS, key=len, reverse=True)))
STEP = re.compile(r"\+\+|--")
NUMBER = re.compile(r"(?<![\w.])(0[xX][0-9A-Fa-f]+|\d+)(?![\w.])")
NEGATION = re.compile(r"!(?=[\w(])")
WORD = re.compile(r"\b(true|false|std::min|std::max)\b")
WORDS = {"true": "false", "false": "true", "std::min": "std::max", "std::max": "std::min"}
# A whole statement that can go: a call, an assignment, a jump.
STATEMENT = re.compile(r"^\s+(?!return|delete|static_assert|using|constexpr|const |auto |typedef)"
                       r"(break;|continue;|(\*|\+\+|--)?[\w.>\[\]:-]+(\(.*\)|\s*[-+|&^]?=\s.*|\+\+|--);)$")
# What is in these isn't the program's: comments, texts, characters.
BLANKED = re.compile(r"//.*|\"(?:\\.|[^\"\\])*\"|'(?:\\.|[^'\\])+'")


def changes_of_line(line):
    """All changes of a line, as pairs of what they are and of the line that they make."""
    code = BLANKED.sub(lambda found: "_" * len(found.group()), line)
    if code.lstrip().startswith(("#", "static_assert", "template", "using")):
        return
    def put(found, text):
        return (f"{found.group()} to {text or 'nothing'}",
                line[:found.start()] + text + line[found.end():])
    for found in BINARY.finditer(code):
        yield put(found, SWAPS[found.group()])
    for found in STEP.finditer(code):
        yield put(found, "--" if found.group() == "++" else "++")
    for found in NUMBER.finditer(code):
        yield put(found, str(int(found.group(), 0) + 1))
    for found in NEGATION.finditer(code):
        yield put(found, "")
    for found in WORD.finditer(code):
        yield put(found, WORDS[found.group()])
    if STATEMENT.match(code):
        yield "dropped", ""


def changes_of_file(name):
    lines = (TREE / name).read_text().split("\n")
    for number, line in enumerate(lines):
        for what, changed in changes_of_line(line):
            text = "\n".join(lines[:number] + [changed] + lines[number + 1:])
            yield {"file": name, "line": number + 1, "what": what, "was": line.strip(), "text": text}


def copy_tree():
    """Brings the copy up to the working tree; what is the same keeps its time."""
    listed = subprocess.check_output(["git", "ls-files", "-co", "--exclude-standard"], cwd=TOP, text=True)
    names = {name for name in listed.split("\n") if name and (TOP / name).is_file()}
    for old in [path for path in TREE.rglob("*") if path.is_file()]:
        if str(old.relative_to(TREE)) not in names:
            old.unlink()
    for name in names:
        to = TREE / name
        to.parent.mkdir(parents=True, exist_ok=True)
        if not to.exists() or to.read_bytes() != (TOP / name).read_bytes():
            shutil.copy(TOP / name, to)


def build_tests():
    """Builds the tests as they are, fast ones. Returns the commands that compile each source and that link."""
    subprocess.run(["cmake", "-G", "Ninja", "-S", TREE, "-B", BUILD, "-DCMAKE_BUILD_TYPE=Debug",
                    "-DCMAKE_CXX_COMPILER=g++", "-DCMAKE_CXX_FLAGS_DEBUG=-O1", "-DGOLT_BUILD_HOST=OFF",
                    "-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=gold"],
                   check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["ninja", "-C", BUILD, "golt_tests"], check=True, stdout=subprocess.DEVNULL)
    compile_by = {}
    for entry in json.loads((BUILD / "compile_commands.json").read_text()):
        name = os.path.relpath(entry["file"], TREE)
        if "golt_objects" in entry["command"]:
            compile_by[name] = shlex.split(entry["command"])
    link = subprocess.check_output(["ninja", "-C", BUILD, "-t", "commands", "golt_tests"], text=True)
    link = link.strip().split("\n")[-1]
    return compile_by, shlex.split(link.split(" && ")[1])


def own_tests(name):
    """The filter of the tests of the module that a source belongs to; "" where its name gives none."""
    suites = []
    for path in (TREE / "test").glob("*_test.cpp"):
        if path.name[:-len("_test.cpp")] in name:
            suites += re.findall(r"^TEST(?:_F|_P)?\((\w+),", path.read_text(), re.MULTILINE)
    return ":".join(f"{suite}.*" for suite in sorted(set(suites)))


def run_tests(program, limits, tests="*"):
    """Whether these tests pass within the limits, seconds of the processor and of the clock. They stop at the
    first that doesn't."""
    processor, clock = limits
    def limit():
        resource.setrlimit(resource.RLIMIT_AS, (MEMORY, MEMORY))
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        resource.setrlimit(resource.RLIMIT_CPU, (processor, processor))
    try:
        return subprocess.run([program, "--gtest_fail_fast", f"--gtest_filter={tests}"], timeout=clock,
                              preexec_fn=limit, cwd=WORK, env=ENVIRONMENT,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode == 0
    except subprocess.TimeoutExpired:
        return False


def limits_by_unchanged():
    """Limits for the tests with a change, by what they take without any."""
    start, before = time.monotonic(), resource.getrusage(resource.RUSAGE_CHILDREN)
    if not run_tests(BUILD / "bin" / "golt_tests", (600, 600)):
        sys.exit("The tests fail without any change.")
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    processor = after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime
    return int(2 + 3 * processor), 5 + 3 * (time.monotonic() - start)


def try_change(change, slot, compile_by, link, limits):
    """What came of a change: "noticed", "not noticed" or "doesn't compile"."""
    place = WORK / f"slot{slot}"
    place.mkdir(exist_ok=True)
    source, changed, program = place / Path(change["file"]).name, place / "changed.o", place / "golt_tests"
    source.write_text(change["text"])
    command = list(compile_by[change["file"]])
    command[command.index("-o") + 1] = str(changed)
    command[-1] = str(source)
    # Whatever a change leaves unused or makes constant is no mistake of it.
    if subprocess.run(command + ["-O0", "-w", "-Wno-error"], cwd=BUILD, stderr=subprocess.DEVNULL).returncode != 0:
        return "doesn't compile"
    # It is linked before the library, which then isn't asked for what it defines.
    command = list(link)
    command[command.index("-o") + 1] = str(program)
    command.insert(command.index("-o"), str(changed))
    if subprocess.run(command, cwd=BUILD, stderr=subprocess.DEVNULL).returncode != 0:
        return "doesn't compile"
    own = own_tests(change["file"])
    passed = (not own or run_tests(program, limits, own)) and run_tests(program, limits, f"*-{own}")
    return "not noticed" if passed else "noticed"


def report(changes):
    """Prints what came of them. Returns the share that was noticed."""
    for name in sorted({change["file"] for change in changes}):
        of_file = [change for change in changes if change["file"] == name]
        noticed = sum(change["outcome"] == "noticed" for change in of_file)
        missed = [change for change in of_file if change["outcome"] == "not noticed"]
        print(f"{name}: {noticed} of {noticed + len(missed)} noticed")
        for change in sorted(missed, key=lambda change: change["line"]):
            print(f"    {change['line']}: {change['what']}: {change['was']}")
    noticed = sum(change["outcome"] == "noticed" for change in changes)
    tried = sum(change["outcome"] != "doesn't compile" for change in changes)
    print(f"{noticed} of {tried} noticed, {100 * noticed / max(tried, 1):.0f} %; "
          f"{len(changes) - tried} don't compile")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--sample", type=int, default=200, help="number of changes (200)")
    parser.add_argument("--seed", type=int, default=1, help="which of them (1)")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), help="changes tried at a time")
    parser.add_argument("paths", nargs="*", metavar="PATH", default=FOLDERS)
    options = parser.parse_args()

    TREE.mkdir(parents=True, exist_ok=True)
    copy_tree()
    compile_by, link = build_tests()
    names = [name for name in sorted(compile_by)
             if any(Path(path) in [Path(name), *Path(name).parents] for path in options.paths)]
    changes = [change for name in names for change in changes_of_file(name)]
    print(f"{len(changes)} changes in {len(names)} files", file=sys.stderr)
    changes = random.Random(options.seed).sample(changes, min(options.sample, len(changes)))

    limits = limits_by_unchanged()
    free = list(range(options.jobs))  # folders in which nothing is built
    def work(change):
        slot = free.pop()
        change["outcome"] = try_change(change, slot, compile_by, link, limits)
        free.append(slot)
        print(f"{change['file']}:{change['line']}: {change['what']}: {change['outcome']}", file=sys.stderr)
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        list(pool.map(work, changes))
    report(changes)


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
"""links.py FOLDER: the links of the Markdown pages below it, as far as they lead to files: each one, and the heading
that it may name, has to be there."""
import pathlib
import re
import sys
from urllib.parse import unquote

top = pathlib.Path(sys.argv[1]).resolve()
LINK = re.compile(r'!?\[[^\]]*\]\(\s*([^)\s]+)[^)]*\)|(?:href|src)="([^"]+)"')


def prose(page):
    """The lines of a page that aren't code."""
    is_code = False
    for number, line in enumerate(page.read_text(encoding="utf-8").splitlines(), 1):
        if line.lstrip().startswith("```"):
            is_code = not is_code
        elif not is_code:
            yield number, line


def anchors(page):
    """Of its headings, as forges make them; of the same words the second gets a number."""
    found = {}
    for _, line in prose(page):
        heading = re.match(r"#+\s+(.*?)\s*#*$", line)
        if not heading:
            continue
        words = re.sub(r"\[([^\]]*)\]\([^)]*\)", r"\1", heading[1]).lower()
        anchor = re.sub(r"[^\w\- ]", "", words).replace(" ", "-")
        count = found.setdefault(anchor, 0)
        found[anchor] += 1
        if count:
            found[f"{anchor}-{count}"] = 1
    return found


def fault(page, target):
    """Why a link leads nowhere, or nothing."""
    path, _, anchor = unquote(target).partition("#")
    there = (page.parent / path).resolve() if path else page
    if top not in [there, *there.parents] or not there.exists():
        return "no such file"
    if anchor and (there.suffix != ".md" or anchor not in anchors(there)):
        return "no such heading"
    return None


def main():
    count = faults = 0
    for page in sorted(top.rglob("*.md")):
        if page.relative_to(top).parts[0] in ("build", "out") or ".git" in page.parts:
            continue
        for number, line in prose(page):
            for link in LINK.finditer(re.sub(r"`[^`]*`", "", line)):
                target = link[1] or link[2]
                if re.match(r"[a-z]+:", target):
                    continue
                count += 1
                reason = fault(page, target)
                if reason:
                    faults += 1
                    print(f"{page.relative_to(top)}:{number}: {target}: {reason}")
    print(f"{count} links")
    return 1 if faults or not count else 0


sys.exit(main())

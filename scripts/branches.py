#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Branches of the library that no test takes, from a build that counts them.

A line of a template is compiled once for every type and once for every place that it is inlined
into; each copy has branches of its own, and a copy that nobody runs says nothing about the line. So
the copies of a line are laid over each other, and a branch counts as taken when it is in any of them.
Branches that only an exception takes are left out.

usage: branches.py BUILD FOLDER...     BUILD has run its tests; FOLDERs are parts of the tree
"""

from __future__ import annotations

import json
import subprocess
import sys
from collections import defaultdict
from pathlib import Path

Lines = dict[int, list[list[bool]]]


def copies_in(counts: Path, folders: list[str], copies: dict[str, Lines]) -> None:
    command = ["gcov", "--json-format", "--branch-probabilities", "--stdout", str(counts)]
    told = subprocess.run(command, capture_output=True, text=True, check=True)
    for text in filter(None, told.stdout.splitlines()):
        for file in json.loads(text)["files"]:
            name = file["file"]
            if not name.startswith(tuple(folders)):
                continue
            for line in file["lines"]:
                taken = [b["count"] > 0 for b in line["branches"] if not b["throw"]]
                if taken:
                    copies[name][line["line_number"]].append(taken)


def conditions_in(line: str) -> int:
    """How many conditions a line of source holds, each of which branches two ways."""
    joints = line.count("&&") + line.count("||")
    return max(1, joints + (not line.rstrip().endswith(("&&", "||"))))


def laid_over(copies: list[list[bool]], line: str) -> list[bool]:
    """What is inlined, gcov tells as one line with the branches of all its copies, one after the
    other; loops and checks of the compiler's own may lie between them."""
    size = 2 * conditions_in(line)
    if any(len(copy) % size for copy in copies):
        size = 2
    taken = [False] * min(size, max(len(copy) for copy in copies))
    for copy in copies:
        for place, was in enumerate(copy):
            taken[place % len(taken)] |= was
    return taken


def main(build: str, folders: list[str]) -> int:
    copies: dict[str, Lines] = defaultdict(lambda: defaultdict(list))
    for counts in sorted(Path(build).rglob("*.gcda")):
        copies_in(counts, [folder.rstrip("/") + "/" for folder in folders], copies)
    all_branches = all_taken = 0
    print(f"{'branches':44} {'all':>5} {'taken':>6}  not taken in line")
    for name in sorted(copies):
        source = Path(name).read_text().splitlines()
        lines = {at: laid_over(found, source[at - 1]) for at, found in copies[name].items()}
        branches = sum(len(taken) for taken in lines.values())
        taken = sum(sum(taken) for taken in lines.values())
        missing = [str(number) for number, taken in sorted(lines.items()) if not all(taken)]
        print(f"{name:44} {branches:5} {taken:6}  {' '.join(missing)}")
        all_branches += branches
        all_taken += taken
    print(f"{'':44} {all_branches:5} {all_taken:6}  {100 * all_taken / max(all_branches, 1):.1f} %")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], sys.argv[2:]))

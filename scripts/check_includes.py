#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks which folder includes which, and that every source carries its licence line.

An include points to a lower floor or stays in its own room. Rooms of one floor do not know each
other. Prints one line per violation, "FILE:LINE: what is wrong", and exits with 1 if there is any.

usage: check_includes.py [ROOT]        the tree to check; default: the one this script lies in
"""

import os
import re
import sys
from typing import Iterator, NamedTuple, Optional

# Lowest floor first. Tessel/ is several rooms: one per module, whose files start with its name.
FLOORS = [
    ["platform/Quarry", "platform/Weft"],
    ["platform/Corvo"],
    ["platform/WeftCorvo"],
    ["platform/Brine", "platform/Vellum"],
    ["Tessel/ShadowTypes", "Tessel/TableHelper"],
    ["Tessel/ManagedTableBase"],
    ["Tessel/DirectTable", "Tessel/EmTable"],
    ["Tessel/TableManager"],
    ["tools", "python", "bench", "examples"],
]
FLOOR_OF = {room: floor for floor, rooms in enumerate(FLOORS) for room in rooms}
CALLERS = set(FLOORS[-1])
# Parts of a module whose names do not say so.
PARTS = {
    f"Tessel/{part}": "Tessel/EmTable"
    for part in ("KeyElement", "KeysBySlot", "KeyTable", "KeyToSlotMap")
}
# Tests look into every room; nothing includes a test but another test.
TESTS = "tests"

# What the library may include in angle brackets beside the headers of the C++ standard library,
# which have no ending: libc, POSIX, Linux, and what the compiler brings (intrinsics, sanitizers).
LIBC = re.compile(
    r"(aio|dirent|dlfcn|errno|fcntl|grp|limits|poll|pthread|pwd|sched|semaphore|signal|time|unistd"
    r"|sys/[a-z]+|linux/[a-z_]+|sanitizer/[a-z_]+|[a-z]+intrin|arm_neon)\.h"
)
SOURCE = re.compile(r"\.(h|hpp|cpp)$")
LICENSED = re.compile(
    r"(\.(h|hpp|cpp|py|sh|cmake|in|map)|/CMakeLists\.txt|/Doxyfile|/debian/\w+|/dev|/\.ci/run)$"
)
LICENCE_LINE = re.compile(r"^(//|#|/\*) SPDX-License-Identifier: Apache-2\.0$")
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')
SKIPPED_FOLDERS = {".git", "build", "__pycache__"}


class Include(NamedTuple):
    line: int
    quoted: bool
    name: str


def files_of(root: str) -> Iterator[str]:
    """Every file of the tree, as a path from the root."""
    for folder, folders, names in os.walk(root):
        folders[:] = sorted(f for f in folders if f not in SKIPPED_FOLDERS)
        for name in sorted(names):
            yield os.path.relpath(os.path.join(folder, name), root)


def room_of(path: str) -> Optional[str]:
    """The room that a source belongs to; None when it belongs to none."""
    folder, _, rest = path.partition("/")
    if folder in CALLERS or folder == TESTS:
        return folder
    if folder == "platform":
        room = f"platform/{rest.partition('/')[0]}"
        return room if room in FLOOR_OF else None
    if folder == "Tessel":
        stem = SOURCE.sub("", path)
        own = [room for room in FLOOR_OF if stem.startswith(room)]
        return own[0] if own else PARTS.get(stem)
    return None


def is_internal(path: str) -> bool:
    """Whether a header is its room's own affair: "...Internal.h", and in Tessel/ every header that
    is not a module's."""
    stem = SOURCE.sub("", path)
    return stem.endswith("Internal") or (stem.startswith("Tessel/") and stem not in FLOOR_OF)


def includes_of(lines: list[str]) -> Iterator[Include]:
    for number, line in enumerate(lines, start=1):
        if found := INCLUDE.match(line):
            yield Include(number, found[1] == '"', found[2])


def target_of(room: str, name: str, sources: set[str]) -> Optional[str]:
    """The file that an include names, from the root or from platform/; in tests, from tests/ too."""
    places = ["", "platform/"] + (["tests/"] if room == TESTS else [])
    return next((place + name for place in places if place + name in sources), None)


def wrong_with_target(room: str, target: str) -> Optional[str]:
    """Why a file of `room` may not include the file `target` of this tree; None when it may."""
    other = room_of(target)
    if other == room or room == TESTS:
        return None
    if other is None:
        return f"{target} belongs to no room"
    if other == TESTS:
        return f"{room} includes a test"
    if FLOOR_OF[other] > FLOOR_OF[room]:
        return f"{room} (floor {FLOOR_OF[room]}) includes upwards: {other} (floor {FLOOR_OF[other]})"
    if FLOOR_OF[other] == FLOOR_OF[room]:
        return f"{room} includes its floor mate {other} (floor {FLOOR_OF[room]})"
    if is_internal(target):
        return f"{room} includes {target}, which is internal to {other}"
    return None


def wrong_with(room: str, include: Include, sources: set[str]) -> Optional[str]:
    in_library = room.startswith(("platform/", "Tessel/"))
    if not include.quoted:
        foreign = "." in include.name or "/" in include.name
        if in_library and foreign and not LIBC.fullmatch(include.name):
            return f"<{include.name}>: the library needs the C++ standard library and libc alone"
        return None
    target = target_of(room, include.name, sources)
    if target is None:
        return f'"{include.name}" is no file, seen from the root or from platform/'
    return wrong_with_target(room, target)


def problems_of(root: str) -> Iterator[str]:
    paths = list(files_of(root))
    sources = {path for path in paths if SOURCE.search(path)}
    for path in paths:
        if not LICENSED.search(f"/{path}"):
            continue
        with open(os.path.join(root, path), encoding="utf-8") as file:
            lines = file.read().splitlines()
        first = 1 if lines and lines[0].startswith("#!") else 0
        if len(lines) <= first or not LICENCE_LINE.match(lines[first]):
            yield f"{path}:{first + 1}: no SPDX-License-Identifier line"
        if path not in sources or path.startswith("cmake/"):
            continue
        room = room_of(path)
        if room is None:
            yield f"{path}:1: belongs to no room; scripts/check_includes.py lists them"
            continue
        for include in includes_of(lines):
            if wrong := wrong_with(room, include, sources):
                yield f"{path}:{include.line}: {wrong}"


def main() -> int:
    here = os.path.dirname(os.path.abspath(__file__))
    root = sys.argv[1] if len(sys.argv) > 1 else os.path.dirname(here)
    problems = list(problems_of(root))
    for problem in problems:
        print(problem)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())

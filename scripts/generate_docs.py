#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Fills in what the documents repeat of other files, so that it stands in one place only.

docs/pictures/floors.svg from the floors of check_includes.py, the README's table from what was
measured, and every fence with "same=PATH" from that file.

usage: generate_docs.py [--check]      with --check: writes nothing, fails where something is stale
"""

import re
import sys
import textwrap
from pathlib import Path
from typing import Iterator

sys.dont_write_bytecode = True
from check_includes import FLOORS  # noqa: E402

ROOT = Path(__file__).resolve().parents[1]
MEASURED = "docs/performance/README.md"
# Rows of the README's table: what was measured, and what it is to a reader.
ROWS = {
    "entry": "look up",
    "entryHas hit": "ask whether it is there",
    "entryIs new": "add",
    "entryIs rewrite": "change",
    "entryDel": "remove",
    "construction 90 %": "restart, per slot",
}
SLOTS = "64,000"

# --- the floors ---------------------------------------------------------------------------------

ABOUT = {
    "platform/Quarry": "slab allocator",
    "platform/Weft": "contracts, traces, hashing, type registry",
    "platform/Corvo": "counted objects, byte strings",
    "platform/WeftCorvo": "describes Corvo's objects to the registry",
    "platform/Brine": "chips, bitmap",
    "platform/Vellum": "the chunk",
    "Tessel/ShadowTypes": "keys, results",
    "Tessel/TableHelper": "geometries",
    "Tessel/ManagedTableBase": "what every table can do; access to shadow memory",
    "Tessel/DirectTable": "direct-indexed",
    "Tessel/EmTable": "exact-match: images, bookkeeping, restart",
    "Tessel/TableManager": "one agent's tables, framed in its chunk",
    "tools": "tessel",
    "python": "import tessel",
    "bench": "beside peers",
    "examples": "agent, reader",
}
WIDTH, LEFT, ROW, BOX, GAP = 860, 56, 62, 46, 12
COLOURS = {"platform": ("#e8eef4", "#4a6a8a"), "Tessel": ("#e3f1e6", "#3c7a4c")}
CALLERS = ("#f7efdf", "#8a6a2a")


def floors_svg() -> str:
    height = ROW * len(FLOORS) + 34
    top = 20
    lines = [
        "<!-- SPDX-License-Identifier: Apache-2.0 -->",
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" width="{WIDTH}" '
        f'height="{height}" font-family="sans-serif" font-size="14">',
        "<title>Which room includes which: only what lies below it</title>",
        f'<rect width="{WIDTH}" height="{height}" rx="8" fill="#ffffff"/>',
        f'<rect x="{LEFT - 12}" y="{top + ROW - 8}" width="{WIDTH - LEFT}" '
        f'height="{ROW * (len(FLOORS) - 1) + 4}" rx="6" fill="none" stroke="#9aa5b1" '
        'stroke-dasharray="5 4"/>',
        f'<path d="M22 {top + 6} V{height - 30} m-5 -9 l5 10 l5 -10" fill="none" stroke="#6b7683" '
        'stroke-width="1.6"/>',
        f'<text x="34" y="{top + ROW * len(FLOORS) / 2}" fill="#6b7683" text-anchor="middle" '
        f'transform="rotate(-90 34 {top + ROW * len(FLOORS) / 2})" font-size="12">includes</text>',
        f'<text x="{WIDTH - 24}" y="{top + ROW + 8}" fill="#6b7683" text-anchor="end" '
        'font-size="12">libTessel.so</text>',
    ]
    for room, wings in (("Tessel", [1, 4]), ("platform", [5, 8])):
        y = top + ROW * sum(wings) / 2 + BOX / 2 + 5
        lines.append(
            f'<text x="{WIDTH - 24}" y="{y:.0f}" fill="{COLOURS[room][1]}" text-anchor="end" '
            f'font-weight="bold">{room}/</text>'
        )
    for level, rooms in enumerate(reversed(FLOORS)):
        lines += floor(rooms, top + level * ROW)
    return "\n".join([*lines, "</svg>"]) + "\n"


def floor(rooms: list[str], y: int) -> Iterator[str]:
    room_width = (WIDTH - LEFT - 110 - GAP * (len(rooms) - 1)) / len(rooms)
    for place, room in enumerate(rooms):
        if room not in ABOUT:
            sys.exit(f"{__file__}: ABOUT says nothing of {room}")
        x = LEFT + place * (room_width + GAP)
        fill, stroke = COLOURS.get(room.partition("/")[0], CALLERS)
        middle = f'x="{x + room_width / 2:.0f}" text-anchor="middle"'
        yield (
            f'<rect x="{x:.0f}" y="{y}" width="{room_width:.0f}" height="{BOX}" rx="5" '
            f'fill="{fill}" stroke="{stroke}"/>'
        )
        name = room.rpartition("/")[2]
        yield f'<text {middle} y="{y + 19}" font-weight="bold" fill="#1d2733">{name}</text>'
        yield f'<text {middle} y="{y + 37}" font-size="12" fill="#45505c">{ABOUT[room]}</text>'


# --- what stands in other files -----------------------------------------------------------------


def measured_table() -> str:
    text = (ROOT / MEASURED).read_text(encoding="utf-8")
    machine = re.search(r"Written by `./dev bench`\. (.*)\.$", text, re.MULTILINE)[1]
    shape = re.search(r"^## (.*)$", text, re.MULTILINE)[1]
    rows = re.findall(r"^\|(.*)\|$", text, re.MULTILINE)
    cells = [[cell.strip() for cell in row.split("|")] for row in rows]
    first = {row[0]: row for row in reversed(cells) if row[1] == SLOTS}  # of the first shape
    about = f"{shape}; {SLOTS} slots, 90 % full; nanoseconds per operation on one core: {machine}."
    lines = [
        *textwrap.wrap(about, 100),
        "",
        "| | one by one | in bulk | by hand, on the fastest hash map | ratio |",
        "|---|--:|--:|--:|--:|",
    ]
    for name, meaning in ROWS.items():
        _, _, ours, peer, ratio, _, _, bulk, _ = first[name]
        lines.append(f"| {meaning} (`{name}`) | {ours} | {bulk} | {peer} | {ratio} |")
    return "\n".join(lines)


def filled(text: str) -> str:
    """The document with what it repeats."""
    text = re.sub(
        r"(<!-- measured -->\n).*?(<!-- end -->)",
        lambda found: f"{found[1]}{measured_table()}\n{found[2]}",
        text,
        flags=re.DOTALL,
    )

    def program_of(found: re.Match) -> str:
        source = (ROOT / found[2]).read_text(encoding="utf-8")
        program = source.partition("SPDX-License-Identifier: Apache-2.0")[2].strip()
        return f"{found[1]}\n{program}\n```\n"

    fence = re.compile(r"^(```\w+ .*?same=(\S+))\n.*?^```\n", re.MULTILINE | re.DOTALL)
    return fence.sub(program_of, text)


def generated() -> dict[Path, str]:
    texts = {ROOT / "docs/pictures/floors.svg": floors_svg()}
    for path in [ROOT / "README.md", *sorted(ROOT.glob("docs/*.md"))]:
        texts[path] = filled(path.read_text(encoding="utf-8"))
    return texts


def main() -> int:
    wanted = generated()
    stale = [p for p, text in wanted.items() if not p.exists() or p.read_text("utf-8") != text]
    for path in stale:
        if "--check" in sys.argv[1:]:
            print(f"{path.relative_to(ROOT)}: not current; run ./dev docs")
        else:
            path.write_text(wanted[path], encoding="utf-8")
            print(f"{path.relative_to(ROOT)}: filled in")
    return 1 if stale and "--check" in sys.argv[1:] else 0


if __name__ == "__main__":
    sys.exit(main())

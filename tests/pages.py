#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The pictures that the tool writes are what they claim to be.

usage: pages.py parse TOOL       the drawing is well-formed, and lies within its bounds
       pages.py browser TOOL     a browser shows the page, and tells slot and key; 77 without one
"""

import json
import os
import shutil
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as xml

SKIPPED = 77
SVG = "{http://www.w3.org/2000/svg}"
SLOTS = 600


class Bench:
    """A chunk with entries of two chips, and the pictures of it."""

    def __init__(self, tool: str):
        self.tool = tool
        self.folder = tempfile.TemporaryDirectory()
        self.chunk = f"/tessel-pages-{os.getpid()}"
        table = {"name": "a <b> & c", "kind": "exact", "entries": SLOTS, "key": 6, "result": 2,
                 "keyFormat": "mac", "resultFormat": "uint"}
        plan = {"agent": "l2", "chunk": self.chunk, "size": 65536, "startOffset": 0,
                "allowedSize": 65536, "tables": [table]}
        self.plan = self.path("plan.json")
        with open(self.plan, "w", encoding="utf-8") as file:
            json.dump(plan, file)
        lines = "".join(f"{i % 2 * 9},02:00:5e:00:53:{i:02x},{i}\n" for i in range(200))
        self.run("load", self.plan, table["name"], "-", text=lines)

    def __enter__(self) -> "Bench":
        return self

    def __exit__(self, *_) -> None:
        self.run("remove", self.plan)
        self.folder.cleanup()

    def path(self, name: str) -> str:
        return os.path.join(self.folder.name, name)

    def run(self, *words: str, text: str = "") -> None:
        subprocess.run([self.tool, *words], input=text, text=True, check=True,
                       stdout=subprocess.DEVNULL)

    def drawn(self, name: str) -> str:
        self.run("map", self.plan, "--out", self.path(name))
        return self.path(name)


def parse(bench: Bench) -> None:
    drawing = xml.parse(bench.drawn("map.svg")).getroot()
    width, height = float(drawing.get("width")), float(drawing.get("height"))
    for rect in drawing.iter(SVG + "rect"):
        x, y, w, h = (float(rect.get(name)) for name in ("x", "y", "width", "height"))
        assert 0 <= x and x + w <= width + 0.01 and 0 <= y and y + h <= height + 0.01, rect.attrib
    (grid,) = [g for g in drawing.iter(SVG + "g") if g.get("class") == "grid"]
    titles = [cell.find(SVG + "title").text for cell in grid]
    assert len(titles) == SLOTS and titles[200].endswith("slot 200, free"), titles[200]
    assert titles[3].endswith("slot 3  chip 9  02:00:5e:00:53:03 → 3"), titles[3]


def browser(bench: Bench) -> int:
    program = shutil.which("chromium") or shutil.which("chromium-browser")
    if not program:
        print("no browser here: ./dev setup browser installs one")
        return SKIPPED
    address = "file://" + bench.drawn("map.html") + "#a%20%3Cb%3E%20%26%20c/7"
    shown = subprocess.run(
        [program, "--headless", "--no-sandbox", "--disable-gpu", "--dump-dom",
         "--user-data-dir=" + bench.path("profile"), address],
        capture_output=True, text=True, timeout=240, check=True).stdout
    told = shown[shown.index('<div id="told"'):]
    told = told[told.index(">") + 1:told.index("</div>")]
    assert told == "a &lt;b&gt; &amp; c slot 7\nslot 7  chip 9  02:00:5e:00:53:07 → 7", told
    assert shown.count('class="tip hot"') == 1 and "<title>a" not in shown
    return 0


if __name__ == "__main__":
    with Bench(sys.argv[2]) as made:
        sys.exit({"parse": parse, "browser": browser}[sys.argv[1]](made))

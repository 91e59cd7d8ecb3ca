# SPDX-License-Identifier: Apache-2.0
"""The example runs, and the documents name what exists."""

import re
import subprocess
import sys
from pathlib import Path

import tessel

ROOT = Path(__file__).parents[2]


def test_the_notebook_finds_its_entries_again():
    done = subprocess.run([sys.executable, ROOT / "examples/tables.py"], capture_output=True)
    lines = done.stdout.decode().splitlines()
    assert done.returncode == 0, done.stderr.decode()
    assert "after the restart oui holds 5000" in lines and "the same entries: True" in lines
    bars = [line.split() for line in lines if line.startswith("chip")]
    before, after = ({bar[1]: int(bar[-1]) for bar in half} for half in (bars[:4], bars[4:]))
    assert sum(before.values()) == 5000 and after == {**before, "1": 0}


def test_every_documented_name_exists():
    text = (ROOT / "docs/scripting.md").read_text(encoding="utf-8")
    for name in set(re.findall(r"\btessel\.(\w+)", text)):
        assert hasattr(tessel, name), name

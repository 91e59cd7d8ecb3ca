#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Plants the bugs of tests/bugs.txt one after the other and expects a red test for each.

A copy of the tree is built once; then each bug is planted in it, the library (or the tool) is built,
and the tests run until one fails. A bug that every test lets through is built once more with the
tests, which hold inlined code of the library too, and if they stay green it is a survivor.

usage: plant_bugs.py [WORD...]     the bugs whose description holds one of the words; default: all
       plant_bugs.py --check       only whether each still fits the code

Exit status: 0 every bug was seen; 1 some survived; 2 one does not fit the code any more.
"""

from __future__ import annotations

import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass, field
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
COPY = ROOT / "build" / "bugs" / "tree"
BUILD = ROOT / "build" / "bugs" / "build"
JOBS = os.environ.get("TESSEL_JOBS", str(os.cpu_count()))
# Short runs: what a bug breaks shows at once or hardly ever.
BRIEFLY = {
    "TESSEL_TEST_SECONDS": "2",
    "TESSEL_TEST_KILLS": "120",
    "TESSEL_FUZZ_OPERATIONS": "10000",
    "GTEST_FAIL_FAST": "1",
    "GTEST_COLOR": "no",
}
EVERYTHING = ("tessel", "tessel_tests")
SLOW = "KilledAgent.*:Two*:TheTool*:Demo.*:RegistryFuzz.*:*Sizes/*"
LONGEST = 1800  # seconds for the tests without a bug, which take 20 on an idle machine


@dataclass
class Bug:
    text: str
    file: str = ""
    before: list[str] = field(default_factory=list)
    after: list[str] = field(default_factory=list)

    def planted(self, source: str) -> str:
        before, after = "\n".join(self.before), "\n".join(self.after)
        if source.count(before) != 1:
            stale(f"[{self.text}] {self.file} holds its text {source.count(before)} times, not once")
        return source.replace(before, after)


def stale(problem: str) -> None:
    print(f"bugs.txt: {problem}", file=sys.stderr)
    sys.exit(2)


def bugs_in(text: str) -> list[Bug]:
    bugs: list[Bug] = []
    for line in text.splitlines():
        if line.startswith("["):
            bugs.append(Bug(line[1:].rstrip("]")))
        elif line.startswith("-"):
            bugs[-1].before.append(line[1:])
        elif line.startswith("+"):
            bugs[-1].after.append(line[1:])
        elif line and not line.startswith(("#", "==")):
            bugs[-1].file = line
    return bugs


def copy_tree() -> None:
    """Files that are the same keep their times, and what is built of them stays."""
    listed = subprocess.run(
        ["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
        cwd=ROOT, check=True, capture_output=True, text=True,
    )  # fmt: skip
    names = {name for name in listed.stdout.split("\0") if name and (ROOT / name).is_file()}
    for old in [path for path in COPY.rglob("*") if path.is_file()]:
        if str(old.relative_to(COPY)) not in names:
            old.unlink()
    for name in sorted(names):
        target = COPY / name
        if not target.exists() or target.read_bytes() != (ROOT / name).read_bytes():
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(ROOT / name, target)


def configure() -> None:
    options = ["-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O0 -g0 -w"]
    options += [f"-DTESSEL_{part}=OFF" for part in ("PYTHON", "BENCH", "EXAMPLES")]
    command = ["cmake", "-G", "Ninja", "-S", str(COPY), "-B", str(BUILD), *options]
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL)


def build(*targets: str) -> None:
    command = ["ninja", "-C", str(BUILD), "-j", JOBS, *targets]
    built = subprocess.run(command, capture_output=True, text=True)
    if built.returncode != 0:
        stale(f"does not compile:\n{built.stdout[-3000:]}")


def red_test(seconds: float) -> str:
    """The test that failed, or what else ended the run; empty when all passed."""
    return red_among(f"-{SLOW}", seconds) or red_among(SLOW, seconds)


def red_among(tests: str, seconds: float) -> str:
    # A file, not a pipe: who outlives the tests would keep that open.
    with tempfile.TemporaryFile("w+", errors="replace") as output:
        run = subprocess.Popen(
            [BUILD / "tests" / "tessel_tests", f"--gtest_filter={tests}"], start_new_session=True,
            env=os.environ | BRIEFLY, stdout=output, stderr=subprocess.STDOUT,
        )  # fmt: skip
        try:
            status = run.wait(timeout=seconds)
        except subprocess.TimeoutExpired:
            status = None
        finally:
            end_group(run.pid)
        run.wait()
        output.seek(0)
        told = output.read()
    if status == 0:
        return ""
    started = re.findall(r"^\[ RUN      \] (\S+)", told, re.MULTILINE)
    if status is None:
        return f"{started[-1]} (does not end)"
    failed = re.findall(r"^\[  FAILED  \] (\S+?),? ", told, re.MULTILINE)
    return failed[0] if failed else f"{started[-1]} (ended the process)" if started else "no test ran"


def end_group(leader: int) -> None:
    """Also the processes that a test has started and that would outlive it, reading for ever."""
    try:
        os.killpg(leader, signal.SIGKILL)
    except ProcessLookupError:
        pass


def seen_by(bug: Bug, seconds: float, *targets: str) -> str:
    source = COPY / bug.file
    sound = source.read_text()
    source.write_text(bug.planted(sound))
    try:
        build(*targets)
        return red_test(seconds)
    finally:
        source.write_text(sound)


def seconds_of_all_tests() -> float:
    begun = time.monotonic()
    if red := red_test(LONGEST):
        stale(f"without a bug, {red} is red")
    return time.monotonic() - begun


def unseen_among(bugs: list[Bug], patience: float, *targets: str) -> list[Bug]:
    unseen = []
    for bug in sorted(bugs, key=lambda bug: bug.file):  # one header's share what is built of it
        if red := seen_by(bug, patience, *targets):
            print(f"seen      {bug.text}\n          {red}", flush=True)
        else:
            unseen.append(bug)
    if bugs:
        build(*targets)  # the next bugs must not meet tests that hold one of these
    return unseen


def survivors_of(bugs: list[Bug]) -> list[Bug]:
    build(*EVERYTHING)
    patience = 60 + 5 * seconds_of_all_tests()
    # The library's last: what is built for them makes the tests old, of which building takes longest.
    tools = [bug for bug in bugs if bug.file.startswith("tools/")]
    library = [bug for bug in bugs if bug not in tools]
    survivors = unseen_among(tools, patience, *EVERYTHING)
    library = unseen_among(library, patience, "Tessel")
    return survivors + unseen_among(library, patience, *EVERYTHING)


def main(words: list[str]) -> int:
    bugs = bugs_in((ROOT / "tests" / "bugs.txt").read_text())
    for bug in bugs:
        bug.planted((ROOT / bug.file).read_text())
    if words == ["--check"]:
        return 0
    chosen = [bug for bug in bugs if not words or any(word in bug.text for word in words)]
    copy_tree()
    configure()
    survivors = survivors_of(chosen)
    print(f"{len(chosen) - len(survivors)} of {len(chosen)} bugs were seen")
    for bug in survivors:
        print(f"survived: {bug.text}")
    return 1 if survivors else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

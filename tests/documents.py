#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What the documents show is so: programs compile and run, commands print what stands below them.

    ```cpp                  a program is compiled and run; a fragment is compiled, all of a document
                            as the body of one function
    ```python               run, all of a document as one script
    ```console              each line behind "$ " is run, what follows is its output; "…" stands
                            for anything, alone on a line for any lines
    ```LANGUAGE file=NAME   written to a file before any command runs, and nothing else

Each document has a folder of its own and chunks of its own, and sees the library as it is installed.

usage: documents.py BUILD [DOCUMENT...]
"""

import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
FENCE = re.compile(r"^```(\w*)([^\n]*)\n(.*?)^```$", re.MULTILINE | re.DOTALL)
CHUNK = re.compile(r"(?<![\w.])(/dev/shm)?/(l2-tables|example)(?![\w/.])")
COMPILER = os.environ.get("CXX", "g++")


class Failure(Exception):
    pass


def run(command: list[str], what: str, **options) -> str:
    done = subprocess.run(
        command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=120, **options
    )
    if done.returncode != 0:
        raise Failure(f"{what}: exit status {done.returncode}\n{done.stdout}")
    return done.stdout


def environment(build: Path, prefix: Path) -> dict[str, str]:
    """As for somebody who has the library installed under `prefix` and the examples built."""
    run(["cmake", "--install", str(build), "--prefix", str(prefix)], "install")
    return {
        **os.environ,
        "PATH": f"{prefix}/bin:{os.environ['PATH']}",
        "CMAKE_PREFIX_PATH": str(prefix),
        "PKG_CONFIG_PATH": f"{prefix}/lib/pkgconfig",
        "LD_LIBRARY_PATH": f"{prefix}/lib",
        "PYTHONPATH": f"{prefix}/lib/python3/dist-packages",
        "PYTHONDONTWRITEBYTECODE": "1",
    }


def compile_and_run(program: str, there: dict) -> None:
    flags = run(["pkg-config", "--cflags", "--libs", "tessel"], "pkg-config", **there).split()
    binary = [COMPILER, "-std=c++20", "-x", "c++", "-", "-o", "program", *flags]
    run(binary, "a program does not compile", input=program, **there)
    run(["./program"], "a program fails", **there)


def compile_fragments(fragments: list[str], there: dict) -> None:
    text = "".join(fragments)
    includes = "".join(re.findall(r"^#include .*\n", text, re.MULTILINE))
    body = re.sub(r"^#include .*\n", "", text, flags=re.MULTILINE)
    program = f'#include "Tessel/TableManager.h"\n{includes}void fragments() {{\n{body}}}\n'
    flags = run(["pkg-config", "--cflags", "tessel"], "pkg-config", **there).split()
    command = [COMPILER, "-std=c++20", "-fsyntax-only", "-x", "c++", "-", *flags]
    run(command, "the fragments do not compile", input=program, **there)


def pattern(expected: str) -> str:
    lines = (re.escape(line).replace("…", ".*") + "\n" for line in expected.splitlines())
    return "".join("(.*\n)*?" if line == ".*\n" else line for line in lines)


def run_commands(listing: str, there: dict) -> None:
    if not listing.startswith("$ "):
        raise Failure(f"no command in front of this output:\n{listing}")
    for command, expected in re.findall(r"^\$ (.*)\n((?:(?!\$ ).*\n)*)", listing, re.MULTILINE):
        done = subprocess.run(
            ["bash", "-c", command],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=120, **there,
        )  # fmt: skip
        if not re.fullmatch(pattern(expected), done.stdout):
            raise Failure(f"$ {command}\n{done.stdout}instead of\n{expected}")


def check(document: Path, environment: dict[str, str]) -> None:
    own = f"/tessel-docs-{os.getpid()}-"
    text = CHUNK.sub(lambda found: (found[1] or "") + own + found[2], document.read_text("utf-8"))
    fences = FENCE.findall(text)
    if text.count("```") != 2 * len(fences):
        raise Failure("a fence that does not end, or does not begin its line")
    with tempfile.TemporaryDirectory() as folder:
        there = {"cwd": folder, "env": environment}
        plain: dict[str, list[str]] = {}
        for language, rest, content in fences:
            if file := re.search(r"file=(\S+)", rest):
                Path(folder, file[1]).write_text(content, encoding="utf-8")
            else:
                plain.setdefault(language, []).append(content)
        try:
            fragments = [each for each in plain.get("cpp", []) if "int main(" not in each]
            if fragments:
                compile_fragments(fragments, there)
            for program in plain.get("cpp", []):
                if program not in fragments:
                    compile_and_run(program, there)
            remove_chunks(own)
            if "python" in plain:
                script = "".join(plain["python"])
                run(["/usr/bin/python3", "-"], "the Python script", input=script, **there)
            remove_chunks(own)
            for listing in plain.get("console", []):
                run_commands(listing, there)
        finally:
            remove_chunks(own)


def remove_chunks(beginning: str) -> None:
    for chunk in Path("/dev/shm").glob(beginning[1:] + "*"):
        chunk.unlink()


def main() -> int:
    build = Path(sys.argv[1]).resolve()
    named = [Path(name).resolve() for name in sys.argv[2:]]
    documents = named or [*sorted(ROOT.glob("*.md")), *sorted(ROOT.glob("docs/*.md"))]
    failed = False
    with tempfile.TemporaryDirectory() as prefix:
        installed = environment(build, Path(prefix))
        for document in documents:
            try:
                check(document, installed)
            except Failure as failure:
                print(f"{document.relative_to(ROOT)}: {failure}")
                failed = True
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())

#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks what the documents say against the sources, without running anything.

Links lead somewhere; commands of ./dev exist; docs/troubleshooting.md has a row for every contract
condition and for everything a chunk can be refused for, and for nothing else; the table of
docs/guarantees.md has every registered type. Prints one line per problem, and exits with 1 if there
is any.
"""

import re
import subprocess
import sys
from pathlib import Path
from typing import Iterator

ROOT = Path(__file__).resolve().parents[1]
LITERAL = re.compile(r'"((?:[^"\\]|\\.)*)"')
CHUNK = "platform/Vellum/VellumChunk.cpp"


# --- what the sources say -----------------------------------------------------------------------


def arguments(text: str, opening: int) -> list[str]:
    """The arguments of the call whose '(' is at `opening`."""
    parts, depth, start, at = [], 0, opening + 1, opening
    while True:
        if literal := LITERAL.match(text, at):
            at = literal.end()
            continue
        if text[at] in "({[":
            depth += 1
        elif text[at] in ")}]":
            depth -= 1
        if depth == 0 or (depth == 1 and text[at] == ","):
            parts.append(text[start:at].strip())
            start = at + 1
        if depth == 0:
            return parts
        at += 1


def calls(text: str, name: str) -> Iterator[list[str]]:
    for call in re.finditer(rf"(?<![\w.>]){name} ?\(", text):
        yield arguments(text, call.end() - 1)


def literals(text: str) -> list[str]:
    return [re.sub(r"\\(.)", r"\1", found) for found in LITERAL.findall(text)]


def sources() -> dict[str, str]:
    """The library's sources without their comments."""
    paths = [*ROOT.glob("Tessel/*"), *ROOT.glob("platform/*/*")]
    texts = {str(path.relative_to(ROOT)): path.read_text(encoding="utf-8") for path in paths}
    return {path: re.sub(r"(^|\s)//.*", "", text) for path, text in texts.items()}


def site_parameters(text: str) -> Iterator[tuple[str, int]]:
    """Functions that check for their caller, and the place of the argument that says what."""
    for found in re.finditer(r"(\w+)\( ", text):
        if "ContractSite" in text[found.end() : text.find(")", found.end())]:
            for place, parameter in enumerate(arguments(text, found.end() - 2)):
                if re.match(r"Weft::ContractSite \w+", parameter):
                    yield found[1], place


def contract_conditions() -> set[str]:
    texts = {path: text for path, text in sources().items() if not path.endswith("Weft/Contract.h")}
    places = {("sassert_?", 1), (r"sassert_?\.refuse", 0)}
    places.update(place for text in texts.values() for place in site_parameters(text))
    conditions = set()
    for path, text in texts.items():
        for given in re.findall(r'(?:ContractSite \w+|\.condition) = (".*?")[; ]', text):
            conditions.update(literals(given))
        for name, place in places:
            for given in calls(text, name):
                site = given[place] if place < len(given) else ""
                if literals(site):
                    conditions.add(literals(site)[0])
                elif name.startswith("sassert") and not re.search(r"[sS]ite$", site):
                    sys.exit(f"{path}: the condition of {name}({', '.join(given)}) cannot be read")
    return conditions


def chunk_refusals() -> set[str]:
    text = sources()[CHUNK]
    names = ("refuse", "refuseAsSystemSays")
    return {each for name in names for given in calls(text, name) for each in literals(given[-1])}


def registered_types() -> set[str]:
    text = (ROOT / "tests/registered-types.txt").read_text(encoding="utf-8")
    return set(re.findall(r"^\d+ (Tessel::\w+) ", text, re.MULTILINE))


# --- what the documents say ---------------------------------------------------------------------


def documents() -> list[Path]:
    known = subprocess.run(
        ["git", "ls-files", "--cached", "--others", "--exclude-standard", "*.md"],
        cwd=ROOT, capture_output=True, text=True, check=True,
    )  # fmt: skip
    return [ROOT / name for name in known.stdout.splitlines() if (ROOT / name).exists()]


def first_cells(section: str) -> set[str]:
    """What stands as code in the first column of the tables under a heading."""
    text = (ROOT / "docs/troubleshooting.md").read_text(encoding="utf-8")
    text = text.partition(f"\n## {section}\n")[2].partition("\n## ")[0]
    cells = re.findall(r"^\| `(.*?)` \|", text, re.MULTILINE)
    return {cell.replace("\\|", "|") for cell in cells}


def anchors(text: str) -> set[str]:
    headings = re.findall(r"^#+ (.*)$", text, re.MULTILINE)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


def without_code(text: str) -> str:
    text = re.sub(r"^```.*?^```$", "", text, flags=re.MULTILINE | re.DOTALL)
    return re.sub(r"`[^`\n]*`", "", text)


# --- the checks ---------------------------------------------------------------------------------


def wrong_links() -> Iterator[str]:
    for path in documents():
        for link in re.findall(r"\]\(([^)\s]+)\)", without_code(path.read_text(encoding="utf-8"))):
            name, _, anchor = link.partition("#")
            target = (path.parent / name).resolve() if name else path
            if re.match(r"https?:", link):
                continue
            if not target.exists():
                yield f"{path.relative_to(ROOT)}: no such file: {link}"
            elif anchor and anchor not in anchors(target.read_text(encoding="utf-8")):
                yield f"{path.relative_to(ROOT)}: no such heading: {link}"


def wrong_commands() -> Iterator[str]:
    text = (ROOT / "dev").read_text(encoding="utf-8")
    help_text = text.partition("<<'END'")[2].partition("\nEND")[0]
    known = set(re.findall(r"^  ([a-z]+)\b", help_text, re.MULTILINE))
    for path in documents():
        for command in re.findall(r"\./dev ([a-z]+)", path.read_text(encoding="utf-8")):
            if command not in known:
                yield f"{path.relative_to(ROOT)}: ./dev has no command {command}"


def differences(what: str, wanted: set[str], there: set[str]) -> Iterator[str]:
    if not wanted:
        yield f"{what}: nothing found in the sources, so nothing was checked"
    yield from (f"{what}: no row for `{each}`" for each in sorted(wanted - there))
    yield from (f"{what}: a row for `{each}`, which is no more" for each in sorted(there - wanted))


def problems() -> Iterator[str]:
    yield from wrong_links()
    yield from wrong_commands()
    contracts, refusals = "Contract failures", "Refused chunks"
    book = "docs/troubleshooting.md"
    yield from differences(f"{book}, {contracts}", contract_conditions(), first_cells(contracts))
    yield from differences(f"{book}, {refusals}", chunk_refusals(), first_cells(refusals))
    guarantees = (ROOT / "docs/guarantees.md").read_text(encoding="utf-8")
    rows = " ".join(re.findall(r"^\|.*", guarantees, re.MULTILINE))
    named = set(re.findall(r"`(Tessel::\w+)`", rows))
    yield from differences("docs/guarantees.md, the table of types", registered_types(), named)


def main() -> int:
    found = list(problems())
    print("\n".join(found) or "the documents agree with the sources")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())

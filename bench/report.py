#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs the benchmarks and writes what they measured: a table per shape, and a plot per operation.

Each configuration (a shape and a number of slots) runs in a process of its own, in which the rounds of
all competitors are interleaved; what memory they take is measured in another, since that forks, and every
page of a process that has forked costs a fault when it is next written. What comes out are medians of the
rounds, in nanoseconds per operation, and ratios to the fastest peer of the same run.

usage: report.py BENCHMARK FOLDER [--quick] [--rounds N] [--slots N,N,...]
"""

import argparse
import collections
import json
import pathlib
import platform
import statistics
import subprocess
import sys
import tempfile

import matplotlib

matplotlib.use("svg")
matplotlib.rcParams["svg.hashsalt"] = "tessel"  # the same bytes for the same numbers
import matplotlib.pyplot as plt  # noqa: E402

SHAPES = [("K16R8", 1), ("K6R4", 1), ("K16R8", 4)]
SIZES = [1_000, 64_000, 1_000_000, 8_000_000]
MEMORY = "memory"
OPERATIONS = [
    "entryIs new", "entryIs rewrite", "entry", "entry dependent", "entryHas hit", "entryHas miss",
    "entryDel", "walk", "deleteAll", "clearTable", "construction 90 %", "construction 10 %",
    "construction empty", "construction untouched", MEMORY,
]  # fmt: skip
OURS, IN_BULK = "tessel", " in bulk"
BULK = OURS + IN_BULK
CAREFUL = "boost, as careful"
RTE_HASH = "rte_hash"  # which only some builds of the benchmark have
# Per operation: what a number means, where it is not nanoseconds per operation.
UNITS = {"construction untouched": "ms for all slots", MEMORY: "bytes per entry"}
MEMORY_FROM = 1_000_000  # below, pages are too coarse a measure
SCALE = {"construction untouched": 1e-6}

Results = dict[tuple[str, int, int], dict[str, dict[str, float]]]


def run(benchmark: str, filter: str, rounds: int) -> list[dict]:
    """The runs of all benchmarks whose names match."""
    with tempfile.NamedTemporaryFile(suffix=".json") as out:
        subprocess.run(
            [
                benchmark,
                f"--benchmark_filter={filter}",
                f"--benchmark_repetitions={rounds}",
                "--benchmark_enable_random_interleaving=true",
                f"--benchmark_out={out.name}",
                "--benchmark_out_format=json",
            ],
            check=True,
            stdout=subprocess.DEVNULL,
        )
        return json.load(open(out.name))["benchmarks"]


def measure(benchmark: str, shape: tuple[str, int], slots: int, rounds: int) -> dict:
    """Medians by operation and competitor."""
    configuration = f"/{shape[0]}/chips:{shape[1]}/slots:{slots}/"
    timed = "|".join(operation for operation in OPERATIONS if operation != MEMORY)
    runs = run(benchmark, f"^({timed})/.*{configuration}", rounds)
    if slots >= MEMORY_FROM:
        runs += run(benchmark, f"^{MEMORY}/.*{configuration}", rounds)
    times = collections.defaultdict(lambda: collections.defaultdict(list))
    for one in runs:
        operation, who = one["name"].split("/")[:2]
        if one.get("error_occurred"):
            sys.exit(f"{one['name']}: {one['error_message']}")
        if one["run_type"] == "iteration":
            times[operation][who].append(one["real_time"] * SCALE.get(operation, 1))
    return {o: {w: statistics.median(t) for w, t in who.items()} for o, who in times.items()}


def best_peer(by_who: dict[str, float]) -> tuple[str, float]:
    peers = ((w, t) for w, t in by_who.items() if w != OURS and not w.endswith(IN_BULK))
    return min(peers, key=lambda p: p[1])


def machine() -> str:
    model = "unknown processor"
    for line in open("/proc/cpuinfo"):
        if line.startswith("model name"):
            model = line.split(":")[1].strip()
            break
    compiler = subprocess.run(["c++", "--version"], capture_output=True, text=True).stdout
    return f"{model}, {platform.system()} {platform.release().split('-')[0]}, {compiler.splitlines()[0]}"


def table(results: Results, shape: tuple[str, int]) -> list[str]:
    lines = [
        "| operation | slots | tessel | best peer | ratio | as careful | ratio | in bulk | ratio |",
        "|---|--:|--:|--:|--:|--:|--:|--:|--:|",
    ]
    for operation in OPERATIONS:
        for slots in SIZES:
            by_who = results.get((*shape, slots), {}).get(operation, {})
            if OURS not in by_who or (operation == MEMORY and slots < MEMORY_FROM):
                continue
            peer, time = best_peer(by_who)
            name = f"{operation} ({UNITS[operation]})" if operation in UNITS else operation
            row = f"| {name} | {slots:,} | {by_who[OURS]:.3g} | {time:.3g} {peer} "
            row += f"| {by_who[OURS] / time:.2f} " if time > 0 else "| "
            careful = by_who.get(CAREFUL)
            row += f"| {careful:.3g} | {by_who[OURS] / careful:.2f} " if careful else "| | "
            bulk = by_who.get(BULK)
            row += f"| {bulk:.3g} | {bulk / time:.2f} |" if bulk else "| | |"
            lines.append(row)
    return lines


def bulk_table(results: Results, shape: tuple[str, int]) -> list[str]:
    """Calls in bulk, of the library and of the peer that has some."""
    peer = RTE_HASH + IN_BULK
    lines = [f"| operation | slots | {BULK} | {peer} | ratio |", "|---|--:|--:|--:|--:|"]
    for operation in OPERATIONS:
        for slots in SIZES:
            by_who = results.get((*shape, slots), {}).get(operation, {})
            if peer in by_who:
                ours, theirs = by_who[BULK], by_who[peer]
                row = f"| {operation} | {slots:,} | {ours:.3g} | {theirs:.3g} | {ours / theirs:.2f} |"
                lines.append(row)
    return lines


def plot(results: Results, operation: str, folder: pathlib.Path) -> str:
    """Cost against the number of slots, for the first shape; the file's name."""
    figure, axes = plt.subplots(figsize=(7, 4.2))
    by_who = collections.defaultdict(list)
    for slots in SIZES:
        for who, time in results.get((*SHAPES[0], slots), {}).get(operation, {}).items():
            by_who[who].append((slots, time))
    for who, points in sorted(by_who.items(), key=lambda item: not item[0].startswith(OURS)):
        ours = who.startswith(OURS)
        axes.plot(*zip(*points), marker="o", linewidth=2.5 if ours else 1.2, label=who)
    axes.set(xscale="log", yscale="log", xlabel="slots, 90 % full", title=operation)
    axes.set_ylabel(UNITS.get(operation, "ns per operation"))
    axes.grid(True, which="both", alpha=0.25)
    axes.legend(fontsize=8)
    name = operation.replace(" %", "").replace(" ", "-") + ".svg"
    figure.savefig(folder / name, bbox_inches="tight", metadata={"Date": None})
    plt.close(figure)
    return name


def about_rte_hash(results: Results) -> list[str]:
    if not any(RTE_HASH in by_who for each in results.values() for by_who in each.values()):
        return ["`./dev bench --dpdk` measures beside `rte_hash` of DPDK, too."]
    return [
        "`rte_hash` of DPDK gives each key a position, which is its slot; its table is extendable,",
        "hashes with CRC32, and lies in pages of 2 MB.",
    ]


def write(results: Results, folder: pathlib.Path, rounds: int) -> None:
    folder.mkdir(parents=True, exist_ok=True)
    lines = [
        "# Performance",
        "",
        "Written by `./dev bench`. " + machine() + ".",
        f"One core, medians of {rounds} interleaved rounds, nanoseconds per operation unless said",
        "otherwise. Every peer does the whole job: finds the slot of (chip, key), keeps the free slots,",
        "writes the image. It knows its lengths at compile time, has room for every slot from the start,",
        "writes no traces, checks nothing, and orders nothing for readers or a restart. `as careful` is",
        "the one on boost's map once more, behind calls, with images that a kill between two stores or a",
        "reader beside the writer cannot split and that are compared before a result is believed: what",
        "the guarantees cost, apart from the map. Below a quarter, differences are noise on such a machine.",
        *about_rte_hash(results),
        "",
    ]
    for shape in SHAPES:
        rows = table(results, shape)
        if len(rows) > 2:
            key, result = shape[0][1:].split("R")
            lines += [
                f"## Keys of {key}, results of {result} bytes, chips per key: {shape[1]}",
                "",
                *rows,
                "",
            ]
        rows = bulk_table(results, shape)
        if len(rows) > 2:
            lines += ["Bulk look-up beside `rte_hash`:", "", *rows, ""]
    for operation in OPERATIONS:
        if operation != MEMORY and any(operation in each for each in results.values()):
            lines += [f"![{operation}]({plot(results, operation, folder)})", ""]
    (folder / "README.md").write_text("\n".join(lines).rstrip() + "\n")


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("benchmark")
    parser.add_argument("folder", type=pathlib.Path)
    parser.add_argument("--quick", action="store_true", help="small tables, one shape, three rounds")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--slots", default=",".join(map(str, SIZES)))
    options = parser.parse_args()
    shapes = SHAPES[:1] if options.quick else SHAPES
    sizes = [1_000, 64_000] if options.quick else [int(slots) for slots in options.slots.split(",")]
    rounds = 3 if options.quick else options.rounds
    results: Results = {}
    for slots in sizes:
        for shape in shapes:
            print(f"{shape[0]}, chips per key {shape[1]}, {slots:,} slots", file=sys.stderr)
            results[(*shape, slots)] = measure(options.benchmark, shape, slots, rounds)
            write(results, options.folder, rounds)
    print(options.folder / "README.md")


if __name__ == "__main__":
    main()

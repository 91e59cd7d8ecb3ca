#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What one attribute and one byte-string operation cost from Python, beside a property and a method
of a class written in Python. bench/RegistryBench.cpp measures the same two in C++.

usage: build/release/tessel-python bench/python_calls.py
"""

import platform
import time
import timeit

import tessel

KEY, RESULT = bytes.fromhex("020000000001"), b"\0\7"
ROUNDS, CALLS = 7, 200_000


class Peer:
    """The same two by hand."""

    def __init__(self):
        self.entries = {(3, KEY): RESULT}
        self.offset = 44

    @property
    def vellumOffset(self):
        return self.offset

    def entry_py(self, chipId, key):
        return self.entries.get((chipId, key), b"")


def nanoseconds(expression, names):
    timer = timeit.Timer(expression, timer=time.process_time, globals=names)
    return min(timer.repeat(number=CALLS, repeat=ROUNDS)) / CALLS * 1e9


def main():
    chunk = tessel.VellumChunk.inProcess(1 << 20)
    manager = tessel.TableManager("bench", chunk, 0, chunk.size)
    mac = manager.manageEmShadow("mac", tessel.EmTableHelper(4096, 6, 2))
    mac.entryIs_py(3, KEY, RESULT)
    peer = Peer()
    assert mac.entry_py(3, KEY) == peer.entry_py(3, KEY) == RESULT
    assert mac.vellumOffset == peer.vellumOffset
    machine = f"Python {platform.python_version()}, {platform.machine()}"
    print(f"{machine}: ns of the processor, best of {ROUNDS}")
    print(f"{'':34} {'tessel':>8} {'Python':>8}")
    for call in ("{0}.vellumOffset", "{0}.entry_py(3, KEY)", "{0}.entry_py(chipId=3, key=KEY)"):
        names = {"mac": mac, "peer": peer, "KEY": KEY}
        own, by_hand = (nanoseconds(call.format(name), names) for name in ("mac", "peer"))
        print(f"{call.format('table'):34} {own:8.0f} {by_hand:8.0f}")


if __name__ == "__main__":
    main()

#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Random calls of the Python package: whatever is called, it answers or raises what it promises.

A pool of living objects is worked on by names from the registry and by names that nobody has, with
arguments that fit, that nearly fit, and that do not. A crash ends the process; an exception that is
not promised ends the run with the call that raised it. Both are repeated by the printed seed.

usage: fuzz.py [--count N] [--seed N]
"""

from __future__ import annotations

import argparse
import copy
import faulthandler
import functools
import itertools
import operator
import os
import random
import sys
from collections import Counter
from typing import Any, Callable

import tessel

PROMISED = (
    tessel.ContractError, TypeError, ValueError, OverflowError, AttributeError, KeyError, OSError,
    MemoryError,
)  # fmt: skip
NAMES = [name for module in tessel.modules() for name in module.types]
INFOS = {name: tessel.typeInfo(name) for name in NAMES}
CLASSES = {name: getattr(tessel, name.rpartition(":")[2]) for name in NAMES}
POOL_SIZE = 40
PREFIX = f"/tessel-fuzz-{os.getpid()}-"


@functools.cache
def typeName(kind: type) -> str:
    return tessel.typeInfo(kind).name


def attributesOf(info: tessel.TypeInfo) -> list[tessel.Attribute]:
    inherited = attributesOf(INFOS[info.base]) if info.base else []
    return inherited + list(info.attributes)


ATTRIBUTES = {name: attributesOf(info) for name, info in INFOS.items()}
EVERY_NAME = sorted({a.name for own in ATTRIBUTES.values() for a in own})


class Fuzz:
    def __init__(self, seed: int) -> None:
        self.random = random.Random(seed)
        self.pool: dict[str, list[Any]] = {name: [] for name in NAMES}
        self.texts = ["", "null", "Tessel::EmTableEntry(", "Tessel::EntryKey( bytes: 0x )"]
        self.answers: Counter[str] = Counter()
        self.doing = ""

    # --- arguments

    def number(self) -> Any:
        r = self.random
        if r.random() < 0.9:
            return r.choice([0, 0, 1, 2, 3, 4, 6, 8, 16, 20, 44, 64, 100, 255, r.randrange(4096)])
        bits = r.choice([8, 16, 32, 64, 65])
        return (1 << bits) - r.choice([0, 1, 2, 9]) if r.random() < 0.7 else -r.randrange(9)

    def bytes(self) -> bytes:
        return self.random.randbytes(self.random.choice([0, 1, 2, 2, 4, 6, 6, 12, 20, 21, 300]))

    def text(self) -> str:
        return self.random.choice(["mac", "vlan", "", "a", "\0", "\udc80", "é" * 5, "x" * 300])

    def junk(self) -> Any:
        r = self.random
        kinds: list[Callable[[], Any]] = [
            self.number, self.bytes, self.text, self.any, self.chunkName, lambda: None,
            lambda: r.random(), lambda: [1, "a"], lambda: (1, 64, 0), lambda: {}, lambda: object(),
            lambda: True, lambda: bytearray(4), lambda: memoryview(bytes(9))[::2], lambda: 10**5000,
            lambda: r.choice(list(CLASSES.values())), lambda: Indexable(r.choice([3, -1, 1 << 70])),
        ]  # fmt: skip
        return r.choice(kinds)()

    def chunkName(self) -> str:
        return PREFIX + self.random.choice("abc") if self.random.random() < 0.9 else "/a/b"

    def argument(self, argument: tessel.Argument) -> Any:
        r = self.random
        if r.random() < 0.06:
            return self.junk()
        if argument.type in INFOS:
            found = self.fitting(argument.type)
            return found if INFOS[argument.type].kind == "entity" or found else self.number()
        if argument.type in ("U8", "U16", "U32", "U64"):
            return self.number()
        if argument.type == "bool":
            return r.random() < 0.5
        if argument.type == "Weft::Bytes":
            return self.bytes()
        if argument.type == "Weft::String":
            return self.chunkName() if argument.name == "name" else self.text()
        return self.junk()

    def arguments(self, described: Any) -> tuple[list[Any], dict[str, Any]]:
        r = self.random
        given = [self.argument(a) for a in described]
        if r.random() < 0.05:
            given = given[: r.randrange(len(given) + 1)] + [self.junk()] * r.randrange(3)
        named: dict[str, Any] = {}
        if r.random() < 0.2:
            cut = r.randrange(len(given) + 1)
            names = [a.name for a in described][cut:] + ["other"] * len(given)
            named = dict(zip(names, given[cut:]))
            given = given[:cut]
        return given, named

    # --- objects

    def any(self) -> Any:
        return self.fitting(self.random.choice(NAMES))

    def fitting(self, name: str) -> Any:
        fits = [n for n in NAMES if issubclass(CLASSES[n], CLASSES[name]) and self.pool[n]]
        return self.random.choice(self.pool[self.random.choice(fits)]) if fits else None

    def keep(self, found: Any) -> None:
        if isinstance(found, (tessel.Value, tessel.Entity)):
            held = self.pool[typeName(type(found))]
            if len(held) < POOL_SIZE:
                held.append(found)
            else:
                held[self.random.randrange(POOL_SIZE)] = found

    # --- what is done

    def construct(self) -> Any:
        name = self.random.choice(NAMES)
        given, named = self.arguments(INFOS[name].arguments)
        if INFOS[name].kind == "value" and self.random.random() < 0.3:
            given, named = [], {}
        self.doing = f"{name}(*{given!r}, **{named!r})"
        return CLASSES[name](*given, **named)

    def chunk(self) -> Any:
        given = self.random.choice([4096, 1 << 16, 1 << 20, self.number()])
        self.doing = f"inProcess({given!r})"
        return tessel.VellumChunk.inProcess(given)

    def attribute(self) -> Any:
        target = self.any()
        if target is None:
            return None
        own = ATTRIBUTES[typeName(type(target))]
        if not own or self.random.random() < 0.05:
            return self.strange(target)
        attribute = self.random.choice(own)
        self.doing = f"{target!s}.{attribute.name}"
        if attribute.kind == "collection":
            return self.collection(getattr(target, attribute.name))
        if attribute.kind.startswith("op"):
            given, named = self.arguments(attribute.arguments)
            self.doing += f"(*{given!r}, **{named!r})"
            return getattr(target, attribute.name)(*given, **named)
        return self.stored(target, attribute)

    def stored(self, target: Any, attribute: tessel.Attribute) -> Any:
        r = self.random
        if r.random() < 0.6:
            return getattr(target, attribute.name)
        if r.random() < 0.1:
            return delattr(target, attribute.name)
        value: Any = tuple(self.arguments(attribute.arguments)[0])
        if not attribute.arguments:
            accepted = tessel.Argument("", attribute.type, attribute.annotation, False, None)
            value = self.argument(accepted)
        self.doing += f" = {value!r}"
        return setattr(target, attribute.name, value)

    def strange(self, target: Any) -> Any:
        """A name of another type, or of nobody; a method of another class; another class for it."""
        r = self.random
        name = r.choice(EVERY_NAME + ["", "x\0y", "__dict__", "__class__"])
        self.doing = f"{target!s} strange {name!r}"
        if r.random() < 0.3:
            return setattr(target, name, self.junk())
        holder = r.choice(list(CLASSES.values()))
        member = getattr(holder, name)
        if hasattr(member, "__get__") and r.random() < 0.8:
            return member.__get__(target, type(target))
        return member(target, *[self.junk() for _ in range(r.randrange(4))])

    def collection(self, mapping: Any) -> Any:
        r = self.random
        key, value = r.choice([self.junk, self.number, self.any])(), self.junk()
        if r.random() < 0.5 and len(mapping):
            key = r.choice(list(itertools.islice(mapping, 20)))
        if r.random() < 0.5:
            value = self.any()
        actions: list[Callable[[], Any]] = [
            lambda: mapping[key], lambda: mapping.get(key), lambda: key in mapping,
            lambda: len(mapping), lambda: mapping.capacity, lambda: repr(mapping),
            lambda: operator.setitem(mapping, key, value), lambda: operator.delitem(mapping, key),
            lambda: operator.setitem(mapping, key, None), lambda: list(mapping.items())[:9],
            lambda: mapping == {}, lambda: hash(mapping), lambda: mapping.pop(key, None),
            lambda: [mapping.__delitem__(k) for k in itertools.islice(mapping, 9)],
        ]  # fmt: skip
        self.doing += f" key {key!r} value {value!r}"
        return r.choice(actions)()

    def whole(self) -> Any:
        """What can be done with any object."""
        a, b = self.any(), self.random.choice([self.any, self.junk])()
        actions: list[Callable[[], Any]] = [
            lambda: self.texts.append(str(a)), lambda: repr(a), lambda: hash(a), lambda: bool(a),
            lambda: a == b, lambda: a != b, lambda: a < b, lambda: a >= b, lambda: copy.copy(a),
            lambda: copy.deepcopy(a), lambda: list(itertools.islice(a, 50)), lambda: a in [b],
            lambda: tessel.useCount(a), lambda: tessel.liveObjects(type(a)), lambda: dir(a),
            lambda: setattr(a, "__class__", type(b)), lambda: object.__new__(type(a)),
            lambda: type(a).__new__(type(b)), lambda: a.__init__(b), lambda: a.__reduce_ex__(4),
        ]  # fmt: skip
        self.doing = f"whole {a!s} {b!r}"
        return self.random.choice(actions)()

    def parse(self) -> Any:
        r = self.random
        text = r.choice(self.texts)
        for _ in range(r.choice([0, 0, 1, 1, 2, 5])):
            at = r.randrange(len(text) + 1)
            part = r.choice([*'"(),:@1 \0é', "0x", "null", text[:9]])
            text = text[:at] + part + text[at + r.randrange(4) :]
        name = text.partition("(")[0].strip() if r.random() < 0.7 else r.choice(NAMES)
        self.doing = f"{name}.fromString({text!r})"
        del self.texts[200:]
        self.random.shuffle(self.texts)
        return CLASSES.get(name, tessel.EmTableEntry).fromString(text)

    def forget(self) -> None:
        self.doing = "forget"
        held = self.pool[self.random.choice(NAMES)]
        del held[: self.random.randrange(1 + len(held))]

    def step(self) -> None:
        actions = [self.construct, self.chunk, self.attribute, self.whole, self.parse, self.forget]
        action = self.random.choices(actions, [18, 2, 60, 12, 7, 1])[0]
        try:
            self.keep(action())
            self.answers["answered"] += 1
        except UnicodeDecodeError:  # a ValueError, but none that is promised
            raise
        except PROMISED as error:
            self.answers[type(error).__name__] += 1


class Indexable:
    def __init__(self, value: int) -> None:
        self.value = value

    def __index__(self) -> int:
        return self.value


def main() -> int:
    parser = argparse.ArgumentParser(description="random calls of the Python package")
    parser.add_argument("--count", type=int, default=20000)
    parser.add_argument("--seed", type=int, default=1)
    options = parser.parse_args()
    faulthandler.enable()
    print(f"{options.count} calls, seed {options.seed}", flush=True)
    fuzz = Fuzz(options.seed)
    done = 0
    try:
        for done in range(options.count):
            fuzz.step()
            if done % 1_000_000 == 999_999:
                print(f"{done + 1} calls done", file=sys.stderr)
    except Exception:
        print(f"call {done}: {fuzz.doing}", file=sys.stderr)
        raise
    finally:
        for letter in "abc":
            if os.path.exists(f"/dev/shm{PREFIX}{letter}"):
                tessel.VellumChunk.remove(PREFIX + letter)
    print(", ".join(f"{kind}: {count}" for kind, count in fuzz.answers.most_common()))
    missing = {"answered", "ContractError", "TypeError", "ValueError"} - fuzz.answers.keys()
    return 1 if options.count >= 10000 and missing else 0


if __name__ == "__main__":
    sys.exit(main())

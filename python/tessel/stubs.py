# SPDX-License-Identifier: Apache-2.0
"""Writes the package's stub, which editors and type checkers read, from the type registry.

usage: python3 -m tessel.stubs [FILE]        default: standard output
"""

from __future__ import annotations

import keyword
import re
import sys
from typing import Iterable, Iterator

import tessel
from tessel.registry import Argument, Attribute, TypeInfo

HEADING = '''\
# Made by python3 -m tessel.stubs.
import builtins
from collections.abc import Iterator, MutableMapping
from typing import Any, ClassVar, Generic, NoReturn, TypeVar, overload

from tessel.registry import Argument as Argument, Attribute as Attribute, Module as Module
from tessel.registry import TypeInfo as TypeInfo, modules as modules, typeInfo as typeInfo

Buffer = bytes | bytearray | memoryview
K = TypeVar("K")
V = TypeVar("V")
Self = TypeVar("Self")

class Value:
    """A registered value: copied, compared and printed; it has no identity."""

    @classmethod
    def fromString(cls: type[Self], text: str) -> Self:
        """The value whose str() the text is. ValueError says where a text is not one."""

    def __copy__(self: Self) -> Self: ...
    def __deepcopy__(self: Self, memo: Any) -> Self: ...
    def __bool__(self) -> bool: ...
    def __lt__(self: Self, other: Self) -> bool: ...
    def __le__(self: Self, other: Self) -> bool: ...
    def __gt__(self: Self, other: Self) -> bool: ...
    def __ge__(self: Self, other: Self) -> bool: ...

class Entity:
    """A registered object, held by reference: two handles of one object are equal."""

class Collection(MutableMapping[K, V], Generic[K, V]):
    """A collection of an object, as a mapping. Assigning None removes a member."""

    @property
    def capacity(self) -> int:
        """Members held before the collection takes more memory."""

    def __getitem__(self, key: K) -> V: ...
    def __setitem__(self, key: K, value: V | None) -> None: ...
    def __delitem__(self, key: K) -> None: ...
    def __iter__(self) -> Iterator[K]: ...
    def __len__(self) -> int: ...

class ContractError(RuntimeError):
    condition: str
    message: str
    module: str
    operation: str

def liveObjects(ofClass: type[Entity]) -> int: ...
def useCount(object: Entity) -> int: ...
'''


def inside(info: TypeInfo, line: str) -> str:
    """The line as it has to read in the class, where an attribute that goes by a name of Python's
    own hides it."""
    for name in {a.name for a in info.attributes} & {"bool", "bytes", "int", "str"}:
        line = re.sub(rf"(: |-> ){name}\b", rf"\1builtins.{name}", line)
        line = re.sub(rf"(\[|, ){name}\b(?!:)", rf"\1builtins.{name}", line)
    return line


def short(name: str) -> str:
    return name.rpartition(":")[2]


def given(annotation: str) -> str:
    """What a caller may give where the library holds what the annotation says."""
    return "Buffer" if annotation == "bytes" else annotation


def parameters(first: list[str], arguments: Iterable[Argument]) -> str:
    own = [
        f"{a.name}: {given(a.annotation)}" + (f" = {a.default!r}" if a.optional else "")
        for a in arguments
    ]
    return ", ".join(first + own)


def function(signature: str, doc: str = "") -> Iterator[str]:
    if not doc:
        yield f"def {signature}: ..."
        return
    yield f"def {signature}:"
    yield f'    """{doc}"""'


def takesRawPointers(operation: Attribute) -> bool:
    return any("Ptr" in a.type and a.annotation == "None" for a in operation.arguments)


def operationLines(operation: Attribute) -> Iterator[str]:
    static = operation.kind == "opStatic"
    if static:
        yield "@staticmethod"
    result = "NoReturn" if takesRawPointers(operation) else operation.annotation
    own = parameters([] if static else ["self"], operation.arguments)
    yield from function(f"{operation.name}({own}) -> {result}", operation.doc)


def propertyLines(attribute: Attribute) -> Iterator[str]:
    yield "@property"
    yield from function(f"{attribute.name}(self) -> {attribute.annotation}", attribute.doc)
    if attribute.kind == "state" and attribute.annotation != "None":
        yield f"@{attribute.name}.setter"
        several = ", ".join(given(a.annotation) for a in attribute.arguments)
        value = f"tuple[{several}]" if several else given(attribute.annotation)
        yield from function(f"{attribute.name}(self, value: {value}) -> None")
        if several:
            yield f"@{attribute.name}.deleter"
            yield from function(f"{attribute.name}(self) -> None")


def attributeLines(attribute: Attribute) -> Iterator[str]:
    if keyword.iskeyword(attribute.name):
        yield f"# {attribute.name}: reached with getattr alone"
    elif attribute.kind == "fixedValue":
        yield f"{attribute.name}: ClassVar[{attribute.annotation}]"
    elif attribute.kind == "collection":
        yield "@property"
        mapping = f"Collection[{attribute.keyAnnotation}, {attribute.annotation}]"
        yield from function(f"{attribute.name}(self) -> {mapping}", attribute.doc)
    elif attribute.kind in ("op", "opConst", "opStatic"):
        yield from operationLines(attribute)
    else:
        yield from propertyLines(attribute)


def constructorLines(info: TypeInfo) -> Iterator[str]:
    own = parameters(["self"], info.arguments)
    if not info.constructible:
        yield "def __init__(self, *args: NoReturn) -> None: ..."
    elif info.kind == "entity" or not info.arguments:
        yield from function(f"__init__({own}) -> None")
    else:
        yield "@overload"
        yield "def __init__(self) -> None: ..."
        yield "@overload"
        yield from function(f"__init__({own}) -> None")


def classLines(info: TypeInfo) -> Iterator[str]:
    base = short(info.base) if info.base else {"value": "Value", "entity": "Entity"}[info.kind]
    yield f"class {short(info.name)}({base}):"
    if info.doc:
        yield f'    """{info.doc}"""'
        yield ""
    for line in constructorLines(info):
        yield f"    {inside(info, line)}"
    if info.walks:
        yield f"    def __iter__(self) -> Iterator[tuple[{', '.join(info.walks)}]]: ..."
    if info.kind == "value" and not info.hashable:
        yield "    __hash__: ClassVar[None]  # type: ignore[assignment]"
    for attribute in info.attributes:
        if not attribute.hidden:
            for line in attributeLines(attribute):
                yield f"    {inside(info, line)}"


def stub() -> str:
    """The whole text."""
    parts = [HEADING]
    for module in tessel.modules():
        for name in module.types:
            parts.append("\n".join(classLines(tessel.typeInfo(name))) + "\n")
    return "\n".join(parts)


def main() -> None:
    text = stub()
    if len(sys.argv) == 1:
        sys.stdout.write(text)
        return
    with open(sys.argv[1], "w", encoding="utf-8") as file:
        file.write(text)


if __name__ == "__main__":
    main()

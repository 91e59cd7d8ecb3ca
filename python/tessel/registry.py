# SPDX-License-Identifier: Apache-2.0
"""What the library's type registry says of its modules and types."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any

import tessel._tessel as _tessel


@dataclass(frozen=True)
class Argument:
    """One argument of an operation or a constructor."""

    name: str
    type: str  # as registered: "U32", "Weft::Bytes", "Brine::ChipId"
    annotation: str  # what Python programs give: "int", "bytes", "EmTableHelper | None"
    optional: bool
    default: Any


@dataclass(frozen=True)
class Attribute:
    """One attribute or operation of a type."""

    name: str
    id: int
    kind: str  # constant readOnly state hidden fixedValue op opConst opStatic opHidden collection
    type: str  # of an operation: its result's, "void" for none; of a collection: its values'
    annotation: str
    keyType: str  # of a collection; else ""
    keyAnnotation: str | None
    arguments: tuple[Argument, ...]
    hidden: bool
    doc: str


@dataclass(frozen=True)
class TypeInfo:
    """One registered type."""

    name: str
    module: str
    index: int
    kind: str  # value entity
    base: str | None
    constructible: bool
    hashable: bool
    arguments: tuple[Argument, ...]  # of the constructor
    attributes: tuple[Attribute, ...]  # its own, in declaration order
    walks: tuple[str, ...]  # annotations of the items when it iterates; else ()
    doc: str


@dataclass(frozen=True)
class Module:
    """One module and the full names of its types."""

    name: str
    types: tuple[str, ...]


def modules() -> list[Module]:
    """The registered modules in order of registration, their types in index order."""
    return [Module(name, types) for name, types in _tessel.modules()]


def typeInfo(what: str | type | object) -> TypeInfo:
    """The registered type of this full name, or of a class or an object of this package."""
    name = what if isinstance(what, str) else _tessel.typeName(what)
    data = _withArguments(_tessel.typeData(name))
    data["attributes"] = tuple(Attribute(**_withArguments(each)) for each in data["attributes"])
    return TypeInfo(**data)


def _withArguments(data: dict[str, Any]) -> dict[str, Any]:
    data["arguments"] = tuple(Argument(**each) for each in data["arguments"])
    return data

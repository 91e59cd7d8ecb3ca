# SPDX-License-Identifier: Apache-2.0
"""Tables of a network agent in shared memory that survive the agent's restart.

    import tessel

    chunk = tessel.VellumChunk.inProcess(1 << 20)
    manager = tessel.TableManager("l2", chunk, 0, chunk.size)
    mac = manager.manageEmShadow("mac", tessel.EmTableHelper(4096, 6, 2))
    mac.entryIs_py(0, bytes.fromhex("020000000001"), b"\\0\\7")
    for chip, key, result in mac:
        print(chip, key.hex(), result.hex())

There is one class for each type that the library registers, made from the registry's description:
attributes are properties, operations are methods, collections are mappings, values compare, copy,
print and parse. help(tessel.EmShadowTable) tells about one; modules() and typeInfo() about all.

A broken precondition is a ContractError, a refusal of the operating system an OSError, no memory a
MemoryError; everything is then as it was before the call.
"""

from tessel import _tessel
from tessel._tessel import ContractError, Entity, Value, liveObjects, useCount
from tessel.collection import Collection
from tessel.registry import Argument, Attribute, Module, TypeInfo, modules, typeInfo

__all__ = [
    "Argument", "Attribute", "Collection", "ContractError", "Entity", "Module", "TypeInfo", "Value",
    "liveObjects", "modules", "typeInfo", "useCount",
]  # fmt: skip


def _addClasses() -> None:
    """A class goes by the last part of its type's name. A name that is taken stays what it is."""
    for module in modules():
        for name in module.types:
            short = name.rpartition(":")[2]
            if short not in globals():
                globals()[short] = _tessel.classNamed(name)
                __all__.append(short)


def __getattr__(name: str) -> type:
    """A type may have been registered since: by a library that was loaded later."""
    _addClasses()
    if name in globals():
        return globals()[name]
    raise AttributeError(f"module 'tessel' has no attribute {name!r}")


_addClasses()

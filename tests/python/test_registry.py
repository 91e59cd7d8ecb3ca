# SPDX-License-Identifier: Apache-2.0
"""Every type and attribute that the registry lists, compared with what its class does."""

import ast
import copy
import ctypes
import inspect
import os
import pydoc
from collections.abc import MutableMapping
from pathlib import Path

import pytest
from conftest import KEY, RESULT, Agent

import tessel

# Those of the library; a module that a test loads comes behind them.
MODULES = tessel.modules()
INFOS = [tessel.typeInfo(name) for module in MODULES for name in module.types]
CLASS = {info.name: getattr(tessel, info.name.rpartition(":")[2]) for info in INFOS}
OPERATIONS = ("op", "opConst", "opStatic")


def rows(*kinds, hidden=False):
    """One parameter for each attribute of these kinds."""
    return [
        pytest.param(info, attribute, id=f"{info.name}.{attribute.name}")
        for info in INFOS
        for attribute in info.attributes
        if attribute.kind in kinds and attribute.hidden == hidden
    ]


@pytest.fixture(scope="module")
def objects():
    """One living object of every type that scripts can have one of, by full name."""
    agent = Agent(tessel.VellumChunk.inProcess(1 << 16))
    for chip in (0, 3):
        agent.mac.entryIs_py(chip, KEY, RESULT)
    entry = tessel.EmTableEntry(True, 3, tessel.EntryKey(KEY), tessel.EntryResult(RESULT))
    found = [
        agent.chunk, agent.manager, agent.mac, agent.vlan, agent.mac.tableHelper, entry, entry.key,
        agent.vlan.tableHelper, agent.mac.managedTableIteratorConst(), entry.result,
        tessel.EmShadowTableReader(agent.mac), tessel.EmShadowTableIteratorConst(agent.mac),
        agent.mac.freeIndexBmp, agent.mac.keyToIndexList[entry.key], tessel.EmTableIndex(5),
        tessel.TableHelper(1024, 16, 8), tessel.ChipId(7),
    ]  # fmt: skip
    return {tessel.typeInfo(each).name: each for each in found}


def objectOf(objects, info):
    """One of the type or of a type derived from it; LocalMem alone has none."""
    of = [each for each in objects.values() if isinstance(each, CLASS[info.name])]
    if not of:
        assert info.name == "Tessel::LocalMem"
        pytest.skip("scripts cannot have one")
    return of[0]


def test_modules_and_types_come_in_order_of_registration():
    names = [module.name for module in MODULES]
    assert names[:2] == ["Brine", "Vellum"]
    assert names[2:8] == [
        "ShadowTypes", "TableHelper", "ManagedTableBase", "DirectTable", "EmTable", "TableManager",
    ]  # fmt: skip
    assert MODULES[2].types == ("Tessel::EntryKey", "Tessel::EntryResult")
    assert [info.index for info in INFOS if info.module == "EmTable"] == list(range(6))


@pytest.mark.parametrize("info", INFOS, ids=lambda info: info.name)
def test_a_class_is_what_its_type_says(info):
    own = CLASS[info.name]
    base = {"value": tessel.Value, "entity": tessel.Entity}[info.kind]
    assert own.__bases__ == ((CLASS[info.base] if info.base else base),)
    assert own.__module__ == "tessel" and tessel.typeInfo(own) == info
    reached = {a.name for a in info.attributes if not a.hidden}
    assert reached <= vars(own).keys()
    arguments = list(inspect.signature(own).parameters)
    assert arguments == [argument.name for argument in info.arguments]
    text = pydoc.plain(pydoc.render_doc(own))
    assert info.doc and info.doc in own.__doc__
    for attribute in info.attributes:
        assert attribute.hidden or attribute.doc and attribute.doc in text


@pytest.mark.parametrize("info, attribute", rows("constant", "readOnly"))
def test_stored_attributes_read_and_refuse_assignment(objects, info, attribute):
    target = objectOf(objects, info)
    value = getattr(target, attribute.name)
    assert value is None or type(value).__name__ in attribute.annotation or attribute.type in CLASS
    for change in (lambda: setattr(target, attribute.name, value),
                   lambda: delattr(target, attribute.name)):  # fmt: skip
        with pytest.raises(AttributeError):
            change()
    assert getattr(target, attribute.name) == value


@pytest.mark.parametrize("info, attribute", rows("state"))
def test_state_is_assigned_and_read_back(objects, info, attribute):
    target = objectOf(objects, info)
    before = getattr(target, attribute.name)
    if attribute.type == "Weft::BytePtr":
        assert before is None
        with pytest.raises(AttributeError):
            setattr(target, attribute.name, None)
    elif attribute.arguments:
        setattr(target, attribute.name, (before.id, before.size, before.initialBitState))
        assert getattr(target, attribute.name) == before  # the same arguments keep the bitmap
        with pytest.raises(TypeError, match=attribute.name):
            setattr(target, attribute.name, before)
    else:
        setattr(target, attribute.name, before)
        assert getattr(target, attribute.name) == before
        with pytest.raises(TypeError, match=attribute.name):
            setattr(target, attribute.name, object())


@pytest.mark.parametrize("info, attribute", rows("fixedValue"))
def test_fixed_values_belong_to_the_class(objects, info, attribute):
    value = getattr(CLASS[info.name], attribute.name)
    assert value == getattr(objectOf(objects, info), attribute.name)


@pytest.mark.parametrize(
    "info, attribute",
    rows("hidden", "opHidden", hidden=True),
)
def test_hidden_attributes_are_absent(objects, info, attribute):
    for place in (CLASS[info.name], objectOf(objects, info)):
        with pytest.raises(AttributeError):
            getattr(place, attribute.name)


@pytest.mark.parametrize("info, attribute", rows(*OPERATIONS))
def test_operations_have_the_registered_signature(objects, info, attribute):
    method = getattr(CLASS[info.name] if attribute.kind == "opStatic" else objectOf(objects, info),
                     attribute.name)  # fmt: skip
    parameters = inspect.signature(method).parameters
    assert [*parameters] == [argument.name for argument in attribute.arguments]
    for argument in attribute.arguments:
        optional = parameters[argument.name].default is not inspect.Parameter.empty
        assert optional == argument.optional
    with pytest.raises(TypeError):
        method(*[object()] * len(attribute.arguments), "one too many")
    with pytest.raises(TypeError, match=r"nobody|raw pointers"):
        method(nobody=1)
    pointers = [a for a in attribute.arguments if "Ptr" in a.type]
    if pointers:
        form = attribute.name + "_py"
        wanted = form if hasattr(CLASS[info.name], form) else "raw pointers"
        with pytest.raises(TypeError, match=wanted):
            method(*[0] * len(attribute.arguments))
    elif attribute.kind == "opConst" and not attribute.arguments:
        answer = method()
        assert type(answer).__name__ in attribute.annotation or attribute.type in CLASS


@pytest.mark.parametrize("info, attribute", rows("collection"))
def test_collections_are_mappings(objects, info, attribute):
    mapping = getattr(objectOf(objects, info), attribute.name)
    assert isinstance(mapping, MutableMapping)
    members = dict(mapping.items())
    assert len(mapping) == len(members) > 0 and mapping.capacity >= len(members)
    key, value = next(iter(members.items()))
    assert key in mapping and mapping[key] == value == mapping.get(key)
    assert list(mapping) == list(mapping.keys()) == list(members)
    assert list(mapping.values()) == list(members.values())
    absent = {"int": 200, "str": "absent", "EntryKey": tessel.EntryKey(b"absent")}[
        attribute.keyAnnotation
    ]
    assert absent not in mapping and mapping.get(absent) is None
    mapping[absent] = None
    for use in (lambda: mapping[absent], lambda: mapping.__delitem__(absent)):
        with pytest.raises(KeyError):
            use()
    with pytest.raises(TypeError):
        mapping[object()]
    with pytest.raises(TypeError):
        mapping[key] = object()
    mapping[absent] = value
    assert mapping[absent] == value and len(mapping) == len(members) + 1
    mapping[absent] = None
    assert dict(mapping) == members
    del mapping[key]
    assert key not in mapping
    mapping[key] = value
    assert dict(mapping) == members


@pytest.mark.parametrize("info", [i for i in INFOS if i.kind == "value"], ids=lambda i: i.name)
def test_values_copy_compare_print_and_parse(objects, info):
    if info.name == "Tessel::EmShadowTableIteratorConst":  # one over no table
        with pytest.raises(tessel.ContractError, match="emTable"):
            CLASS[info.name]()
    else:
        objects = {**objects, "default": CLASS[info.name]()}
    for value in (each for each in objects.values() if type(each) is CLASS[info.name]):
        parsed = type(value).fromString(str(value))
        assert str(parsed) == str(value)
        for other in (parsed, copy.copy(value), copy.deepcopy(value)):
            # A parsed base iterator stands for its table alone; all else equals what was printed.
            assert other == value or info.name == "Tessel::ManagedTableIteratorConst"
            if info.hashable and other == value:
                assert hash(other) == hash(value)
        if not info.hashable:
            with pytest.raises(TypeError, match="unhashable"):
                hash(value)
        assert value != object() and repr(value)
        for text in ("", str(value) + "x", "(" + str(value), "\0"):
            with pytest.raises(ValueError):
                type(value).fromString(text)


@pytest.mark.parametrize("info", INFOS, ids=lambda info: info.name)
def test_constructors_take_their_arguments_by_name_and_refuse_others(objects, info):
    own = CLASS[info.name]
    if not info.constructible:
        with pytest.raises(TypeError):
            own(*[None] * len(info.arguments))
        return
    values = [getattr(objectOf(objects, info), a.name, None) for a in info.arguments]
    if info.kind == "value":
        made = own(**{a.name: value for a, value in zip(info.arguments, values)})
        assert [getattr(made, a.name) for a in info.arguments] == values
    with pytest.raises(TypeError):
        own(*values, "one too many")
    with pytest.raises(TypeError):
        own(nobody=1)


def test_the_stub_is_complete_and_read_by_editors():
    folder = Path(tessel.__file__).parent
    tree = ast.parse((folder / "__init__.pyi").read_text(encoding="utf-8"))
    assert (folder / "py.typed").exists()
    classes = {node.name: node for node in tree.body if isinstance(node, ast.ClassDef)}
    for info in INFOS:
        node = classes[info.name.rpartition(":")[2]]
        functions = {f.name: f for f in node.body if isinstance(f, ast.FunctionDef)}
        fixed = {a.target.id for a in node.body if isinstance(a, ast.AnnAssign)}
        for attribute in info.attributes:
            assert attribute.hidden != (attribute.name in functions or attribute.name in fixed)
            if attribute.kind in OPERATIONS:
                given = [a.arg for a in functions[attribute.name].args.args if a.arg != "self"]
                assert given == [a.name for a in attribute.arguments]


def test_a_type_that_is_registered_later_has_a_class_too():
    with pytest.raises(AttributeError):
        tessel.Lamp
    ctypes.CDLL(os.environ["TESSEL_HOUSE"])
    assert tessel.modules()[-1].types[1] == "House::Room"
    kitchen = tessel.Room("kitchen")
    kitchen.next = tessel.Room(name="hall")
    assert (kitchen.next.name, kitchen.kind(), tessel.Room.size(6, b=7)) == ("hall", "room", 42)
    kitchen.scene["dim"] = tessel.Colour(5, "grey")
    assert kitchen.scene["dim"].mixed(tessel.Colour(2, "")) == 7 and len(kitchen.scene) == 1
    kitchen.bitmap = (1, 8, 0)
    del kitchen.bitmap
    assert kitchen.bitmap is None
    assert tessel.Colour(1, "") < tessel.Colour(2, "") and not tessel.Colour()
    with pytest.raises(TypeError):
        tessel.Kitchen("no creator")

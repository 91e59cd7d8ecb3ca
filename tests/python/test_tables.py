# SPDX-License-Identifier: Apache-2.0
"""What scripts do with chunks, tables, readers and entries; their mistakes cost nothing."""

import errno
import os
import pickle
import subprocess
import sys

import pytest
from conftest import KEY, RESULT, Agent

import tessel


def test_entries_are_added_found_walked_and_removed(agent):
    mac = agent.mac
    assert isinstance(mac, tessel.EmShadowTable) and isinstance(mac, tessel.ManagedTableBase)
    assert mac.entryIs_py(0, KEY, RESULT) and mac.entryIs_py(chipId=3, value=b"\0\x09", key=KEY)
    assert mac.entryIs_py(3, bytearray(KEY), memoryview(b"\0\x0a"))
    assert list(mac) == [(0, KEY, RESULT), (3, KEY, b"\0\x0a")]
    reader = tessel.EmShadowTableReader(mac)
    assert reader.entry_py(3, KEY) == mac.entry_py(3, KEY) == b"\0\x0a"
    assert not reader.entryHas_py(4, KEY) and mac.entry_py(4, KEY) == b""
    walk = mac.managedTableIteratorConst()
    assert list(walk) == list(mac) and not walk.done  # iterating leaves the walk where it stands
    walk.doInc()
    assert (walk.chipId(), walk.key_py(), bool(walk)) == (3, KEY, True)
    walk.doInc()
    assert walk.done and not walk and walk.key_py() == b""
    agent.manager.deleteAll(3)
    assert dict(mac.numUsedEntriesByChipId) == {0: 1, 3: 0}
    agent.manager.clearTable("mac")
    assert list(mac) == [] == list(agent.vlan) and mac.numUsedEntries == 0


def test_members_may_go_while_they_are_walked(agent):
    keys = [bytes([0, 0, 0, 0, 0, i]) for i in range(9)]
    for key in keys:
        agent.mac.entryIs_py(1, key, RESULT)
    seen = set()
    for key in agent.mac.keyToIndexList:
        agent.mac.entryDel_py(1, key.bytes)
        seen.add(key.bytes)
    assert seen == set(keys) and len(agent.mac.keyToIndexList) == 0


def test_a_restart_over_the_chunk_finds_the_entries(chunkName):
    chunk = tessel.VellumChunk.create(chunkName, 1 << 16)
    Agent(chunk).mac.entryIs_py(7, KEY, RESULT)
    del chunk
    again = Agent(tessel.VellumChunk.open(chunkName))
    assert list(again.mac) == [(7, KEY, RESULT)]
    assert again.manager.managedTable == {"mac": again.mac, "vlan": again.vlan}
    assert again.manager.manageEmShadow("mac", again.mac.tableHelper) == again.mac


def test_another_process_reads_while_the_chunk_is_read_only(chunkName):
    agent = Agent(tessel.VellumChunk.create(chunkName, 1 << 16))
    agent.mac.entryIs_py(7, KEY, RESULT)
    script = f"""
import tessel
chunk = tessel.VellumChunk.open({chunkName!r}, readOnly=True)
table = tessel.EmShadowTable("mac", tessel.EmTableHelper(64, 6, 2), chunk, {agent.mac.vellumOffset})
print(chunk.readOnly, list(tessel.EmShadowTableReader(table).table))
try:
    table.entryIs_py(1, {KEY!r}, {RESULT!r})
except tessel.ContractError as error:
    print(error.condition)
print(len(list(table)))
"""
    answer = subprocess.run([sys.executable, "-c", script], capture_output=True, check=True)
    assert answer.stdout.decode().splitlines() == [
        f"True {[(7, KEY, RESULT)]!r}",
        "access() == Access::readWrite",
        "1",
    ]


@pytest.mark.parametrize(
    "use, number, kind",
    [
        (lambda name: tessel.VellumChunk.create(name, 64), errno.EEXIST, FileExistsError),
        (lambda name: tessel.VellumChunk.open(name + "x"), errno.ENOENT, FileNotFoundError),
        (lambda name: tessel.VellumChunk.remove(name + "x"), errno.ENOENT, FileNotFoundError),
        (lambda name: tessel.VellumChunk.create(name[1:], 64), errno.EINVAL, OSError),
        (lambda name: tessel.VellumChunk.open("/\udc80\n"), errno.ENOENT, FileNotFoundError),
    ],
)
def test_refusals_of_the_system_are_os_errors(chunkName, use, number, kind):
    tessel.VellumChunk.create(chunkName, 64)
    with pytest.raises(kind) as caught:
        use(chunkName)
    assert caught.value.errno == number
    assert caught.value.filename.strip("/x") in (chunkName.strip("/x"), "\udc80\n")


def test_a_failed_contract_leaves_everything_usable(agent):
    before = agent.mac.entryIs_py(0, KEY, RESULT), list(agent.mac)
    with pytest.raises(tessel.ContractError) as caught:
        agent.mac.entryIs_py(0, KEY[1:], RESULT)
    error = caught.value
    assert error.module == "ManagedTableBase" and error.operation == "entryIs_py"
    assert "5 bytes" in error.message and "takes 6" in error.message
    assert all(part in str(error) for part in (error.condition, error.message, error.module))
    with pytest.raises(tessel.ContractError) as caught:
        tessel.EmShadowTable("x", None, agent.chunk, 0)
    assert caught.value.message == "" and caught.value.condition in str(caught.value)
    with pytest.raises(tessel.ContractError, match="\udc80"):  # a name that is no UTF-8
        agent.manager.manageEmShadow("\udc80", tessel.EmTableHelper(64, 6, 2)).entryHas_py(0, b"")
    assert before == (True, list(agent.mac))
    assert agent.mac.entryIs_py(1, KEY, RESULT) and agent.mac.numUsedEntries == 2


@pytest.mark.parametrize(
    "chip, key, kind",
    [
        (256, KEY, OverflowError), (-1, KEY, OverflowError), (1 << 70, KEY, OverflowError),
        (1.0, KEY, TypeError), ("1", KEY, TypeError), (None, KEY, TypeError),
        (0, "text", TypeError), (0, None, TypeError), (0, memoryview(KEY)[::2], TypeError),
        (0, tessel.EntryKey(KEY), TypeError),
    ],
)  # fmt: skip
def test_bad_arguments_are_refused_by_name(agent, chip, key, kind):
    with pytest.raises(kind, match="'chipId'" if kind is OverflowError or key is KEY else "'key'"):
        agent.mac.entryHas_py(chip, key)
    assert agent.mac.entryHas_py(tessel.ChipId(0), KEY) is False


def test_no_object_takes_another_ones_place(agent):
    class Key(tessel.EntryKey):
        __slots__ = ()

    class Entry(tessel.EmTableEntry):
        __slots__ = ()

    key = Key(b"abc")
    try:
        key.__class__ = Entry
    except TypeError:
        pass
    else:  # the class changed and the value did not
        with pytest.raises(TypeError, match="is not a Tessel::EmTableEntry"):
            key.valid
        assert str(key) == "Tessel::EntryKey( bytes: 0x616263 )"
    for make in (
        lambda: object.__new__(tessel.EntryKey), lambda: tessel.Value(), lambda: tessel.Entity(),
        lambda: tessel.Collection(), lambda: object.__new__(tessel.Collection),
        lambda: type(tessel.EmShadowTable.isFull)(), lambda: type(iter(agent.mac))(),
        lambda: tessel.EmShadowTable.isFull(key), lambda: tessel.EmShadowTable.isFull(),
        lambda: tessel.EmShadowTable.numUsedEntries.__get__(key), lambda: tessel.useCount(key),
        lambda: tessel.EmShadowTable("t", agent.vlan, agent.chunk, 0),
        lambda: agent.mac < agent.mac, lambda: tessel.EmTableHelper(1, 2, 3, **{4: 5}),
    ):  # fmt: skip
        with pytest.raises(TypeError):
            make()


def test_raw_memory_stays_out_of_reach(agent):
    agent.mac.useLocalMem = True
    with pytest.raises(tessel.ContractError, match="localBuf"):
        agent.mac.doReadVellum64(0)
    agent.mac.useLocalMem = False
    with pytest.raises(tessel.ContractError):
        agent.mac.doWriteVellum64(agent.chunk.size - 4 - agent.mac.vellumOffset, 1)
    agent.mac.doWriteVellum16(8, 0x0201)
    assert agent.mac.doReadVellum64(8) & 0xFFFF == 0x0201
    assert agent.mac.buf is None


def test_no_memory_is_a_memory_error():
    script = """
import resource, tessel
resource.setrlimit(resource.RLIMIT_AS, (1 << 30, 1 << 30))
for use in (lambda: tessel.VellumChunk.inProcess(0xffffffff),
            lambda: tessel.HBitmap(0, 0xffffffff, 0),
            lambda: [tessel.HBitmap(0, 1 << 30, 0) for _ in range(99)]):
    try:
        use()
    except MemoryError:
        print("MemoryError")
"""
    if "san.so" in os.environ.get("LD_PRELOAD", ""):
        pytest.skip("a sanitizer reserves more address space than any limit")
    answer = subprocess.run([sys.executable, "-c", script], capture_output=True, check=True)
    assert answer.stdout.split() == [b"MemoryError"] * answer.stdout.count(b"\n")
    assert answer.stdout.count(b"\n") >= 2


def test_collections_are_walked_while_members_come_and_go(agent):
    for i in range(8):
        agent.mac.entryIs_py(i % 2, bytes([i]) + KEY[1:], RESULT)
    keys = agent.mac.keyToIndexList
    walks = iter(keys.items()), iter(keys.values())
    assert [next(walk) for walk in walks][0][0] in keys
    agent.mac.clearTable()
    assert [list(walk) for walk in walks] == [[], []]
    agent.mac.entryIs_py(3, KEY, RESULT)
    assert dict(agent.mac.numUsedEntriesByChipId.items()) == {0: 0, 1: 0, 3: 1}
    assert [dict(slots.index.items()) for slots in keys.values()] == [{3: tessel.EmTableIndex(0)}]
    impossible = 300, -1, "3", None, [], tessel.EntryKey(KEY)
    counts = agent.mac.numUsedEntriesByChipId
    assert not any(key in counts or (key, 1) in counts.items() for key in impossible)
    assert (3, 1) in counts.items() and counts.get(300, 7) == 7


def test_classes_stay_what_they_are(agent):
    for name in ("bytes", "hash", "fromString", "extra"):
        with pytest.raises(TypeError, match="immutable type"):
            setattr(tessel.EntryKey, name, None)
    with pytest.raises(TypeError):
        tessel.EntryKey(KEY).__class__ = tessel.EntryResult


def test_values_travel_as_text(agent):
    class Named(tessel.EntryKey):
        pass

    agent.mac.entryIs_py(1, KEY, RESULT)
    walk = agent.mac.managedTableIteratorConst()
    assert tessel.ManagedTableIteratorConst.fromString(str(walk)) == walk
    entry = tessel.EmTableEntry(True, 1, tessel.EntryKey(KEY), tessel.EntryResult(RESULT))
    assert pickle.loads(pickle.dumps(entry)) == entry
    named = Named(KEY)
    named.name = "gateway"
    assert named.__reduce__()[2] == {"name": "gateway"}
    for here in (walk, tessel.EmShadowTableIteratorConst(agent.mac), agent.mac):
        with pytest.raises(TypeError, match="cannot pickle"):
            pickle.dumps(here)


@pytest.mark.parametrize(
    "use, message",
    [
        (lambda t: t.entry(0, 1, 2), "call entry_py with byte strings"),
        (lambda t: t.doReadVellum(0, 1, 2), "call doReadVellum64 or doReadVellum32"),
        (lambda t: t.entryHas_py(0, memoryview(KEY)[::2]), "'key': a buffer in one piece"),
        (lambda t: setattr(t, "freeIndexBmp", 5), r"^freeIndexBmp takes a tuple \(id, size"),
        (lambda t: setattr(t, "freeIndexBmp", (1, "x", 0)), r"^freeIndexBmp\(\) argument 'size'"),
        (lambda t: setattr(t, "freeIndexBmp", (1, 64, 9)), "argument 3 is 9, past the last value"),
        (lambda t: tessel.VellumChunk.open("/a\0b"), r'"/a\\x00b" is no name: .*'),
        (lambda t: tessel.VellumChunk.open("/\ud800"), "argument 'name': text with lone surrog"),
    ],
)
def test_a_refusal_says_what_is_wrong_and_where(agent, use, message):
    with pytest.raises((TypeError, ValueError, OSError), match=message):
        use(agent.mac)

# SPDX-License-Identifier: Apache-2.0
"""References held in both directions, threads, and processes that fork."""

import gc
import os
import subprocess
import sys
import threading

import pytest
from conftest import KEY, RESULT, Agent

import tessel

COUNTED = [
    tessel.VellumChunk, tessel.TableManager, tessel.EmShadowTable, tessel.DirectShadowTable,
    tessel.EmTableHelper, tessel.DirectTableHelper, tessel.EmShadowTableReader, tessel.HBitmap,
    tessel.EmTableFapIndices,
]  # fmt: skip


@pytest.fixture(autouse=True)
def nothingIsLeft():
    """Whatever a test makes is gone behind it."""
    gc.collect()
    before = [tessel.liveObjects(each) for each in COUNTED]
    yield
    gc.collect()
    assert [tessel.liveObjects(each) for each in COUNTED] == before


def newAgent():
    return Agent(tessel.VellumChunk.inProcess(1 << 16))


def test_every_handle_is_one_reference_and_equal_to_the_others():
    agent = newAgent()
    uses = tessel.useCount(agent.mac)
    handles = [agent.manager.managedTable["mac"] for _ in range(5)]
    assert tessel.useCount(agent.mac) == uses + 5
    assert len({agent.mac, *handles}) == 1 and handles[0] is not handles[1]
    handles.clear()
    assert tessel.useCount(agent.mac) == uses
    with pytest.raises(tessel.ContractError):
        agent.mac.entryHas_py(0, b"")
    with pytest.raises(TypeError):
        tessel.EmShadowTable("t", agent.mac.tableHelper, agent.chunk, "no offset")
    assert tessel.useCount(agent.mac) == uses
    values = [object(), KEY]
    counts = [sys.getrefcount(value) for value in values]
    for value in values:
        for use in (lambda: agent.mac.entryHas_py(0, value), lambda: tessel.EntryKey(value),
                    lambda: setattr(agent.mac, "localBuf", value),
                    lambda: agent.mac.keyToIndexList[value],
                    lambda: agent.mac.entryHas_py(0, key=value)):  # fmt: skip
            try:
                use()
            except TypeError:
                pass
    del value, use
    assert [sys.getrefcount(value) for value in values] == counts


def test_the_library_keeps_what_it_refers_to():
    manager = newAgent().manager
    manager.managedTable["mac"].entryIs_py(0, KEY, RESULT)
    assert list(manager.managedTable["mac"]) == [(0, KEY, RESULT)]
    mapping = manager.managedTable["mac"].keyToIndexList
    at = iter(mapping)
    walk = iter(manager.managedTable["mac"])
    value = manager.managedTable["mac"].managedTableIteratorConst()
    manager.managedTable.clear()
    del manager
    assert len(mapping) == 1 and next(at).bytes == KEY and next(walk) == (0, KEY, RESULT)
    text = str(value)
    assert value.table == tessel.ManagedTableIteratorConst.fromString(text).table
    del mapping, at, walk, value
    with pytest.raises(ValueError, match="no object"):
        tessel.ManagedTableIteratorConst.fromString(text)


def test_a_class_of_a_script_may_refer_to_itself():
    class Mine(tessel.EmShadowTable):
        pass

    agent = newAgent()
    mine = Mine("mine", tessel.EmTableHelper(4, 6, 2), agent.chunk, 4096)
    mine.members = mine.keyToIndexList
    assert mine.entryIs_py(0, KEY, RESULT) and len(mine.members) == 1


def test_lengthy_work_lets_other_threads_run():
    chunk = tessel.VellumChunk.inProcess(1 << 28)
    go, ran = threading.Lock(), []

    def other():
        go.acquire()
        ran.append(True)

    # No thread is made to hand over the interpreter: the other one runs when this one lets it.
    interval = sys.getswitchinterval()
    go.acquire()
    thread = threading.Thread(target=other)
    thread.start()
    try:
        sys.setswitchinterval(1000)
        go.release()
        for _ in range(1000):
            tessel.EmShadowTable("t", tessel.EmTableHelper(1 << 20, 6, 2), chunk, 0)
            if ran:
                break
        during = list(ran)
    finally:
        sys.setswitchinterval(interval)
    thread.join()
    assert during


def test_threads_share_tables_without_meeting_in_them():
    agent = newAgent()
    big = tessel.VellumChunk.inProcess(1 << 22)
    failures = []

    def work(chip):
        try:
            for i in range(300):
                agent.mac.entryIs_py(chip, bytes([chip, 0, 0, 0, 0, i % 8]), RESULT)
                sum(1 for _ in agent.mac)
                [k.bytes for k in agent.mac.keyToIndexList]
                if i % 50 == 0:
                    agent.manager.deleteAll(chip)
                    tessel.EmShadowTable("t", tessel.EmTableHelper(1 << 16, 6, 2), big, 0)
        except Exception as error:  # shown by the main thread
            failures.append(error)

    threads = [threading.Thread(target=work, args=(chip,)) for chip in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert failures == []
    assert agent.mac.numUsedEntries == len(list(agent.mac)) == 4 * 8


def test_a_fork_and_an_exit_amid_the_work_of_threads():
    script = """
import os, threading, tessel
chunk = tessel.VellumChunk.inProcess(1 << 24)
def work():
    while True:
        tessel.EmShadowTable("t", tessel.EmTableHelper(1 << 18, 6, 2), chunk, 0)
for _ in range(3):
    threading.Thread(target=work, daemon=True).start()
for _ in range(20):
    child = os.fork()
    if child == 0:
        os._exit(tessel.TableManager("child", chunk, 0, chunk.size).endOffset() != chunk.size)
    assert os.waitpid(child, 0)[1] == 0
print("forked")
"""
    answer = subprocess.run([sys.executable, "-c", script], capture_output=True, timeout=120)
    assert (answer.returncode, answer.stdout, answer.stderr) == (0, b"forked\n", b"")

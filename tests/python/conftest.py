# SPDX-License-Identifier: Apache-2.0
"""What the tests share."""

import itertools
import os

import pytest

import tessel

KEY = bytes.fromhex("020000000001")
RESULT = b"\0\7"


class Agent:
    """An agent's manager over a chunk, and the calls that it makes at every start."""

    def __init__(self, chunk):
        self.chunk = chunk
        self.manager = tessel.TableManager("agent", chunk, 0, chunk.size)
        self.mac = self.manager.manageEmShadow("mac", tessel.EmTableHelper(64, 6, 2))
        self.vlan = self.manager.manageDirectShadow("vlan", tessel.DirectTableHelper(16, 2, 2))


@pytest.fixture
def agent():
    return Agent(tessel.VellumChunk.inProcess(1 << 16))


_numbers = itertools.count()


@pytest.fixture
def chunkName():
    name = f"/tessel-python-{os.getpid()}-{next(_numbers)}"
    yield name
    if os.path.exists("/dev/shm" + name):
        tessel.VellumChunk.remove(name)

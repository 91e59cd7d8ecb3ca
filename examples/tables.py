# SPDX-License-Identifier: Apache-2.0
# The tables of an agent in a notebook: run it cell by cell, or as a whole with python3.

# %% [markdown]
# # An agent's tables, and its restart
#
# A chunk of shared memory, an agent that keeps the owners of MAC address blocks in it, and a second
# agent that finds everything again. The blocks are the registry's that Debian's package `ieee-data`
# installs.

# %%
import csv
import itertools
import os
from collections import Counter

import tessel

REGISTRY = "/usr/share/ieee-data/oui.csv"
CHUNK = f"/tessel-notebook-{os.getpid()}"
CHIPS = 4
ENTRIES = 5000

# %% [markdown]
# ## The data
#
# One entry per block: its three bytes are the key, the number of its owner the result. The owner
# decides which chip gets it.

# %%
with open(REGISTRY, newline="", encoding="utf-8") as file:
    rows = list(itertools.islice(csv.reader(file), 1, ENTRIES + 1))
owners = {name: number for number, name in enumerate(dict.fromkeys(row[2] for row in rows))}
blocks = {bytes.fromhex(row[1]): owners[row[2]] for row in rows}
print(f"{len(blocks)} blocks of {len(owners)} owners")

# %% [markdown]
# ## The first agent
#
# The calls that an agent makes when it starts: after a restart they find the same entries.


# %%
class Agent:
    def __init__(self, chunk):
        self.manager = tessel.TableManager("notebook", chunk, 0, chunk.size)
        self.oui = self.manager.manageEmShadow("oui", tessel.EmTableHelper(8192, 3, 4))
        self.port = self.manager.manageEmShadow("port", tessel.EmTableHelper(64, 6, 2))


agent = Agent(tessel.VellumChunk.create(CHUNK, 1 << 20))
for prefix, owner in blocks.items():
    if not agent.oui.entryIs_py(owner % CHIPS, prefix, owner.to_bytes(4, "big")):
        raise RuntimeError("the table is full")
agent.port.entryIs_py(0, bytes.fromhex("020000000001"), b"\0\7")
print(agent.oui, "holds", agent.oui.numUsedEntries)

# %% [markdown]
# ## A mistake costs nothing

# %%
try:
    agent.oui.entryIs_py(0, b"too long a key", bytes(4))
except tessel.ContractError as error:
    print(error.message)

# %% [markdown]
# ## The restart
#
# The agent goes with everything that it knew. The images stay in the chunk.

# %%
del agent
agent = Agent(tessel.VellumChunk.open(CHUNK))
for name, table in agent.manager.managedTable.items():
    print(f"after the restart {name} holds {table.numUsedEntries}")

# %% [markdown]
# ## A walk over all entries, in slot order

# %%
found = {key: int.from_bytes(result, "big") for _, key, result in agent.oui}
print("the same entries:", found == blocks)

(_, most), *_ = Counter(found.values()).most_common(1)
print(f"the largest owner has {most} blocks")

# %% [markdown]
# ## Occupancy per chip


# %%
def bars(counts, width=50):
    most = max(counts.values(), default=1)
    for label, count in sorted(counts.items()):
        print(f"chip {label:3} {'█' * round(width * count / most)} {count}")


bars(dict(agent.oui.numUsedEntriesByChipId))
free = agent.oui.tableHelper.numEntries - agent.oui.numUsedEntries
print(f"{agent.oui.numUsedEntries} slots used, {free} free")

# %% [markdown]
# ## A chip goes

# %%
agent.manager.deleteAll(1)
bars(dict(agent.oui.numUsedEntriesByChipId))

# %%
tessel.VellumChunk.remove(CHUNK)

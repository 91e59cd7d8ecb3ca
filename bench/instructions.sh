#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Instructions that one call of each operation takes, counted with callgrind: 64,000 slots, 90 % full,
# keys of 16 and results of 8 bytes, one chip per key.
#
# usage: instructions.sh BENCHMARK
set -euo pipefail

benchmark=$1
counts=$(mktemp)
trap 'rm -f "$counts" "$counts.log"' EXIT

entries=57600 # in the table
calls=345600  # of the operation that is measured: each entry six times

# Instructions inside of function $2 while operation $1 is measured.
inside() {
   valgrind --tool=callgrind --callgrind-out-file="$counts" --collect-atstart=no \
      --toggle-collect="Tessel::EmShadowTable::$2" "$benchmark" \
      --benchmark_filter="^$1/tessel/K16R8/chips:1/slots:64000/" >/dev/null 2>"$counts.log"
   awk '/Collected/ { print $NF }' "$counts.log"
}

row() {
   printf '| %s | %d |\n' "$1" "$(($2 / $3))"
}

printf '| call | instructions |\n|---|--:|\n'
adding=$(inside 'entryHas hit' 'entryIs(*') # what fills the table before other operations
row 'entryIs new' "$adding" $entries
row 'entryIs rewrite' $(($(inside 'entryIs rewrite' 'entryIs(*') - adding)) $calls
row 'entry' "$(inside entry 'entry(*')" $calls
row 'entryHas hit' "$(inside 'entryHas hit' 'entryHas(*')" $calls
row 'entryHas miss' "$(inside 'entryHas miss' 'entryHas(*')" $calls
row 'entryDel' "$(inside entryDel 'entryDel(*')" $calls
row 'clearTable, per entry' "$(inside clearTable 'clearTable(*')" $entries
row 'restart, per entry' "$(inside 'construction 90 %' 'reconcile(*')" $calls

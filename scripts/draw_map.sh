#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: draw_map.sh TOOL
# Fills the tables of docs/pictures/map.json as agents do, four chips after one another and one of
# them removed again, and has the tool draw them in docs/pictures/map.svg.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../docs/pictures"

readonly tool=$1 plan=map.json chunk=/dev/shm/tessel-picture
trap 'rm -f "$chunk"' EXIT
rm -f "$chunk"

# entries COUNT CHIPS FIRST KEY RESULT: lines for COUNT keys from FIRST on, of KEY and RESULT bytes,
# in the order in which the chips take turns.
entries() {
   awk -v count="$1" -v chips="$2" -v first="$3" -v key="$4" -v result="$5" 'BEGIN {
      for ( i = 0; i < count; i++ ) {
         chip = int( i / 20 ) % chips
         printf "%d,%0*x,%0*x\n", chip, 2 * key, first + i, 2 * result, 16 * chip + i % 16
      }
   }'
}

load() {
   "$tool" load "$plan" "$1" -
}

entries 860 4 33554432 6 2 | load mac
entries 260 3 167772161 4 12 | load nexthop
entries 90 4 1 16 6 | load neighbor
"$tool" clear "$plan" --chip 2
entries 110 2 50331648 6 2 | load mac
"$tool" map "$plan" --out map.svg

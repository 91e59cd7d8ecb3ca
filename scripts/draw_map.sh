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

# entries COUNT CHIPS KEY_DIGITS RESULT_DIGITS FIRST: lines in the order in which chips take turns.
entries() {
   awk -v count="$1" -v chips="$2" -v key="$3" -v result="$4" -v first="$5" 'BEGIN {
      for ( i = 0; i < count; i++ ) {
         chip = int( i / 96 ) % chips
         printf "%d,%0*x,%0*x\n", chip, key, first + i, result, chip * 16 + i % 16
      }
   }'
}

entries 3400 4 12 4 33554432 | "$tool" load "$plan" mac -
entries 700 3 8 24 167772161 | "$tool" load "$plan" nexthop -
entries 300 4 32 12 1 | "$tool" load "$plan" neighbor -
"$tool" clear "$plan" --chip 2
entries 500 2 12 4 50331648 | "$tool" load "$plan" mac -
"$tool" map "$plan" --out map.svg

#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The examples do what the README says of them, and are what it shows; its first program compiles.
# $1: the folder of the built examples; $2: the C++ compiler.
set -euo pipefail

root=$(dirname "${BASH_SOURCE[0]}")/..
readonly root chunk=/tessel-examples-$$
trap 'rm -f "/dev/shm$chunk"' EXIT

expect() {
   local -r wanted=$1
   shift
   local got
   got=$("$@" 2>&1) || true
   [ "$got" = "$wanted" ] || {
      printf '%s: "%s" instead of "%s"\n' "$*" "$got" "$wanted" >&2
      exit 1
   }
}

# The code block of the README behind the first line that matches $1.
shown() {
   awk -v behind="$1" '$0 ~ behind { on = 1 } /^```$/ && code { exit } code; on && /^```cpp$/ { code = 1 }' \
      "$root/README.md"
}

for example in writer reader; do
   diff <(shown "examples/$example.cpp") <(sed -n '/^#include/,$p' "$root/examples/$example.cpp") || {
      echo "the README shows another examples/$example.cpp" >&2
      exit 1
   }
done
shown '^# Tessel' | "$2" -std=c++20 -fsyntax-only -I"$root" -I"$root/platform" -x c++ -

expect '0 found, 100 now' "$1/writer" "$chunk" 100
expect '100 found, 150 now' "$1/writer" "$chunk" 50
expect '150 walked, 150 found' "$1/reader" "$chunk"
rm "/dev/shm$chunk"
expect "reader: shared memory \"$chunk\" cannot be opened: No such file or directory" \
   "$1/reader" "$chunk"

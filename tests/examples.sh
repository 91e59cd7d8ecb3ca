#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The examples do what the README says of them. $1: the folder of the built examples.
set -euo pipefail

readonly chunk=/tessel-examples-$$
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

expect '0 found, 100 now' "$1/writer" "$chunk" 100
expect '100 found, 150 now' "$1/writer" "$chunk" 50
expect '150 walked, 150 found' "$1/reader" "$chunk"
rm "/dev/shm$chunk"
expect "reader: shared memory \"$chunk\" cannot be opened: No such file or directory" \
   "$1/reader" "$chunk"

#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: tidy.sh BUILD SOURCE
# clang-tidy over one source as BUILD compiles it. Its output appears in one piece, and only when
# there is something to say, so that several can run at once.
set -uo pipefail

# clang does not know every option that g++ is given.
if ! output=$(clang-tidy -p "$1" --quiet --extra-arg=-Wno-unknown-warning-option \
   --extra-arg=-Wno-ignored-optimization-argument "$2" 2>&1); then
   printf '%s\n' "$output" | grep -Ev '^[0-9]+ warnings? (and [0-9]+ errors? )?generated'
   exit 1
fi

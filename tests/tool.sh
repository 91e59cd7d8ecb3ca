#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# What the tool's help, completion and man pages say is so. $1: the tool; $2: its sources.
set -euo pipefail

tool=$(realpath "$1")
sources=$(realpath "$2")
name=tessel-test-$$
scratch=$(mktemp -d)
readonly tool sources name scratch
trap 'rm -rf "$scratch" "/dev/shm/$name"' EXIT
trap 'echo "$0:$LINENO failed" >&2' ERR
export PATH=${tool%/*}:$PATH
cd "$scratch"

fail() {
   printf '%s\n' "$*" >&2
   exit 1
}

# The examples of a verb's help, about a plan and a chunk of this test.
examples() {
   tessel "$@" --help | sed -n '/^Examples:/,$ s/^  //p' | sed "s/\\bl2\\b/$name/g"
}

start_anew() {
   rm -f "$name".* "/dev/shm/$name"
   [[ $1 == *"tessel init"* ]] && return
   tessel init "$name.json" >/dev/null
   tessel update "$name.json" mac 0 02:00:5e:00:53:01 7
   tessel update "$name.json" host 0 192.0.2.1 02:00:5e:00:53:01
}

run_examples() {
   local text line
   text=$(examples "$@")
   [ -n "$text" ] || fail "tessel $* --help has no examples"
   start_anew "$text"
   while read -r line; do
      bash -o pipefail -c "$line" </dev/null >out 2>err || fail "$line: $(cat err)"
   done <<<"$text"
}

# What bash completes the words to; the last one is being typed.
expect_completion() {
   local wanted=$1
   shift
   COMP_WORDS=(tessel "$@") COMP_CWORD=$# COMPREPLY=()
   _tessel || fail "completion of '$*' failed" # and compopt may fail outside of completion
   [ "${COMPREPLY[*]}" = "$wanted" ] || fail "completion of '$*': '${COMPREPLY[*]}', not '$wanted'"
}

mapfile -t verbs < <(tessel __complete help "")
[ "${#verbs[@]}" -ge 13 ] || fail "the tool tells ${#verbs[@]} verbs"
run_examples
for verb in "${verbs[@]}"; do
   run_examples "$verb"
   grep -q "^\.It Cm $verb\b" "$sources/man/tessel.1" || fail "tessel.1 has no verb $verb"
   for option in $(tessel __complete "$verb" --); do
      [ "$option" = --help ] || grep -q "Fl -${option#--}\b" "$sources/man/tessel.1" ||
         fail "tessel.1 has no option $option of $verb"
   done
done

# shellcheck source=/dev/null
source "$sources/completion/tessel.bash"
start_anew ""
touch another.json
expect_completion "show" sh
expect_completion "help" he
expect_completion "show" help sh
expect_completion "--json" --j
expect_completion "mac" lookup "$name.json" m
expect_completion "mac host vlan" --json map "$name.json" ""
expect_completion "mac host" show "/$name" --table ""
expect_completion "/$name" show "/$name"
expect_completion "another.json" load an
expect_completion "--chip" clear "$name.json" --c
expect_completion "csv" dump "$name.json" mac --as c
expect_completion "" lookup "$name.json" mac 0 ""
expect_completion "mac" show "/$name" --table = m
expect_completion "mac host" show "/$name" --table =
expect_completion "another.json" map "$name.json" --out = an
cp "$name.json" "a b.json"
expect_completion "mac" lookup '"a b.json"' m
expect_completion "mac" lookup 'a\ b.json' m
# shellcheck disable=SC2088
HOME=$PWD expect_completion "mac" lookup "~/$name.json" m

complaints=$(tessel load "$name.json" mac - 2>&1 <&-) && fail "a closed standard input was read"
[[ $complaints == *"standard input: cannot be read"* ]] || fail "$complaints"

for page in "$sources"/man/*; do
   complaints=$(groff -mandoc -Tutf8 -ww -z "$page" 2>&1)
   [ -z "$complaints" ] || fail "$complaints"
done
[ "$(tessel --version)" = "tessel $3" ] || fail "--version: $(tessel --version), not $3"

# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# Completion of tessel for bash. The tool itself knows what can come next; it answers `:files` where
# that is a file.

_tessel() {
   local line word
   local -a words=()
   COMPREPLY=()
   # An option and its value with a `=` between are two words here. Quotes and backslashes go, as they
   # do when the line is run.
   for word in "${COMP_WORDS[@]:1:COMP_CWORD}"; do
      [ "$word" = = ] && continue
      word=${word//[\\\'\"]/}
      words+=("${word/#\~\//"$HOME/"}")
   done
   [ "${COMP_WORDS[COMP_CWORD]}" = = ] && words+=('')
   word=${words[-1]}
   while IFS= read -r line; do
      if [ "$line" = :files ]; then
         compopt -o filenames 2>/dev/null
         mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -f -- "$word")
      else
         COMPREPLY+=("$(printf '%q' "$line")")
      fi
   done < <("${COMP_WORDS[0]}" __complete "${words[@]}" 2>/dev/null)
}

complete -F _tessel tessel

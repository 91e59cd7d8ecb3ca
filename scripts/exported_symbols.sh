#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: exported_symbols.sh LIBRARY [LIST]
# Prints the library's soname and what it exports, one line each; with LIST, says instead where that
# file differs, and fails if it does. For an optimised build: others export other copies of inline
# functions.
set -euo pipefail
export LC_ALL=C

exported() {
   readelf --dynamic --wide "$1" | sed -n 's/.*Library soname: \[\(.*\)\]/soname \1/p'
   local -r characters='char, std::char_traits<char>'
   nm --dynamic --defined-only "$1" | awk '{ print $3 }' | c++filt | sed \
      -e '/^typeinfo name for /d' \
      -e "s/std::__cxx11::basic_string<$characters, std::allocator<char> >/std::string/g" \
      -e "s/std::basic_string_view<$characters >/std::string_view/g" \
      -e 's/, 18446744073709551615ul>/>/g; s/\[abi:cxx11\]//g' | sort -u
}

[ $# -eq 2 ] || { exported "$1" && exit; }
diff --unified=0 --label "$2" "$2" --label "$1" <(exported "$1") >&2 || {
   cat >&2 <<END

The library does not export what $2 lists.
"+": new. If it is meant for callers, add it with: ./dev abi
     If not, it is internal: hide it, by its declaration or in cmake/exports.map.
"-": gone or changed. Programs built against the last release no longer start: bring it back, or
     raise SOVERSION in CMakeLists.txt, say so in CHANGELOG.md, and run: ./dev abi
END
   exit 1
}

#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: try_packages.sh FOLDER
# Installs the Debian packages in FOLDER in a fresh Debian 12, uses each as its users do, and removes
# them again; nothing of them may be left. Needs root and debootstrap. TESSEL_MIRROR names where
# Debian's own packages come from.
# shellcheck disable=SC2016  # what stands in single quotes is expanded in the fresh system
set -euo pipefail

readonly mirror=${TESSEL_MIRROR:-http://deb.debian.org/debian} chunk=/tessel-try-$$
sources=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
packages=$(cd "$1" && pwd)
root=$(mktemp -d "${TMPDIR:-/tmp}/tessel-root.XXXXXX")
log=$root.log
readonly sources packages root log
trap 'rm -rf --one-file-system "$root" "$log"' EXIT

# step WHAT COMMAND…: fails when the command's last line does, so that every other one ends in &&.
step() {
   printf -- '-- %s\n' "$1"
   shift
   "$@" >"$log" 2>&1 || {
      cat "$log" >&2
      printf 'try_packages: failed: %s\n' "$*" >&2
      exit 1
   }
}

within() {
   chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
      DEBIAN_FRONTEND=noninteractive bash -euo pipefail -c "$1"
}


install_tried() {
   cp "$packages"/*.deb "$root/root/" &&
      within 'apt-get update && apt-get install -y --no-install-recommends /root/*.deb'
}

use_the_tool() {
   cat >"$root/root/plan.json" <<END
{ "agent": "l2", "chunk": "$chunk", "size": 65536, "startOffset": 0, "allowedSize": 65536,
  "tables": [ { "name": "mac", "kind": "exact", "entries": 64, "key": 6, "result": 2 } ] }
END
   within 'cd /root
      tessel update plan.json mac 0 02:00:00:00:00:01 0007
      tessel dump plan.json mac | grep -qx 0,020000000001,0007'
}

use_the_python_package() {
   within "python3 - <<'END'
import tessel
chunk = tessel.VellumChunk.open('$chunk', readOnly=True)
table = tessel.EmShadowTable('mac', tessel.EmTableHelper(64, 6, 2), chunk, 44)
assert [*table] == [(0, bytes.fromhex('020000000001'), b'\\0\\7')], [*table]
tessel.VellumChunk.remove('$chunk')
END
ls /usr/lib/python3/dist-packages/tessel/__pycache__/*.pyc"
}

install_a_compiler() {
   within 'apt-get install -y --no-install-recommends g++ cmake ninja-build pkgconf
      mkdir /root/sources' &&
      tar -C "$sources" -c CMakeLists.txt LICENSE Tessel platform cmake |
      tar -C "$root/root/sources" -x
}

use_the_headers_with() {
   case $1 in
      pkg-config)
         within 'cd /tmp && /root/sources/cmake/consumer/pkg-config/build.sh && ./consumer'
         ;;
      *) within "cmake -S /root/sources/cmake/consumer/$1 -B /tmp/$1 -G Ninja &&
         cmake --build /tmp/$1 --target consumer && /tmp/$1/consumer" ;;
   esac
}

remove_tried() {
   within 'apt-get purge -y libtessel1 libtessel-dev tessel-tools python3-tessel
      left=$(find /etc /usr -xdev -iname "*tessel*" && ldconfig -p | { grep -i tessel || true; })
      [ -z "$left" ] || { echo "left: $left" && exit 1; }'
}

step "a fresh Debian 12 in $root" debootstrap --variant=minbase bookworm "$root" "$mirror"
step "installing the packages" install_tried
step "the tool writes a chunk and reads it back" use_the_tool
step "the Python package reads what the tool wrote" use_the_python_package
step "installing a compiler" install_a_compiler
for way in pkg-config find-package add-subdirectory; do
   step "a program takes the library by $way" use_the_headers_with "$way"
done
step "removing the packages leaves nothing of them" remove_tried

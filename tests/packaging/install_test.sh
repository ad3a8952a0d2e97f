#!/bin/bash
# Installs the build into a prefix of its own, moves it, and builds and runs programs from there.
#   install_test.sh BUILD
set -euo pipefail
source "$(dirname "$(realpath "$0")")/consumers.sh"
build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/first"
mv "$work/first" "$work/prefix" # nothing installed may know where it was
libdir=$(dirname "$(find "$work/prefix" -name liboxpliv.so)")

[ "$(readlink "$libdir/liboxpliv.so")" = "$soname" ]
[ "$(readlink "$libdir/$soname")" = "liboxpliv.so.$version" ]
[ -e "$work/prefix/share/man/man3/liboxpliv.3" ]
[ ! -e "$work/prefix/include/pmem" ] # the public headers only
if grep -rIl -e "$work/first" -e "$(realpath "$build")" "$work/prefix"; then
  echo "these name a place that they were built or installed in"
  exit 1
fi
for binary in "$libdir/$soname" "$work"/prefix/bin/*; do
  if readelf -d "$binary" | grep -iE 'R(UN)?PATH'; then
    echo "$binary looks for its libraries where it was built"
    exit 1
  fi
done
build_consumers "$work/prefix" "$libdir" "$work"
echo "installed, moved, and used by four consumers"

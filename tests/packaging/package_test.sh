#!/bin/bash
# Builds the packages, unpacks them into a root that holds nothing else but what they say they depend on, and runs the
# tour and the consumers from there.
set -euo pipefail
[ "$(id -u)" = 0 ] || { echo "skipped: only root may change its root directory"; exit 77; }
source "$(dirname "$(realpath "$0")")/consumers.sh"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
root=$work/root

"$tree/scripts/package" "$work/packages"
for package in "liboxpliv${version%%.*}" liboxpliv-dev liboxpliv-tools; do
  dpkg-deb -x "$work/packages/${package}_${version}_amd64.deb" "$root"
done
mkdir "$work/symbols"
dpkg-deb -x "$work/packages/liboxpliv${version%%.*}"-dbgsym_*deb "$work/symbols"

# What the packages declare is there, and nothing is missing.
declared=$(for package in "$work"/packages/*.deb; do dpkg-deb -f "$package" Depends; done | tr ',' '\n' |
  sed 's/ *(.*//; s/^ *//' | sort -u | grep -v '^liboxpliv')
echo "depends on" $declared
for library in $(ldd "$root"/usr/bin/* "$root"/usr/lib/*/"$soname" | grep -o '/[^ ]*\.so[^ ]*' | sort -u); do
  case "$library" in */liboxpliv*) continue ;; esac
  # /lib has moved into /usr, but the registry of files remembers where each was.
  owner=$({ dpkg -S "$library" "/usr$library" "${library#/usr}" 2>/dev/null || true; } | cut -d: -f1 | head -1)
  grep -qx "$owner" <<<"$declared" || { echo "$library belongs to $owner, which no package depends on"; exit 1; }
  mkdir -p "$root$(dirname "$library")"
  cp -L "$library" "$root$library"
done

mkdir -p "$root/proc" "$root/sys" "$root/tmp" "$root/etc"
ldconfig -r "$root"
cp "$tree/README.md" "$root/tmp/text"
unshare --mount bash -euc '
  mount -t proc proc "$1/proc"
  mount --rbind /sys "$1/sys"
  chroot "$1" /usr/bin/oxpliv-tour /tmp/text
  chroot "$1" /usr/bin/oxpliv-check --max 64M || true # whatever it says of this machine' -- "$root" | tee "$work/said"
grep -qE 'All [1-9][0-9]+ checks hold' "$work/said"
grep -q 'The library works here' "$work/said"

libdir=$(dirname "$(find "$root" -name liboxpliv.so)")

# What comes with it: manuals, and the extension where GDB looks for it.
[ -e "$root/usr/share/man/man1/oxpliv-check.1" ]
[ -e "$root/usr/share/gdb/auto-load${libdir#"$root"}/liboxpliv.so.$version-gdb.py" ]
build_consumers "$root/usr" "$libdir" "$work"

# The library carries no debug information itself, and the symbols belong to it.
identity=$(readelf -n "$libdir/$soname" | awk '/Build ID/ {print $3}')
[ -e "$work/symbols/usr/lib/debug/.build-id/${identity:0:2}/${identity:2}.debug" ]
if readelf -S "$libdir/$soname" | grep -q '\.debug_info'; then
  echo "the library carries debug information"
  exit 1
fi
echo "unpacked into a clean root, and used there"

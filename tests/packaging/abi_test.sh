#!/bin/bash
# The interface is what its description says; and a change of it would be seen.
set -euo pipefail
tree=$(realpath "$(dirname "$(realpath "$0")")/../..")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$tree/scripts/abi"

for record in $(grep -oP '^} \K\w+_t(?=;)' "$tree/src/oxpliv/ox_pliv_records.h"); do
  grep -q "^$record " "$tree/packaging/abi/records.c" || { echo "$record is described nowhere"; exit 1; }
done

# changed DESCRIPTION-FILE SED-EXPRESSION: the comparison must fail when the description says something else.
changed() {
  cp "$tree"/packaging/abi/*.abi "$work"
  sed -i "$2" "$work/$1"
  ! cmp -s "$tree/packaging/abi/$1" "$work/$1" || { echo "$2 changes nothing"; exit 1; }
  if "$tree/scripts/abi" against "$work" >"$work/said" 2>&1; then
    echo "$2 was not noticed"
    exit 1
  fi
}
changed liboxpliv.so.abi "/elf-symbol name='ox_mmap_pliv'/d"
changed liboxpliv_records.so.abi "s/var-decl name='used_low_bytes'/var-decl name='used_lowest_bytes'/"
changed liboxpliv_records.so.abi "s/class-decl name='account_usage_t' size-in-bits='704'/class-decl name='account_usage_t' size-in-bits='768'/"
echo "the interface is as described, and changes are noticed"

#!/bin/bash
# The hook that a person installs lets a clean change through and stops a badly formatted one.
set -euo pipefail
tree=$(realpath "$(dirname "$(realpath "$0")")/../..")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/doc" # beside the clone: what is called so in the tree is no path of this workplace
if ! git clone -q "$tree" "$work/clone"; then
  echo "skipped: this tree is no repository"
  exit 77
fi
cd "$work/clone"
git config user.name Test
git config user.email test@localhost
cp "$tree"/scripts/* scripts/
git diff --quiet || git commit -qam "Take the scripts as they are"

scripts/lint --install-hook
if scripts/lint --install-hook; then
  echo "a hook was written over another one"
  exit 1
fi
echo "int   badly_formatted( ) ;" >src/utils/new.hpp
git add src/utils/new.hpp
if git commit -qm "Must not pass"; then
  echo "the hook let a badly formatted file through"
  exit 1
fi
git rm -qf src/utils/new.hpp
echo "A line." >>README.md
git commit -qam "May pass"
echo "the hook does its work"
